#include "tls_context.h"

#include <algorithm>
#include <stdexcept>

namespace testpeer {

namespace {

void require(bool done, const std::string &what) {
  if (!done) throw std::runtime_error("a peer's TLS: " + what);
}

int number_of(TlsVersion version) {
  if (version == TlsVersion::tls_1_1) return TLS1_1_VERSION;
  return version == TlsVersion::tls_1_2 ? TLS1_2_VERSION : TLS1_3_VERSION;
}

// Whether the client's certificate is good is left to those scripts that name an authority.
int accept_any(int, X509_STORE_CTX *) { return 1; }

int give_passphrase(char *buffer, int size, int, void *passphrase) {
  const std::string &text = *static_cast<const std::string *>(passphrase);
  if (text.size() > static_cast<size_t>(size)) return -1;
  std::copy(text.begin(), text.end(), buffer);
  return static_cast<int>(text.size());
}

void demand_certificates(SSL_CTX *context, const TlsSettings &settings) {
  const int mode = SSL_VERIFY_PEER | (settings.needs_client_certificate ? SSL_VERIFY_FAIL_IF_NO_PEER_CERT : 0);
  SSL_CTX_set_verify(context, mode, settings.client_authority.empty() ? accept_any : nullptr);
  if (settings.client_authority.empty()) return;
  const char *file = settings.client_authority.c_str();
  require(SSL_CTX_load_verify_locations(context, file, nullptr) == 1, "cannot load " + settings.client_authority);
  SSL_CTX_set_client_CA_list(context, SSL_load_client_CA_file(file));
  if (settings.client_revocations.empty()) return;
  X509_STORE *store = SSL_CTX_get_cert_store(context);
  const char *list = settings.client_revocations.c_str();
  require(X509_STORE_load_file(store, list) == 1 && X509_STORE_set_flags(store, X509_V_FLAG_CRL_CHECK) == 1,
          "cannot load " + settings.client_revocations);
}

}  // namespace

SslContextPtr make_server_context(const TlsSettings &settings) {
  SslContextPtr context(SSL_CTX_new(TLS_server_method()));
  require(context != nullptr, "no context");
  // What is older than 1.2 signs with what the usual level refuses.
  if (settings.version_min < TlsVersion::tls_1_2) SSL_CTX_set_security_level(context.get(), 0);
  SSL_CTX_set_min_proto_version(context.get(), number_of(settings.version_min));
  SSL_CTX_set_max_proto_version(context.get(), number_of(settings.version_max));
  SSL_CTX_set_num_tickets(context.get(), 0);  // nobody resumes a session, and a flight counts for more when it is one's own
  const Credentials &own = settings.certificate;
  if (!own.certificate.empty()) {
    std::string passphrase = own.passphrase;
    SSL_CTX_set_default_passwd_cb(context.get(), give_passphrase);
    SSL_CTX_set_default_passwd_cb_userdata(context.get(), &passphrase);
    require(SSL_CTX_use_certificate_chain_file(context.get(), own.certificate.c_str()) == 1 &&
                SSL_CTX_use_PrivateKey_file(context.get(), own.key.c_str(), SSL_FILETYPE_PEM) == 1,
            "cannot load " + own.certificate);
    SSL_CTX_set_default_passwd_cb_userdata(context.get(), nullptr);
    SSL_CTX_set_default_passwd_cb(context.get(), nullptr);
  }
  demand_certificates(context.get(), settings);
  return context;
}

}  // namespace testpeer

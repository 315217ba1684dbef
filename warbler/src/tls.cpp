#include "tls.h"

#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <new>

#include "endpoint.h"

namespace wb {

namespace {

struct ContextDeleter {
  void operator()(SSL_CTX *context) const { SSL_CTX_free(context); }
};
using ContextPtr = std::unique_ptr<SSL_CTX, ContextDeleter>;

// Where a connection keeps its expected names; below 0 when memory is out, which the next call may find otherwise.
int names_index() {
  static std::atomic<int> index = -1;
  if (const int known = index; known >= 0) return known;
  int expected = -1;
  const int fresh = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
  return index.compare_exchange_strong(expected, fresh) ? fresh : expected;
}

bool bears_name(X509 *certificate, const std::string &name) {
  if (name.empty()) return false;
  if (is_address_literal(name)) return X509_check_ip_asc(certificate, name.c_str(), 0) == 1;
  // Never by the subject: a client's certificate, whose subject is a user's name, must not pass for a server's.
  constexpr unsigned kFlags = X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS | X509_CHECK_FLAG_NEVER_CHECK_SUBJECT;
  return X509_check_host(certificate, name.data(), name.size(), kFlags, nullptr) == 1;
}

// Runs inside the handshake, so that a server under another name is refused before it has seen our certificate.
int check_name(int verified, X509_STORE_CTX *store) {
  const auto *ssl = static_cast<const SSL *>(X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
  if (const auto before = SSL_CTX_get_verify_callback(SSL_get_SSL_CTX(ssl)); before != nullptr)
    verified = before(verified, store);
  if (verified != 1 || X509_STORE_CTX_get_error_depth(store) != 0) return verified;
  const auto *names = static_cast<const ExpectedNames *>(SSL_get_ex_data(ssl, names_index()));
  X509 *certificate = X509_STORE_CTX_get_current_cert(store);
  int error = X509_V_ERR_HOSTNAME_MISMATCH;
  // An exception would leave what OpenSSL's functions below this one hold.
  try {
    if (names != nullptr && (bears_name(certificate, names->domain) || bears_name(certificate, names->host))) return 1;
  } catch (const std::bad_alloc &) {
    error = X509_V_ERR_OUT_OF_MEM;
  }
  X509_STORE_CTX_set_error(store, error);
  return 0;
}

// What the application wants the certificate to bear, OpenSSL checks itself.
bool expects_names(SSL *ssl) {
  X509_VERIFY_PARAM *expected = SSL_get0_param(ssl);
  if (X509_VERIFY_PARAM_get0_host(expected, 0) != nullptr || X509_VERIFY_PARAM_get0_email(expected) != nullptr) return true;
  char *address = X509_VERIFY_PARAM_get1_ip_asc(expected);
  OPENSSL_free(address);
  return address != nullptr;
}

std::string last_error(const char *otherwise) {
  const unsigned long code = ERR_peek_last_error();
  const char *reason = code != 0 ? ERR_reason_error_string(code) : nullptr;
  ERR_clear_error();
  return reason != nullptr ? reason : otherwise;
}

}  // namespace

SslPtr make_tls(const TlsHooks &hooks, const ExpectedNames &names, std::string &error) {
  const ContextPtr context(SSL_CTX_new(TLS_client_method()));
  if (context == nullptr || SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION) != 1) {
    error = last_error("no TLS context");
    return nullptr;
  }
  // Sessions are not resumed: each attempt shows the certificate in force.
  SSL_CTX_set_options(context.get(), SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION);
  if (hooks.connect != nullptr) hooks.connect(context.get(), hooks.connect_arg);
  if (SSL_CTX_get_min_proto_version(context.get()) < TLS1_2_VERSION) SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
  SslPtr ssl(SSL_new(context.get()));
  if (ssl == nullptr || SSL_set_tlsext_host_name(ssl.get(), names.domain.c_str()) != 1) {
    error = last_error("no TLS connection");
    return nullptr;
  }
  if (verifies_peer(ssl.get()) && !expects_names(ssl.get())) {
    if (SSL_set_ex_data(ssl.get(), names_index(), const_cast<ExpectedNames *>(&names)) != 1) {
      error = last_error("no check of the server's name");
      return nullptr;
    }
    SSL_set_verify(ssl.get(), SSL_get_verify_mode(ssl.get()), check_name);
  }
  ERR_clear_error();
  return ssl;
}

bool verifies_peer(const SSL *ssl) { return (SSL_get_verify_mode(ssl) & SSL_VERIFY_PEER) != 0; }

std::string describe_tls(const SSL *ssl) {
  std::string text = SSL_get_version(ssl);
  text.append(", ").append(SSL_get_cipher_name(ssl));
  if (X509 *certificate = SSL_get0_peer_certificate(ssl); certificate != nullptr) {
    char subject[256];
    X509_NAME_oneline(X509_get_subject_name(certificate), subject, sizeof subject);
    text.append(", ").append(subject);
  }
  return text;
}

}  // namespace wb

void wb_tls_proceed(wb_tls_session *session, bool accept) {
  if (session != nullptr && session->asker != nullptr) session->asker->on_tls_answer(accept);
}

void *wb_tls_session_get_ssl(wb_tls_session *session) { return session != nullptr ? session->ssl : nullptr; }

void wb_tls_terminate(void) {}

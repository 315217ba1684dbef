#include <openssl/asn1.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <stdlib.h>
#include <unistd.h>
#include <qlk/testpeer/certificates.hpp>

#include <cstdio>
#include <filesystem>
#include <stdexcept>

namespace testpeer {

namespace {

constexpr long kDay = 24L * 60 * 60;
constexpr char kXmppAddress[] = "1.3.6.1.5.5.7.8.5";

void require(bool done, const std::string &what) {
  if (!done) throw std::runtime_error("cannot make a certificate: " + what);
}

struct FileClose {
  void operator()(FILE *file) const { std::fclose(file); }
};
using FilePtr = std::unique_ptr<FILE, FileClose>;

FilePtr open_file(const std::string &path, const char *mode) {
  FilePtr file(std::fopen(path.c_str(), mode));
  require(file != nullptr, path);
  return file;
}

template <auto Free>
struct Freeing {
  template <typename Object>
  void operator()(Object *object) const {
    Free(object);
  }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, Freeing<EVP_PKEY_free>>;
using CertificatePtr = std::unique_ptr<X509, Freeing<X509_free>>;
using RevocationsPtr = std::unique_ptr<X509_CRL, Freeing<X509_CRL_free>>;
using TimePtr = std::unique_ptr<ASN1_TIME, Freeing<ASN1_TIME_free>>;
using NamesPtr = std::unique_ptr<GENERAL_NAMES, Freeing<GENERAL_NAMES_free>>;

// The list owns what is added.
void add_name(GENERAL_NAMES *names, GENERAL_NAME *name) {
  require(name != nullptr && sk_GENERAL_NAME_push(names, name) > 0, "no memory for an alternative name");
}

GENERAL_NAME *dns_name(const std::string &text) {
  GENERAL_NAME *name = GENERAL_NAME_new();
  ASN1_IA5STRING *value = ASN1_IA5STRING_new();
  require(name != nullptr && value != nullptr && ASN1_STRING_set(value, text.data(), static_cast<int>(text.size())) == 1, text);
  GENERAL_NAME_set0_value(name, GEN_DNS, value);
  return name;
}

GENERAL_NAME *ip_address(const std::string &text) {
  ASN1_OCTET_STRING *value = a2i_IPADDRESS(text.c_str());
  require(value != nullptr, "no IP address: " + text);
  GENERAL_NAME *name = GENERAL_NAME_new();
  require(name != nullptr, text);
  GENERAL_NAME_set0_value(name, GEN_IPADD, value);
  return name;
}

GENERAL_NAME *xmpp_address(const std::string &text) {
  GENERAL_NAME *name = GENERAL_NAME_new();
  ASN1_TYPE *value = ASN1_TYPE_new();
  ASN1_UTF8STRING *string = ASN1_UTF8STRING_new();
  require(name != nullptr && value != nullptr && string != nullptr &&
              ASN1_STRING_set(string, text.data(), static_cast<int>(text.size())) == 1,
          text);
  ASN1_TYPE_set(value, V_ASN1_UTF8STRING, string);
  require(GENERAL_NAME_set0_othername(name, OBJ_txt2obj(kXmppAddress, 1), value) == 1, text);
  return name;
}

void add_alternative_names(X509 *certificate, GENERAL_NAMES *names) {
  if (sk_GENERAL_NAME_num(names) == 0) return;
  require(X509_add1_ext_i2d(certificate, NID_subject_alt_name, names, 0, X509V3_ADD_DEFAULT) == 1, "alternative names");
}

void add_extension(X509 *certificate, int nid, const char *value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
  X509_EXTENSION *extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
  require(extension != nullptr, value);
  const int added = X509_add_ext(certificate, extension, -1);
  X509_EXTENSION_free(extension);
  require(added == 1, value);
}

void add_subject(X509 *certificate, const char *field, const std::string &value) {
  const auto *bytes = reinterpret_cast<const unsigned char *>(value.data());
  X509_NAME *subject = X509_get_subject_name(certificate);
  require(X509_NAME_add_entry_by_txt(subject, field, MBSTRING_UTF8, bytes, static_cast<int>(value.size()), -1, 0) == 1, value);
}

void set_serial_number(X509 *certificate) {
  unsigned char bytes[16];
  require(RAND_bytes(bytes, sizeof bytes) == 1, "no random bytes");
  bytes[0] &= 0x7f;
  BIGNUM *number = BN_bin2bn(bytes, sizeof bytes, nullptr);
  const bool set = number != nullptr && BN_to_ASN1_INTEGER(number, X509_get_serialNumber(certificate)) != nullptr;
  BN_free(number);
  require(set, "serial number");
}

void set_period(X509 *certificate, Validity validity) {
  long from = -kDay, to = 30 * kDay;
  if (validity == Validity::expired) from = -10 * kDay, to = -kDay;
  if (validity == Validity::not_yet) from = 5 * kDay;
  X509_gmtime_adj(X509_getm_notBefore(certificate), from);
  X509_gmtime_adj(X509_getm_notAfter(certificate), to);
}

// Everything that a certificate has before it is extended and signed.
void begin(X509 *certificate, EVP_PKEY *key, const std::string &common_name, Validity validity) {
  require(certificate != nullptr && key != nullptr, "no memory or no key");
  X509_set_version(certificate, X509_VERSION_3);
  set_serial_number(certificate);
  set_period(certificate, validity);
  add_subject(certificate, "CN", common_name);
  require(X509_set_pubkey(certificate, key) == 1, "public key");
}

struct Issuer {
  KeyPtr key{EVP_EC_gen("P-256")};
  CertificatePtr certificate{X509_new()};
};

void sign(X509 *certificate, X509 *issuer, EVP_PKEY *issuer_key) {
  require(X509_set_issuer_name(certificate, X509_get_subject_name(issuer)) == 1, "issuer");
  require(X509_sign(certificate, issuer_key, EVP_sha256()) > 0, "signature");
}

// One that may sign others: above is nullptr for the uppermost, which signs itself.
Issuer make_issuer(const std::string &name, const Issuer *above) {
  Issuer issuer;
  X509 *certificate = issuer.certificate.get();
  begin(certificate, issuer.key.get(), name, Validity::current);
  add_extension(certificate, NID_basic_constraints, "critical,CA:TRUE");
  add_extension(certificate, NID_key_usage, "critical,keyCertSign,cRLSign");
  add_extension(certificate, NID_subject_key_identifier, "hash");
  sign(certificate, above != nullptr ? above->certificate.get() : certificate, (above != nullptr ? above : &issuer)->key.get());
  return issuer;
}

const char *usage_name(Usage usage) {
  switch (usage) {
    case Usage::server:
      return "serverAuth";
    case Usage::client:
      return "clientAuth";
    case Usage::other:
      return "codeSigning";
    case Usage::none:
      break;
  }
  return nullptr;
}

}  // namespace

TemporaryFolder::TemporaryFolder()
    : path_((std::filesystem::temp_directory_path() / "testpeer-XXXXXX").string()), process_(getpid()) {
  if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("cannot make the temporary folder " + path_);
}

TemporaryFolder::~TemporaryFolder() {
  if (getpid() != process_) return;
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

// The authority's key and what is made with it.
class CertificateAuthority::Signer {
 public:
  explicit Signer(const std::string &name);

  Credentials server(const ServerIdentity &identity);
  Credentials client(const ClientIdentity &identity);
  void revoke(const Credentials &credentials);

  const Credentials &own() const { return own_; }
  const std::string &revocations() const { return revocations_file_; }
  const TemporaryFolder &folder() const { return folder_; }

 private:
  Credentials finish(X509 *certificate, EVP_PKEY *key, Usage usage, const Issuer *issuer, const std::string &passphrase);
  Credentials save(X509 *certificate, EVP_PKEY *key, const std::string &passphrase);
  void save_revocations();

  TemporaryFolder folder_;
  Issuer authority_;
  RevocationsPtr revocations_;
  std::string revocations_file_ = folder_.file("revocations.pem");
  Credentials own_;
  int issued_ = 0;
};

CertificateAuthority::Signer::Signer(const std::string &name)
    : authority_(make_issuer(name, nullptr)), revocations_(X509_CRL_new()) {
  own_ = save(authority_.certificate.get(), authority_.key.get(), "");
  require(X509_CRL_set_version(revocations_.get(), X509_CRL_VERSION_2) == 1 &&
              X509_CRL_set_issuer_name(revocations_.get(), X509_get_subject_name(authority_.certificate.get())) == 1,
          "list of revocations");
  save_revocations();
}

Credentials CertificateAuthority::Signer::server(const ServerIdentity &identity) {
  std::string common_name = identity.common_name;
  if (common_name.empty() && !identity.addresses.empty()) common_name = identity.addresses.front();
  if (identity.common_name.empty() && !identity.names.empty()) common_name = identity.names.front();
  const KeyPtr key(EVP_EC_gen("P-256"));
  const CertificatePtr certificate(X509_new());
  begin(certificate.get(), key.get(), common_name.empty() ? "server" : common_name, identity.validity);
  const NamesPtr names(GENERAL_NAMES_new());
  for (const std::string &name : identity.names) add_name(names.get(), dns_name(name));
  for (const std::string &address : identity.addresses) add_name(names.get(), ip_address(address));
  add_alternative_names(certificate.get(), names.get());
  std::vector<Issuer> between;
  for (size_t i = 0; i < identity.intermediates; ++i)
    between.push_back(make_issuer("Between " + std::to_string(i), i == 0 ? &authority_ : &between.back()));
  const Issuer *issuer = between.empty() ? &authority_ : &between.back();
  const Credentials files =
      finish(certificate.get(), key.get(), identity.usage, identity.self_signed ? nullptr : issuer, identity.passphrase);
  const FilePtr file = open_file(files.certificate, "ab");
  for (auto one = between.rbegin(); one != between.rend(); ++one)
    require(PEM_write_X509(file.get(), one->certificate.get()) == 1, files.certificate);
  return files;
}

Credentials CertificateAuthority::Signer::client(const ClientIdentity &identity) {
  const std::string address = identity.user + "@" + identity.domain;
  const KeyPtr key(EVP_EC_gen("P-256"));
  const CertificatePtr certificate(X509_new());
  begin(certificate.get(), key.get(), identity.user, identity.validity);
  if (identity.has_email_address) add_subject(certificate.get(), "emailAddress", address);
  const NamesPtr names(GENERAL_NAMES_new());
  if (identity.has_xmpp_address) add_name(names.get(), xmpp_address(address));
  add_alternative_names(certificate.get(), names.get());
  return finish(certificate.get(), key.get(), identity.usage, identity.self_signed ? nullptr : &authority_, identity.passphrase);
}

// Without an issuer it signs itself.
Credentials CertificateAuthority::Signer::finish(X509 *certificate, EVP_PKEY *key, Usage usage, const Issuer *issuer,
                                                 const std::string &passphrase) {
  if (const char *name = usage_name(usage); name != nullptr) add_extension(certificate, NID_ext_key_usage, name);
  sign(certificate, issuer != nullptr ? issuer->certificate.get() : certificate, issuer != nullptr ? issuer->key.get() : key);
  return save(certificate, key, passphrase);
}

Credentials CertificateAuthority::Signer::save(X509 *certificate, EVP_PKEY *key, const std::string &passphrase) {
  const std::string stem = folder_.file(std::to_string(issued_++));
  Credentials files{stem + "-certificate.pem", stem + "-key.pem", passphrase};
  require(PEM_write_X509(open_file(files.certificate, "wb").get(), certificate) == 1, files.certificate);
  const auto *phrase = reinterpret_cast<const unsigned char *>(passphrase.data());
  const FilePtr file = open_file(files.key, "wb");
  const int written = passphrase.empty() ? PEM_write_PrivateKey(file.get(), key, nullptr, nullptr, 0, nullptr, nullptr)
                                         : PEM_write_PrivateKey(file.get(), key, EVP_aes_256_cbc(), phrase,
                                                                static_cast<int>(passphrase.size()), nullptr, nullptr);
  require(written == 1, files.key);
  return files;
}

void CertificateAuthority::Signer::revoke(const Credentials &credentials) {
  const FilePtr file = open_file(credentials.certificate, "rb");
  const CertificatePtr certificate(PEM_read_X509(file.get(), nullptr, nullptr, nullptr));
  require(certificate != nullptr, credentials.certificate);
  X509_REVOKED *entry = X509_REVOKED_new();
  const TimePtr now(X509_gmtime_adj(nullptr, 0));
  require(entry != nullptr && now != nullptr &&
              X509_REVOKED_set_serialNumber(entry, X509_get_serialNumber(certificate.get())) == 1 &&
              X509_REVOKED_set_revocationDate(entry, now.get()) == 1 && X509_CRL_add0_revoked(revocations_.get(), entry) == 1,
          "no memory for a revocation");
  save_revocations();
}

void CertificateAuthority::Signer::save_revocations() {
  const TimePtr now(X509_gmtime_adj(nullptr, -kDay)), next(X509_gmtime_adj(nullptr, 30 * kDay));
  X509_CRL *list = revocations_.get();
  require(X509_CRL_set1_lastUpdate(list, now.get()) == 1 && X509_CRL_set1_nextUpdate(list, next.get()) == 1 &&
              X509_CRL_sort(list) == 1 && X509_CRL_sign(list, authority_.key.get(), EVP_sha256()) > 0 &&
              PEM_write_X509_CRL(open_file(revocations_file_, "wb").get(), list) == 1,
          revocations_file_);
}

CertificateAuthority::CertificateAuthority(const std::string &name) : signer_(std::make_unique<Signer>(name)) {}

CertificateAuthority::~CertificateAuthority() = default;

const std::string &CertificateAuthority::certificate() const { return signer_->own().certificate; }

const TemporaryFolder &CertificateAuthority::folder() const { return signer_->folder(); }

Credentials CertificateAuthority::server(const ServerIdentity &identity) { return signer_->server(identity); }

Credentials CertificateAuthority::client(const ClientIdentity &identity) { return signer_->client(identity); }

void CertificateAuthority::revoke(const Credentials &credentials) { signer_->revoke(credentials); }

const std::string &CertificateAuthority::revocations() const { return signer_->revocations(); }

}  // namespace testpeer

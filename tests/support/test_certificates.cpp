#include "test_certificates.h"

#include <arpa/inet.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace test_support {

namespace {

constexpr long kDay = 24L * 60 * 60;

void require(bool done, const char *what) {
  if (!done) throw std::runtime_error(std::string("cannot make a certificate: ") + what);
}

struct FileClose {
  void operator()(FILE *file) const { std::fclose(file); }
};
using FilePtr = std::unique_ptr<FILE, FileClose>;

FilePtr open_to_write(const std::string &path) {
  FilePtr file(std::fopen(path.c_str(), "wb"));
  require(file != nullptr, path.c_str());
  return file;
}

bool is_address(const std::string &name) {
  unsigned char bytes[sizeof(in6_addr)];
  return inet_pton(AF_INET, name.c_str(), bytes) == 1 || inet_pton(AF_INET6, name.c_str(), bytes) == 1;
}

void add_extension(X509 *certificate, X509 *issuer, int nid, const std::string &value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  X509_EXTENSION *extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str());
  require(extension != nullptr, value.c_str());
  X509_add_ext(certificate, extension, -1);
  X509_EXTENSION_free(extension);
}

void set_entry(X509_NAME *name, const char *field, const std::string &value) {
  require(X509_NAME_add_entry_by_txt(name, field, MBSTRING_UTF8, reinterpret_cast<const unsigned char *>(value.c_str()), -1, -1,
                                     0) == 1,
          field);
}

// Not signed yet: it has no extensions but a subject, a period, a number and the key.
CertificatePtr begin_certificate(EVP_PKEY *key, const std::string &name, int days) {
  CertificatePtr certificate(X509_new());
  require(certificate != nullptr, "no memory");
  X509_set_version(certificate.get(), X509_VERSION_3);
  unsigned char serial[16];
  require(RAND_bytes(serial, sizeof serial) == 1, "no random bytes");
  serial[0] &= 0x7f;
  BIGNUM *number = BN_bin2bn(serial, sizeof serial, nullptr);
  BN_to_ASN1_INTEGER(number, X509_get_serialNumber(certificate.get()));
  BN_free(number);
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), (days < 0 ? 2L * days : -1L) * kDay);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), days * kDay);
  X509_set_pubkey(certificate.get(), key);
  set_entry(X509_get_subject_name(certificate.get()), "CN", name);
  return certificate;
}

KeyPtr make_key() {
  KeyPtr key(EVP_EC_gen("P-256"));
  require(key != nullptr, "no key");
  return key;
}

}  // namespace

TemporaryFolder::TemporaryFolder() : path_((std::filesystem::temp_directory_path() / "qlk-test-XXXXXX").string()) {
  require(mkdtemp(path_.data()) != nullptr, "no temporary folder");
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

TestAuthority::TestAuthority(const std::string &name) : key_(make_key()), certificate_(begin_certificate(key_.get(), name, 365)) {
  X509_set_issuer_name(certificate_.get(), X509_get_subject_name(certificate_.get()));
  add_extension(certificate_.get(), certificate_.get(), NID_basic_constraints, "critical,CA:TRUE");
  add_extension(certificate_.get(), certificate_.get(), NID_key_usage, "critical,keyCertSign,cRLSign");
  add_extension(certificate_.get(), certificate_.get(), NID_subject_key_identifier, "hash");
  require(X509_sign(certificate_.get(), key_.get(), EVP_sha256()) > 0, "cannot sign");
  own_ = save(certificate_.get(), key_.get());
}

Credentials TestAuthority::save(X509 *certificate, EVP_PKEY *key) {
  const std::string stem = folder_.file(std::to_string(issued_++));
  Credentials files{stem + "-certificate.pem", stem + "-key.pem"};
  require(PEM_write_X509(open_to_write(files.certificate).get(), certificate) == 1, "cannot write");
  require(PEM_write_PrivateKey(open_to_write(files.key).get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 1, "cannot write");
  return files;
}

Credentials TestAuthority::issue_server(const std::vector<std::string> &names, int days) {
  const KeyPtr key = make_key();
  const CertificatePtr certificate = begin_certificate(key.get(), names.empty() ? "server" : names.front(), days);
  X509_set_issuer_name(certificate.get(), X509_get_subject_name(certificate_.get()));
  std::string alternatives;
  for (const std::string &name : names)
    alternatives.append(alternatives.empty() ? "" : ",").append(is_address(name) ? "IP:" : "DNS:").append(name);
  if (!alternatives.empty()) add_extension(certificate.get(), certificate_.get(), NID_subject_alt_name, alternatives);
  add_extension(certificate.get(), certificate_.get(), NID_ext_key_usage, "serverAuth");
  require(X509_sign(certificate.get(), key_.get(), EVP_sha256()) > 0, "cannot sign");
  return save(certificate.get(), key.get());
}

Credentials TestAuthority::issue_client(const std::string &user, const std::string &domain, int days) {
  const KeyPtr key = make_key();
  const std::string address = user + "@" + domain;
  const CertificatePtr certificate = begin_certificate(key.get(), user, days);
  set_entry(X509_get_subject_name(certificate.get()), "emailAddress", address);
  X509_set_issuer_name(certificate.get(), X509_get_subject_name(certificate_.get()));
  add_extension(certificate.get(), certificate_.get(), NID_subject_alt_name, "otherName:1.3.6.1.5.5.7.8.5;UTF8:" + address);
  add_extension(certificate.get(), certificate_.get(), NID_ext_key_usage, "clientAuth");
  require(X509_sign(certificate.get(), key_.get(), EVP_sha256()) > 0, "cannot sign");
  return save(certificate.get(), key.get());
}

}  // namespace test_support

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include "owners.h"
#include "quillon_config.h"
#include "quillon_log_capture.h"

namespace {

using test_support::QuillonLogCapture;

struct Release {
  void operator()(EVP_PKEY *key) const { EVP_PKEY_free(key); }
  void operator()(X509 *certificate) const { X509_free(certificate); }
  void operator()(SSL_CTX *context) const { SSL_CTX_free(context); }
  void operator()(FILE *file) const { fclose(file); }
  void operator()(quillon_config *config) const { quillon_config_destroy(config); }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, Release>;
using CertificatePtr = std::unique_ptr<X509, Release>;
using ContextPtr = std::unique_ptr<SSL_CTX, Release>;
using FilePtr = std::unique_ptr<FILE, Release>;
using ConfigPtr = std::unique_ptr<quillon_config, Release>;

constexpr char kPassPhrase[] = "correct horse";

// A certificate for the name that its own key signed.
CertificatePtr self_signed(const char *name, EVP_PKEY *key) {
  CertificatePtr certificate(X509_new());
  ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1);
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -60);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 3600);
  X509_set_pubkey(certificate.get(), key);
  X509_NAME *subject = X509_get_subject_name(certificate.get());
  X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char *>(name), -1, -1, 0);
  X509_set_issuer_name(certificate.get(), subject);
  X509_sign(certificate.get(), key, EVP_sha256());
  return certificate;
}

// A directory with a client's chain, its key under a pass phrase, and two CA files; gone at the end.
class TlsCredentials : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "qlk-tls-XXXXXX").string();
    ASSERT_NE(nullptr, mkdtemp(pattern.data()));
    directory_ = pattern;
    const KeyPtr key(EVP_EC_gen("P-256"));
    ASSERT_NE(nullptr, key);
    write_certificate("client.pem", "client", key.get());
    write_certificate("xmpp-ca.pem", "xmpp", key.get());
    write_certificate("bulk-ca.pem", "bulk", key.get());
    const FilePtr file(fopen(path("client.key").c_str(), "w"));
    ASSERT_NE(nullptr, file);
    ASSERT_EQ(1, PEM_write_PKCS8PrivateKey(file.get(), key.get(), EVP_aes_128_cbc(), kPassPhrase, sizeof kPassPhrase - 1, nullptr,
                                           nullptr));
    make_config();
  }
  void TearDown() override { std::filesystem::remove_all(directory_); }

  // A fresh context, and a configuration that names all the files.
  void make_config() {
    quillon_config *config = nullptr;
    ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_create(&config));
    config_.reset(config);
    context_.reset(SSL_CTX_new(TLS_client_method()));
    quillon_config_set_client_cert_chain_filename(config, path("client.pem").c_str());
    quillon_config_set_client_cert_key_filename(config, path("client.key").c_str());
    quillon_config_set_client_cert_key_password(config, kPassPhrase);
    quillon_config_set_server_cert_chain_filename(config, path("xmpp-ca.pem").c_str());
    quillon_config_set_bulk_server_cert_chain_filename(config, path("bulk-ca.pem").c_str());
  }

  std::string path(const char *name) const { return directory_ + "/" + name; }
  // The common names of the CAs that the context trusts.
  std::string trusted() const {
    std::string names;
    const auto *objects = X509_STORE_get0_objects(SSL_CTX_get_cert_store(context_.get()));
    for (int i = 0; i < sk_X509_OBJECT_num(objects); ++i) {
      char name[64] = "";
      const X509 *certificate = X509_OBJECT_get0_X509(sk_X509_OBJECT_value(objects, i));
      X509_NAME_get_text_by_NID(X509_get_subject_name(certificate), NID_commonName, name, sizeof name);
      names += name;
    }
    return names;
  }

  void write_certificate(const char *file_name, const char *name, EVP_PKEY *key) const {
    const FilePtr file(fopen(path(file_name).c_str(), "w"));
    ASSERT_NE(nullptr, file);
    ASSERT_EQ(1, PEM_write_X509(file.get(), self_signed(name, key).get()));
  }

  ConfigPtr config_;
  ContextPtr context_;

 private:
  std::string directory_;
};

TEST_F(TlsCredentials, FillTheContextForEitherServer) {
  const QuillonLogCapture log(WB_LOG_WARN);
  for (const bool is_bulk_download : {false, true}) {
    context_.reset(SSL_CTX_new(TLS_client_method()));
    quillon_config_fill_ssl_ctx(config_.get(), context_.get(), is_bulk_download);
    EXPECT_EQ(1, SSL_CTX_check_private_key(context_.get()));
    EXPECT_EQ(is_bulk_download ? "bulk" : "xmpp", trusted());
    EXPECT_EQ(SSL_VERIFY_PEER, SSL_CTX_get_verify_mode(context_.get()));
    EXPECT_EQ(nullptr, SSL_CTX_get_verify_callback(context_.get()));
    EXPECT_EQ(config_.get(), SSL_CTX_get_default_passwd_cb_userdata(context_.get()));
  }
  EXPECT_TRUE(log.records().empty()) << log.all();
}

struct FailureCase {
  const char *name;
  void (*spoil)(quillon_config *config, const std::string &key_file);
  const char *said;
};
const FailureCase kFailureCases[] = {
    {"wrong pass phrase",
     [](quillon_config *config, const std::string &) { quillon_config_set_client_cert_key_password(config, "wrong horse"); },
     "client.key' cannot be used: "},
    {"no pass phrase",
     [](quillon_config *config, const std::string &) { quillon_string_destroy(&config->client_cert_key_password); },
     "client.key' cannot be used: "},
    {"missing chain",
     [](quillon_config *config, const std::string &) {
       quillon_config_set_client_cert_chain_filename(config, "/nowhere/chain.pem");
     },
     "client certificate chain file '/nowhere/chain.pem' cannot be used: "},
    {"CA that is no certificate",
     [](quillon_config *config, const std::string &key_file) {
       quillon_config_set_server_cert_chain_filename(config, key_file.c_str());
     },
     "server CA file '"},
};
TEST_F(TlsCredentials, EachFailedStepIsLoggedAndTheRestDone) {
  for (const FailureCase &c : kFailureCases) {
    make_config();
    const QuillonLogCapture log(WB_LOG_ERROR);
    c.spoil(config_.get(), path("client.key"));
    quillon_config_fill_ssl_ctx(config_.get(), context_.get(), false);
    EXPECT_EQ(1u, log.records().size()) << c.name << log.all();
    EXPECT_EQ(1u, log.count(c.said)) << c.name << log.all();
    EXPECT_FALSE(log.contains("horse")) << log.all();
    EXPECT_EQ(0u, ERR_peek_error()) << c.name;
    EXPECT_EQ(SSL_VERIFY_PEER, SSL_CTX_get_verify_mode(context_.get())) << c.name;
  }
}

TEST_F(TlsCredentials, UnsetFieldsAndMissingObjectsAreHarmless) {
  quillon_config *bare = nullptr;
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_default_create(&bare));
  const ConfigPtr owned(bare);
  const QuillonLogCapture log(WB_LOG_WARN);
  quillon_config_fill_ssl_ctx(bare, context_.get(), true);
  EXPECT_EQ(SSL_VERIFY_PEER, SSL_CTX_get_verify_mode(context_.get()));
  EXPECT_EQ(3u, log.count("file is set")) << log.all();
  quillon_config_fill_ssl_ctx(nullptr, context_.get(), true);
  quillon_config_fill_ssl_ctx(bare, nullptr, true);
  EXPECT_EQ(1u, log.count_exact("Invalid config object")) << log.all();
  EXPECT_EQ(5u, log.records().size()) << log.all();
}

// One that a context would refuse later comes into force never, and says why at once.
TEST_F(TlsCredentials, ASetThatIsTooWeakIsRefused) {
  const QuillonLogCapture log(WB_LOG_ERROR);
  const KeyPtr weak(EVP_RSA_gen(512));
  write_certificate("client.pem", "weak", weak.get());
  const FilePtr file(fopen(path("client.key").c_str(), "w"));
  ASSERT_EQ(1, PEM_write_PrivateKey(file.get(), weak.get(), nullptr, nullptr, 0, nullptr, nullptr));
  fflush(file.get());
  EXPECT_EQ(QUILLON_STATUS_CONNECTION_ERROR_CLIENT, quillon_config_reload_credentials(config_.get()));
  quillon_credentials_info told = {};
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_config_get_credentials_info(config_.get(), &told));
  told.size = sizeof told;
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_config_get_credentials_info(config_.get(), &told));
  EXPECT_NE(nullptr, std::strstr(told.failure, "ee key too small")) << told.failure;
}

TEST_F(TlsCredentials, MayBeSetWhileTheyAreRead) {
  std::atomic<bool> is_over = false;
  std::thread setter([&] {
    while (!is_over) {
      quillon_config_set_client_cert_key_password(config_.get(), kPassPhrase);
      quillon_config_set_client_cert_chain_filename(config_.get(), path("client.pem").c_str());
    }
  });
  for (int i = 0; i < 50; ++i) {
    context_.reset(SSL_CTX_new(TLS_client_method()));
    quillon_config_fill_ssl_ctx(config_.get(), context_.get(), false);
    EXPECT_EQ(1, SSL_CTX_check_private_key(context_.get()));
    quillon_config *copy = nullptr;
    quillon_config_clone(config_.get(), &copy);
    const ConfigPtr owned(copy);
  }
  is_over = true;
  setter.join();
}

struct PhraseCase {
  const char *phrase;
  int size;
  const char *copied;
};
const PhraseCase kPhraseCases[] = {{"0123456789", 5, "0123"},
                                   {"0123456789", 10, "012345678"},
                                   {"0123456789", 11, "0123456789"},
                                   {"0123456789", 16, "0123456789"},
                                   {"0123456789", 1, ""}};

TEST(PassPhrase, IsCutToTheBuffer) {
  quillon_config *config = nullptr;
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_create(&config));
  const ConfigPtr owned(config);
  char buffer[17] = "################";
  EXPECT_EQ(0, qlk::_pem_password_cb(buffer, 16, 0, config));  // none is set
  EXPECT_EQ(0, qlk::_pem_password_cb(buffer, 16, 0, nullptr));
  for (const PhraseCase &c : kPhraseCases) {
    ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_client_cert_key_password(config, c.phrase));
    std::fill(std::begin(buffer), std::end(buffer), '#');
    EXPECT_EQ(static_cast<int>(std::string(c.copied).size()), qlk::_pem_password_cb(buffer, c.size, 1, config)) << c.size;
    EXPECT_STREQ(c.copied, buffer) << c.size;
    EXPECT_EQ('#', buffer[c.size]) << c.size;
  }
  EXPECT_EQ(0, qlk::_pem_password_cb(buffer, 0, 0, config));
}

}  // namespace

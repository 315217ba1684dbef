// Certificates made on the spot: an authority of the test's own, and what it signs. Keys are EC P-256.
#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace test_support {

// A folder below the system's temporary one; gone with all its files when it is destroyed.
class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder &) = delete;
  TemporaryFolder &operator=(const TemporaryFolder &) = delete;

  const std::string &path() const { return path_; }
  std::string file(std::string_view name) const { return path_ + "/" + std::string(name); }

 private:
  std::string path_;
};

struct KeyFree {
  void operator()(EVP_PKEY *key) const { EVP_PKEY_free(key); }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, KeyFree>;
struct CertificateFree {
  void operator()(X509 *certificate) const { X509_free(certificate); }
};
using CertificatePtr = std::unique_ptr<X509, CertificateFree>;

// Paths of PEM files.
struct Credentials {
  std::string certificate, key;
};

class TestAuthority {
 public:
  explicit TestAuthority(const std::string &name = "Test Authority");

  // The file with the authority's own certificate.
  const std::string &certificate() const { return own_.certificate; }
  const TemporaryFolder &folder() const { return folder_; }

  // For a server under these names; a name that is an IP address becomes one. days: how long it is valid from now; below 0 it
  // expired so many days ago.
  Credentials issue_server(const std::vector<std::string> &names, int days = 30);
  // For the user: the address is the e-mail address of the subject and the XMPP address of the alternative name.
  Credentials issue_client(const std::string &user, const std::string &domain, int days = 30);

 private:
  Credentials save(X509 *certificate, EVP_PKEY *key);

  TemporaryFolder folder_;
  KeyPtr key_;
  CertificatePtr certificate_;
  Credentials own_;
  int issued_ = 0;
};

}  // namespace test_support

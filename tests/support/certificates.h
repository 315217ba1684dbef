// Certificates made while the test runs, with keys on the curve P-256: an authority, and what it signs. Nothing is kept between
// runs. All functions throw std::runtime_error when OpenSSL or the file system refuses. Not for two threads at once.
#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <concepts>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace testpeer {

// A folder of the system's temporary one; its destructor removes it with everything in it.
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

// Paths of PEM files; they live as long as the authority that issued them. The pass phrase is empty when the key is not
// encrypted.
struct Credentials {
  std::string certificate = {}, key = {}, passphrase = {};
};

enum class Validity { current, expired, not_yet };

// The extended key usage that a certificate names; `other` is one that fits neither a server nor a client.
enum class Usage { server, client, other, none };

struct ServerIdentity {
  std::vector<std::string> names = {};      // dNSName entries
  std::vector<std::string> addresses = {};  // iPAddress entries, of either family
  std::string common_name = {};             // the first name or address by default
  Validity validity = Validity::current;
  Usage usage = Usage::server;
  bool self_signed = false;
  std::string passphrase = {};  // encrypts the key
};

// The address USER@DOMAIN is the subject's emailAddress and, as UTF8String, the alternative name of the XMPP kind.
struct ClientIdentity {
  std::string user = {}, domain = {};
  Validity validity = Validity::current;
  Usage usage = Usage::client;
  bool self_signed = false;
  bool has_email_address = true, has_xmpp_address = true;
  std::string passphrase = {};
};

class CertificateAuthority {
 public:
  explicit CertificateAuthority(const std::string &name = "Test Authority");

  // The file with the authority's own certificate, for whoever is to trust it.
  const std::string &certificate() const { return own_.certificate; }
  const TemporaryFolder &folder() const { return folder_; }

  // A template, so that g++ does not try to make a name of an identity in braces.
  template <std::convertible_to<std::string> Name>
  Credentials server(const Name &name) {
    return server(ServerIdentity{.names = {name}});
  }
  Credentials server(const ServerIdentity &identity);
  Credentials client(const std::string &user, const std::string &domain) {
    return client(ClientIdentity{.user = user, .domain = domain});
  }
  Credentials client(const ClientIdentity &identity);

 private:
  struct KeyFree {
    void operator()(EVP_PKEY *key) const { EVP_PKEY_free(key); }
  };
  struct CertificateFree {
    void operator()(X509 *certificate) const { X509_free(certificate); }
  };
  using KeyPtr = std::unique_ptr<EVP_PKEY, KeyFree>;
  using CertificatePtr = std::unique_ptr<X509, CertificateFree>;

  Credentials finish(X509 *certificate, EVP_PKEY *key, Usage usage, bool self_signed, const std::string &passphrase);
  Credentials save(X509 *certificate, EVP_PKEY *key, const std::string &passphrase);

  TemporaryFolder folder_;
  KeyPtr key_;
  CertificatePtr certificate_;
  Credentials own_;
  int issued_ = 0;
};

}  // namespace testpeer

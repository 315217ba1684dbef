// Certificates made while the test runs, with keys on the curve P-256: an authority, and what it signs, good or bad. Nothing is
// kept between runs. What follows throws std::runtime_error when OpenSSL or the file system refuses. Not for two threads at once.
#pragma once

#include <concepts>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace testpeer {

// A folder of the system's temporary one; its destructor removes it with everything in it, but for a child made by fork.
class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder &) = delete;
  TemporaryFolder &operator=(const TemporaryFolder &) = delete;

  const std::string &path() const { return path_; }
  // The path of a file of that name in it; nothing is made.
  std::string file(std::string_view name) const { return path_ + "/" + std::string(name); }

 private:
  std::string path_;
  long process_;  // that made it
};

// Paths of PEM files; they live as long as the authority that issued them. The pass phrase is empty when the key is not
// encrypted.
struct Credentials {
  std::string certificate = {}, key = {}, passphrase = {};
};

// From yesterday for 30 days; until yesterday; from in five days.
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
  size_t intermediates = 0;     // so many authorities stand between this one and the server, and are shown with it
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
  ~CertificateAuthority();
  CertificateAuthority(const CertificateAuthority &) = delete;
  CertificateAuthority &operator=(const CertificateAuthority &) = delete;

  // The file with the authority's own certificate, for whoever is to trust it.
  const std::string &certificate() const;
  // Where its files are.
  const TemporaryFolder &folder() const;

  // What a server shows: for one name, or for an identity.
  // A template, so that g++ does not try to make a name of an identity in braces.
  template <std::convertible_to<std::string> Name>
  Credentials server(const Name &name) {
    return server(ServerIdentity{.names = {name}});
  }
  Credentials server(const ServerIdentity &identity);
  // What a client shows.
  Credentials client(const std::string &user, const std::string &domain) {
    return client(ClientIdentity{.user = user, .domain = domain});
  }
  Credentials client(const ClientIdentity &identity);

  // Adds the certificate to the list of those that are revoked. Who has read the list already has to read it again.
  void revoke(const Credentials &credentials);
  // The file with that list, at first empty: who checks revocations at all needs it for the good certificates too.
  const std::string &revocations() const;

 private:
  class Signer;
  const std::unique_ptr<Signer> signer_;
};

}  // namespace testpeer

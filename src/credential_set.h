// Certificate, key and CAs, read from their files and looked at as a whole; and what they make of a TLS context. Revocations are
// looked at with them, and yet apart: they hold whether or not a set is good.
#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>
#include <vector>

#include "quillon.h"

namespace qlk {

// Where a set comes from; an empty name stands for a file that is not set.
struct CredentialFiles {
  CredentialFiles() = default;
  ~CredentialFiles();
  CredentialFiles(const CredentialFiles &) = delete;
  CredentialFiles &operator=(const CredentialFiles &) = delete;

  std::string certificate, key, ca, bulk_ca, crl;
  std::string passphrase;  // wiped at the end
};

// Why a set is refused.
struct CredentialFault {
  QUILLON_STATUS status = QUILLON_STATUS_OK;
  std::string text = {};
  bool is_of_time = false;  // the same files may be good at another time: a date, or something that the system lacked
};

class CredentialSet {
 public:
  // Null, with the fault, when the files make no good set. Throws std::bad_alloc.
  static std::shared_ptr<const CredentialSet> load(const CredentialFiles &files, CredentialFault &fault);

  // Puts them into the context, with verification on. False, with OpenSSL's errors queued, when it does not take them all.
  bool fill(SSL_CTX *context, bool is_bulk_download) const;

  const std::string &subject() const { return subject_; }
  // Of the first certificate of the chain that ends; seconds since the epoch.
  int64_t expires() const { return expires_; }

 private:
  struct Release {
    void operator()(X509 *certificate) const { X509_free(certificate); }
    void operator()(X509_CRL *list) const { X509_CRL_free(list); }
    void operator()(EVP_PKEY *key) const { EVP_PKEY_free(key); }
  };
  using Certificates = std::vector<std::unique_ptr<X509, Release>>;
  using Revocations = std::vector<std::unique_ptr<X509_CRL, Release>>;

  bool load_key(const CredentialFiles &files);
  bool load_own(const CredentialFiles &files, CredentialFault &fault);
  bool load_authorities(const CredentialFiles &files, CredentialFault &fault);
  static bool load_revocations(const CredentialFiles &files, Revocations &revocations, CredentialFault &fault);
  bool check_own(const CredentialFiles &files, const Revocations &revocations, CredentialFault &fault);
  bool check_in_use(const CredentialFiles &files, CredentialFault &fault) const;

  Certificates chain_;  // our own certificate first
  std::unique_ptr<EVP_PKEY, Release> key_;
  Certificates authorities_, bulk_authorities_;
  std::string subject_;
  int64_t expires_ = 0;
};

// Why OpenSSL could not do it, taken from its queue of errors, which is empty then.
std::string first_reason();

// Has the context refuse every server of which no list of revocations in it tells that it is good.
void demand_revocations(SSL_CTX *context);

// The same, with the lists in the file, whether or not it can be read: then every server is refused. False, with OpenSSL's
// errors queued, when it cannot.
bool look_for_revocations(SSL_CTX *context, const char *file);

}  // namespace qlk

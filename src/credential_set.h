// Certificate, key, CAs and revocations, read from their files and looked at as a whole; and what they make of a TLS context.
#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <optional>
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
};

class CredentialSet {
 public:
  // Null, with the fault, when the files make no good set. Throws std::bad_alloc.
  static std::shared_ptr<const CredentialSet> load(const CredentialFiles &files, CredentialFault &fault);

  // Puts them into the context, with verification on. False, with OpenSSL's errors queued, when memory is exhausted.
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

  bool load_own(const CredentialFiles &files, CredentialFault &fault);
  bool load_trusted(const CredentialFiles &files, CredentialFault &fault);
  bool check_own(const CredentialFiles &files, CredentialFault &fault);

  Certificates chain_;  // our own certificate first
  std::unique_ptr<EVP_PKEY, Release> key_;
  Certificates authorities_, bulk_authorities_;
  std::optional<Revocations> revocations_;
  std::string subject_;
  int64_t expires_ = 0;
};

// Has the context look for revocations in the file, whether or not it can be read: then every server is refused. False, with
// OpenSSL's errors queued, when it cannot.
bool look_for_revocations(SSL_CTX *context, const char *file);

}  // namespace qlk

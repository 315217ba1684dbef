// Certificates and keys, as far as a user needs to know about them.
#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>
#include <vector>

#include "secret.h"

namespace tool {

template <auto end>
struct Ended {
  template <typename Object>
  void operator()(Object *object) const {
    end(object);
  }
};
using Certificate = std::unique_ptr<X509, Ended<X509_free>>;
using Key = std::unique_ptr<EVP_PKEY, Ended<EVP_PKEY_free>>;

// All certificates of the PEM file, in their order; empty when there is none or it cannot be read.
std::vector<Certificate> load_certificates(const std::string &path);

// All lists of revoked certificates of the PEM file, as load_certificates.
using Revocations = std::unique_ptr<X509_CRL, Ended<X509_CRL_free>>;
std::vector<Revocations> load_revocations(const std::string &path);

// Whether the PEM file holds a key that a pass phrase protects.
bool is_encrypted_key(const std::string &path);

// The private key of the PEM file; null when there is none, or the pass phrase does not open it.
Key load_key(const std::string &path, const Secret &passphrase);

// The common name, else the whole subject.
std::string name_of(const X509_NAME *name);

// The names under which a server goes, and the addresses of a user: e-mail address and XMPP address.
std::vector<std::string> server_names(const X509 *certificate);
std::vector<std::string> user_addresses(const X509 *certificate);

// Whole days until the end of the certificate's validity; below 0 once it is over.
int days_left(const X509 *certificate);
bool is_expired(const X509 *certificate);
bool is_not_valid_yet(const X509 *certificate);
// Whether a list of its issuer's names it.
bool is_revoked(const std::vector<Revocations> &lists, X509 *certificate);
// The first and the last day, as 2026-01-31.
std::string first_day(const X509 *certificate);
std::string last_day(const X509 *certificate);

}  // namespace tool

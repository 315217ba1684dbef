#include "credential_set.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <new>
#include <utility>

namespace {

struct BioFree {
  void operator()(BIO *bio) const { BIO_free(bio); }
};
using BioPtr = std::unique_ptr<BIO, BioFree>;
struct StackFree {
  void operator()(STACK_OF(X509) * stack) const { sk_X509_free(stack); }
};
using StackPtr = std::unique_ptr<STACK_OF(X509), StackFree>;
struct ContextFree {
  void operator()(SSL_CTX *context) const { SSL_CTX_free(context); }
};
using ContextPtr = std::unique_ptr<SSL_CTX, ContextFree>;

constexpr int kFileBytesMax = 16 * 1024 * 1024;  // more is no list of certificates, but a device perhaps
constexpr QUILLON_STATUS kOurs = QUILLON_STATUS_CONNECTION_ERROR_CLIENT, kTheirs = QUILLON_STATUS_CONNECTION_ERROR_SERVER;

bool refuse(qlk::CredentialFault &fault, QUILLON_STATUS status, std::string text) {
  fault = {status, std::move(text), false};
  return false;
}

bool refuse_for_now(qlk::CredentialFault &fault, QUILLON_STATUS status, std::string text) {
  fault = {status, std::move(text), true};
  return false;
}

// For what OpenSSL could not do. That the system or OpenSSL lacked something does not make the files bad, nor does it when no
// reason is told. A file that is not there is another version once it is.
bool refuse_for_openssl(qlk::CredentialFault &fault, QUILLON_STATUS status, const std::string &text) {
  const unsigned long code = ERR_peek_error();
  const int reason = ERR_GET_REASON(code);
  const bool is_of_system = ERR_SYSTEM_ERROR(code);
  const bool lacks_memory = is_of_system ? reason == ENOMEM : reason == ERR_R_MALLOC_FAILURE;
  const bool is_for_now = code == 0 || (is_of_system ? reason != ENOENT : ERR_FATAL_ERROR(code));
  fault = {lacks_memory ? QUILLON_STATUS_MALLOC_ERROR : status, text + ": " + qlk::first_reason(), is_for_now};
  return false;
}

bool refuse_file(qlk::CredentialFault &fault, QUILLON_STATUS status, const char *purpose, const std::string &file) {
  return refuse_for_openssl(fault, status, std::string(purpose) + " file '" + file + "' cannot be used");
}

class File {
 public:
  explicit File(const std::string &name) : descriptor_(open(name.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (descriptor_ < 0) ERR_raise(ERR_LIB_SYS, errno);
  }
  ~File() {
    if (descriptor_ >= 0) close(descriptor_);
  }
  File(const File &) = delete;
  File &operator=(const File &) = delete;

  bool is_open() const { return descriptor_ >= 0; }

  // 0 at the end; negative when it cannot be read.
  template <size_t size>
  int read_some(char (&piece)[size]) const {
    ssize_t got = 0;
    do {
      got = read(descriptor_, piece, size);
    } while (got < 0 && errno == EINTR);
    if (got < 0) ERR_raise(ERR_LIB_SYS, errno);
    return static_cast<int>(got);
  }

 private:
  const int descriptor_;
};

// The whole of a file. It is wiped before its memory is given back; what reads through a stream leaves it in the stream's buffer.
BioPtr read_file(const std::string &name) {
  ERR_clear_error();
  const File file(name);
  BioPtr bytes(BIO_new(BIO_s_mem()));
  if (!file.is_open() || bytes == nullptr) return nullptr;
  char piece[4096];
  int got = 0;
  bool is_kept = true;
  while (is_kept && (got = file.read_some(piece)) > 0) {
    is_kept = BIO_write(bytes.get(), piece, got) == got && BIO_pending(bytes.get()) <= kFileBytesMax;
    if (BIO_pending(bytes.get()) > kFileBytesMax) ERR_raise(ERR_LIB_SYS, EFBIG);
  }
  OPENSSL_cleanse(piece, sizeof piece);
  if (!is_kept || got < 0) return nullptr;
  return bytes;
}

// Reads what was read, from its beginning, and leaves it for another time.
BioPtr view_of(BIO *bytes) {
  char *begin = nullptr;
  const long length = BIO_get_mem_data(bytes, &begin);
  return BioPtr(BIO_new_mem_buf(begin != nullptr ? begin : "", static_cast<int>(length)));
}

// All objects of a kind that the PEM text holds. False when there is none, or one that cannot be read.
template <typename List, typename Read>
bool decode_all(BIO *bytes, List &list, Read read) {
  ERR_clear_error();
  list.clear();
  const BioPtr text = view_of(bytes);
  if (text == nullptr) return false;
  while (typename List::value_type object{read(text.get(), nullptr, nullptr, nullptr)}) list.push_back(std::move(object));
  const bool is_at_end = ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
  if (list.empty() || !is_at_end) return false;
  ERR_clear_error();
  return true;
}

// A certificate whose public key could not be decoded is a certificate to OpenSSL, which says nothing of it: for want of memory,
// or because it does not know that kind of key. Only the latter is so the second time.
template <typename List>
bool read_certificates(const std::string &file, List &list) {
  const auto has_key = [](const auto &certificate) {
    const EVP_PKEY *key = X509_get0_pubkey(certificate.get());
    return key != nullptr && EVP_PKEY_get_security_bits(key) > 0;
  };
  const BioPtr bytes = read_file(file);
  if (bytes == nullptr || !decode_all(bytes.get(), list, PEM_read_bio_X509)) return false;
  return std::all_of(list.begin(), list.end(), has_key) || decode_all(bytes.get(), list, PEM_read_bio_X509);
}

// OpenSSL asks for the pass phrase here. None at all is an answer too: it must not ask the terminal.
int give_passphrase(char *buffer, int size, int /*writing*/, void *files) {
  const std::string &phrase = static_cast<const qlk::CredentialFiles *>(files)->passphrase;
  if (phrase.empty() || phrase.size() > static_cast<size_t>(size)) return 0;
  std::copy(phrase.begin(), phrase.end(), buffer);  // OpenSSL wants no terminator
  return static_cast<int>(phrase.size());
}

std::string name_of(const X509 *certificate) {
  const BioPtr text(BIO_new(BIO_s_mem()));
  if (text == nullptr || X509_NAME_print_ex(text.get(), X509_get_subject_name(certificate), 0, XN_FLAG_RFC2253) < 0) return {};
  char *bytes = nullptr;
  const long length = BIO_get_mem_data(text.get(), &bytes);
  return std::string(bytes, static_cast<size_t>(length));
}

int64_t seconds_of(const ASN1_TIME *time) {
  tm parts = {};
  return ASN1_TIME_to_tm(time, &parts) == 1 ? static_cast<int64_t>(timegm(&parts)) : 0;
}

// Says in the log what OpenSSL otherwise tells in a few words, where it tells them at all.
int tell_revocation(int verified, X509_STORE_CTX *store) {
  if (verified == 1) return verified;
  const int error = X509_STORE_CTX_get_error(store);
  const bool is_about_revocation = error == X509_V_ERR_CERT_REVOKED || error == X509_V_ERR_UNABLE_TO_GET_CRL ||
                                   error == X509_V_ERR_CRL_HAS_EXPIRED || error == X509_V_ERR_CRL_NOT_YET_VALID;
  const X509 *certificate = X509_STORE_CTX_get_current_cert(store);
  if (!is_about_revocation || certificate == nullptr) return verified;
  char name[256] = "";
  X509_NAME_oneline(X509_get_subject_name(certificate), name, sizeof name);
  if (error == X509_V_ERR_CERT_REVOKED) {
    wb_log(WB_LOG_ERROR, "the server's certificate is revoked: %s", name);
  } else {
    wb_log(WB_LOG_ERROR, "whether the server's certificate is revoked cannot be told: %s: %s",
           X509_verify_cert_error_string(error), name);
  }
  return verified;
}

}  // namespace

namespace qlk {

// The first error is the cause, the others follow from it.
std::string first_reason() {
  const unsigned long code = ERR_get_error();
  const char *reason = ERR_reason_error_string(code);
  if (ERR_SYSTEM_ERROR(code)) reason = std::strerror(ERR_GET_REASON(code));
  ERR_clear_error();
  return reason != nullptr ? reason : "it is no PEM file";
}

void demand_revocations(SSL_CTX *context) {
  X509_STORE_set_flags(SSL_CTX_get_cert_store(context), X509_V_FLAG_CRL_CHECK);
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, tell_revocation);
}

CredentialFiles::~CredentialFiles() { OPENSSL_cleanse(passphrase.data(), passphrase.size()); }

// OpenSSL tries one way to decode a key after the other and does not tell why each of them failed: one that lacked memory looks
// like a key that is none. So it is asked twice.
bool CredentialSet::load_key(const CredentialFiles &files) {
  const BioPtr bytes = read_file(files.key);
  if (bytes == nullptr) return false;
  const auto decode = [&] {
    ERR_clear_error();
    const BioPtr text = view_of(bytes.get());
    if (text == nullptr) return false;
    key_.reset(PEM_read_bio_PrivateKey(text.get(), nullptr, give_passphrase, const_cast<CredentialFiles *>(&files)));
    return key_ != nullptr;
  };
  return decode() || decode();
}

bool CredentialSet::load_own(const CredentialFiles &files, CredentialFault &fault) {
  if (files.certificate.empty() || files.key.empty()) return refuse(fault, kOurs, "no client certificate and key files are set");
  if (!read_certificates(files.certificate, chain_)) {
    return refuse_file(fault, kOurs, "client certificate chain", files.certificate);
  }
  if (!load_key(files)) return refuse_file(fault, kOurs, "client key", files.key);
  return true;
}

bool CredentialSet::load_authorities(const CredentialFiles &files, CredentialFault &fault) {
  if (!files.ca.empty() && !read_certificates(files.ca, authorities_)) return refuse_file(fault, kTheirs, "server CA", files.ca);
  if (!files.bulk_ca.empty() && !read_certificates(files.bulk_ca, bulk_authorities_))
    return refuse_file(fault, kTheirs, "bulk server CA", files.bulk_ca);
  return true;
}

bool CredentialSet::load_revocations(const CredentialFiles &files, Revocations &revocations, CredentialFault &fault) {
  if (files.crl.empty()) return true;
  const BioPtr bytes = read_file(files.crl);
  if (bytes == nullptr || !decode_all(bytes.get(), revocations, PEM_read_bio_X509_CRL))
    return refuse_file(fault, kTheirs, "revocation list", files.crl);
  for (const auto &list : revocations) {
    const ASN1_TIME *next = X509_CRL_get0_nextUpdate(list.get());
    if (next != nullptr && X509_cmp_current_time(next) < 0)
      return refuse_for_now(fault, kTheirs, "revocation list file '" + files.crl + "' holds a list that is past its next update");
  }
  return true;
}

bool CredentialSet::check_own(const CredentialFiles &files, const Revocations &revocations, CredentialFault &fault) {
  X509 *const own = chain_.front().get();
  const std::string certificate = "client certificate chain file '" + files.certificate + "'";
  if (X509_check_private_key(own, key_.get()) != 1) {
    const int reason = ERR_GET_REASON(ERR_peek_error());
    const bool is_another = reason == X509_R_KEY_VALUES_MISMATCH || reason == X509_R_KEY_TYPE_MISMATCH;
    refuse_for_openssl(fault, kOurs, "client key file '" + files.key + "' is not the key of the certificate");
    fault.is_of_time = !is_another;  // memory that lacks is told as a certificate that cannot be decoded
    return false;
  }
  for (const auto &each : chain_) {
    if (X509_cmp_current_time(X509_get0_notAfter(each.get())) < 0)
      return refuse_for_now(fault, kOurs, certificate + ": a certificate has expired: " + name_of(each.get()));
    if (X509_cmp_current_time(X509_get0_notBefore(each.get())) > 0)
      return refuse_for_now(fault, kOurs, certificate + ": a certificate is not valid yet: " + name_of(each.get()));
    const int64_t end = seconds_of(X509_get0_notAfter(each.get()));
    expires_ = expires_ == 0 ? end : std::min(expires_, end);
  }
  for (const auto &list : revocations) {
    X509_REVOKED *entry = nullptr;
    const bool is_of_issuer = X509_NAME_cmp(X509_CRL_get_issuer(list.get()), X509_get_issuer_name(own)) == 0;
    if (is_of_issuer && X509_CRL_get0_by_cert(list.get(), &entry, own) == 1)
      return refuse(fault, kOurs, certificate + ": the certificate is revoked");
  }
  subject_ = name_of(own);
  return true;
}

// What is well formed may still be too weak for OpenSSL's security level, of which only a context tells.
bool CredentialSet::check_in_use(const CredentialFiles &files, CredentialFault &fault) const {
  ERR_clear_error();
  const ContextPtr context(SSL_CTX_new(TLS_client_method()));
  if (context == nullptr) throw std::bad_alloc();
  return fill(context.get(), false) || refuse_file(fault, kOurs, "client certificate chain", files.certificate);
}

std::shared_ptr<const CredentialSet> CredentialSet::load(const CredentialFiles &files, CredentialFault &fault) {
  auto set = std::make_shared<CredentialSet>();
  Revocations revocations;
  const bool is_good = set->load_own(files, fault) && set->load_authorities(files, fault) &&
                       load_revocations(files, revocations, fault) && set->check_own(files, revocations, fault) &&
                       set->check_in_use(files, fault);
  return is_good ? set : nullptr;
}

bool CredentialSet::fill(SSL_CTX *context, bool is_bulk_download) const {
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
  const StackPtr issuers(sk_X509_new_null());
  bool filled = issuers != nullptr;
  for (size_t i = 1; i < chain_.size() && filled; ++i) filled = sk_X509_push(issuers.get(), chain_[i].get()) > 0;
  filled = filled && SSL_CTX_use_cert_and_key(context, chain_.front().get(), key_.get(), issuers.get(), 1) == 1;
  X509_STORE *const store = SSL_CTX_get_cert_store(context);
  for (const auto &authority : is_bulk_download ? bulk_authorities_ : authorities_)
    filled = filled && X509_STORE_add_cert(store, authority.get()) == 1;
  return filled;
}

bool look_for_revocations(SSL_CTX *context, const char *file) {
  demand_revocations(context);
  X509_LOOKUP *lookup = X509_STORE_add_lookup(SSL_CTX_get_cert_store(context), X509_LOOKUP_file());
  return lookup != nullptr && X509_load_crl_file(lookup, file, X509_FILETYPE_PEM) > 0;
}

}  // namespace qlk

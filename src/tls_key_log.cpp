#include "tls_key_log.h"

#include <fcntl.h>
#include <openssl/ssl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

#include "guard.h"
#include "live_credentials.h"
#include "owners.h"
#include "quillon_config.h"
#include "quillon_string.h"

namespace {

// -1, logged, when secrets cannot be written there.
int open_key_log(const char *filename) {
  const int file =
      open(filename, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | O_NOFOLLOW, S_IRUSR | S_IWUSR);
  if (file < 0) {
    wb_log(WB_LOG_ERROR, "the TLS key log '%s' cannot be opened: %s", filename, std::strerror(errno));
    return -1;
  }
  struct stat found = {};
  const bool is_ours = fstat(file, &found) == 0 && S_ISREG(found.st_mode) && found.st_uid == geteuid() && found.st_nlink == 1;
  if (is_ours && (found.st_mode & (S_IRWXG | S_IRWXO)) == 0) return file;
  wb_log(WB_LOG_ERROR, "the TLS key log '%s' is not written: it is no regular file of ours that nobody else may read", filename);
  close(file);
  return -1;
}

// The descriptor plus one is the value itself.
void close_key_log(void *, void *value, CRYPTO_EX_DATA *, int, long, void *) {
  const auto stored = reinterpret_cast<intptr_t>(value);
  if (stored > 0) close(static_cast<int>(stored - 1));
}

// Taken back at the end of the process: OpenSSL calls the function for each context.
struct KeyLogIndex {
  const int value = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, close_key_log);
  ~KeyLogIndex() { CRYPTO_free_ex_index(CRYPTO_EX_INDEX_SSL_CTX, value); }
};

int key_log_index() {
  static const KeyLogIndex index;
  return index.value;
}

// One write a line, so that those of several sessions do not mix.
void write_key(const SSL *ssl, const char *line) {
  const auto stored = reinterpret_cast<intptr_t>(SSL_CTX_get_ex_data(SSL_get_SSL_CTX(ssl), key_log_index()));
  if (stored <= 0) return;
  qlk::guarded_void(__func__, [&] {
    const std::string whole = std::string(line) + '\n';
    const ssize_t written = write(static_cast<int>(stored - 1), whole.data(), whole.size());
    if (written != static_cast<ssize_t>(whole.size())) wb_log(WB_LOG_ERROR, "the TLS key log lacks a key: it cannot be written");
  });
}

// Empty when no keys are wanted.
std::string filename_in(const quillon_config &config) {
  const qlk::LiveCredentials::Settings settings(config.live);
  const char *filename = quillon_string_cstr(config.tls_key_log_filename);
  return filename != nullptr ? filename : "";
}

void log_keys(const std::string &filename, SSL_CTX *context) {
  const int file = open_key_log(filename.c_str());
  if (file < 0) return;
  void *const earlier = SSL_CTX_get_ex_data(context, key_log_index());
  if (SSL_CTX_set_ex_data(context, key_log_index(), reinterpret_cast<void *>(static_cast<intptr_t>(file) + 1)) != 1) {
    wb_log(WB_LOG_ERROR, "no memory for the TLS key log");
    close(file);
    return;
  }
  close_key_log(nullptr, earlier, nullptr, 0, 0, nullptr);  // of an earlier filling
  SSL_CTX_set_keylog_callback(context, write_key);
  wb_log(WB_LOG_WARN, "the keys of this TLS session are written to '%s': whoever reads them can read the session",
         filename.c_str());
}

}  // namespace

void qlk::log_tls_keys(const quillon_config &config, void *ssl_ctx) {
  qlk::guarded_void(__func__, [&] {
    const std::string filename = filename_in(config);
    if (!filename.empty()) log_keys(filename, static_cast<SSL_CTX *>(ssl_ctx));
  });
}

QUILLON_STATUS quillon_config_set_tls_key_log(quillon_config *config, const char *filename) {
  qlk::trace(__func__);
  if (config == nullptr) return qlk::refuse("Invalid config object");
  qlk::StringPtr name;
  if (filename != nullptr) {
    if (!qlk::string_length_ok(std::strlen(filename))) return QUILLON_STATUS_INVALID_ARGS;
    quillon_string *created = nullptr;
    const QUILLON_STATUS status = quillon_string_create(&created, filename, std::strlen(filename));
    name.reset(created);
    if (status != QUILLON_STATUS_OK) return status;
    const int file = open_key_log(filename);
    if (file < 0) return QUILLON_STATUS_UNKNOWN;
    close(file);
  }
  const qlk::LiveCredentials::Settings settings(config->live);
  quillon_string_destroy(&config->tls_key_log_filename);
  config->tls_key_log_filename = name.release();
  return QUILLON_STATUS_OK;
}

#include "server_socket.h"

#include <openssl/err.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace test_support {

ServerSocket::~ServerSocket() {
  ssl_.reset();
  close(fd_);
}

bool ServerSocket::receive_raw(std::string &bytes) {
  char buffer[64 * 1024];
  ssize_t got = 0;
  do {
    got = recv(fd_, buffer, sizeof buffer, 0);
  } while (got < 0 && errno == EINTR);
  if (got <= 0) return false;
  bytes.assign(buffer, static_cast<size_t>(got));
  const std::lock_guard lock(mutex_);
  if (spoken_) ++flights_;
  spoken_ = false;
  return true;
}

bool ServerSocket::send_raw(std::string_view bytes) {
  spoken_ = true;
  while (!bytes.empty()) {
    const ssize_t sent = send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0) return false;
    bytes.remove_prefix(static_cast<size_t>(sent));
  }
  return true;
}

bool ServerSocket::flush_tls() {
  char buffer[16 * 1024];
  for (int got = 0; (got = BIO_read(output_, buffer, sizeof buffer)) > 0;) {
    if (!send_raw({buffer, static_cast<size_t>(got)})) return false;
  }
  return true;
}

bool ServerSocket::read(std::string &bytes) {
  const size_t before = bytes.size();
  std::string raw;
  // The handshake may have left content behind, so what is there comes first.
  for (;;) {
    if (ssl_ == nullptr) {
      if (!receive_raw(raw)) return false;
      bytes += raw;
      return true;
    }
    {
      const std::lock_guard lock(mutex_);
      ERR_clear_error();
      char buffer[16 * 1024];
      int got = 0;
      while ((got = SSL_read(ssl_.get(), buffer, sizeof buffer)) > 0) {
        ++records_;
        bytes.append(buffer, static_cast<size_t>(got));
      }
      const int error = SSL_get_error(ssl_.get(), got);
      ERR_clear_error();
      if (!flush_tls() || (error != SSL_ERROR_WANT_READ && bytes.size() == before)) return false;
    }
    if (bytes.size() > before) return true;
    if (!receive_raw(raw)) return false;
    const std::lock_guard lock(mutex_);
    BIO_write(input_, raw.data(), static_cast<int>(raw.size()));
  }
}

bool ServerSocket::write(std::string_view bytes, bool byte_by_byte) {
  const std::lock_guard lock(mutex_);
  while (!bytes.empty()) {
    const std::string_view piece = byte_by_byte ? bytes.substr(0, 1) : bytes;
    if (ssl_ == nullptr) {
      if (!send_raw(piece)) return false;
    } else {
      ERR_clear_error();
      if (SSL_write(ssl_.get(), piece.data(), static_cast<int>(piece.size())) <= 0 || !flush_tls()) return false;
    }
    bytes.remove_prefix(piece.size());
  }
  return true;
}

bool ServerSocket::start_tls(SSL_CTX *context) {
  std::string raw;
  {
    const std::lock_guard lock(mutex_);
    ssl_.reset(SSL_new(context));
    input_ = BIO_new(BIO_s_mem());
    output_ = BIO_new(BIO_s_mem());
    BIO_set_mem_eof_return(input_, -1);
    SSL_set_bio(ssl_.get(), input_, output_);
    SSL_set_accept_state(ssl_.get());
  }
  for (;;) {
    {
      const std::lock_guard lock(mutex_);
      ERR_clear_error();
      const int result = SSL_do_handshake(ssl_.get());
      const int error = SSL_get_error(ssl_.get(), result);
      ERR_clear_error();
      if (!flush_tls()) return false;
      if (result == 1) return true;
      if (error != SSL_ERROR_WANT_READ) return false;
    }
    if (!receive_raw(raw)) return false;
    const std::lock_guard lock(mutex_);
    BIO_write(input_, raw.data(), static_cast<int>(raw.size()));
  }
}

void ServerSocket::finish() {
  const std::lock_guard lock(mutex_);
  if (ssl_ != nullptr && SSL_is_init_finished(ssl_.get()) == 1) {
    SSL_shutdown(ssl_.get());
    flush_tls();
  }
  ERR_clear_error();
  shutdown(fd_, SHUT_WR);
}

void ServerSocket::truncate() { shutdown(fd_, SHUT_WR); }

void ServerSocket::reset() {
  // A socket that is disconnected by force, rather than closed, keeps its descriptor for the other threads.
  const sockaddr unspecified{AF_UNSPEC, {}};
  connect(fd_, &unspecified, sizeof unspecified);
}

void ServerSocket::interrupt() { shutdown(fd_, SHUT_RDWR); }

std::string ServerSocket::server_name() const {
  const char *name = ssl_ != nullptr ? SSL_get_servername(ssl_.get(), TLSEXT_NAMETYPE_host_name) : nullptr;
  return name != nullptr ? name : "";
}

std::string ServerSocket::tls_version() const { return ssl_ != nullptr ? SSL_get_version(ssl_.get()) : ""; }

}  // namespace test_support

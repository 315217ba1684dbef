#include "peer_socket.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/x509.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

namespace testpeer {

namespace {

constexpr int kNoiseBytes = 256 * 1024;  // at a time

bool say(SSL *ssl, TlsNoise noise) {
  switch (noise) {
    case TlsNoise::key_updates:
      return SSL_key_update(ssl, SSL_KEY_UPDATE_REQUESTED) == 1 && SSL_do_handshake(ssl) == 1;
    case TlsNoise::session_tickets:
      return SSL_new_session_ticket(ssl) == 1 && SSL_do_handshake(ssl) == 1;
    case TlsNoise::renegotiations:
      return SSL_renegotiate(ssl) == 1 && SSL_do_handshake(ssl) == 1;
  }
  return false;
}

// As poll takes it: rounded up, and -1 for never.
int remaining(Clock::time_point deadline) {
  if (deadline == Clock::time_point::max()) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return static_cast<int>(std::clamp<long>(left, 0, 1L << 30));
}

}  // namespace

WakePipe::WakePipe() {
  if (pipe(ends_) != 0) throw std::runtime_error("cannot make a pipe");
  for (const int end : ends_) {
    fcntl(end, F_SETFD, FD_CLOEXEC);
    fcntl(end, F_SETFL, O_NONBLOCK);
  }
}

WakePipe::~WakePipe() {
  for (const int end : ends_) ::close(end);
}

void WakePipe::signal() const {
  // A pipe that is full wakes its reader as well.
  const char byte = 0;
  if (::write(ends_[1], &byte, 1) < 0) return;
}

void WakePipe::drain() const {
  char bytes[64];
  while (::read(ends_[0], bytes, sizeof bytes) > 0) {
  }
}

PeerSocket::PeerSocket(int descriptor, std::chrono::milliseconds write_deadline, OnSegment on_segment)
    : descriptor_(descriptor), write_deadline_(write_deadline), on_segment_(std::move(on_segment)) {
  fcntl(descriptor_, F_SETFL, O_NONBLOCK);
}

PeerSocket::~PeerSocket() { close(); }

void PeerSocket::close() {
  abandon();
  const std::lock_guard writing(write_mutex_);
  const std::lock_guard lock(tls_mutex_);
  ssl_.reset();
  if (descriptor_ < 0) return;
  const linger at_once{1, 0};
  if (is_reset_) setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
  ::close(descriptor_);
  descriptor_ = -1;
}

void PeerSocket::abandon() {
  is_abandoned_ = true;
  stop_.signal();
}

void PeerSocket::set_reading(bool reading) {
  is_reading_ = reading;
  nudge();
}

PeerSocket::Status PeerSocket::wait_for_input(Clock::time_point deadline, bool with_nudges) {
  for (;;) {
    if (is_abandoned_) return Status::abandoned;
    pollfd sources[] = {
        {stop_.descriptor(), POLLIN, 0}, {nudge_.descriptor(), POLLIN, 0}, {is_reading_ ? descriptor_ : -1, POLLIN, 0}};
    const int ready = poll(sources, 3, remaining(deadline));
    if (ready < 0 && errno != EINTR) return Status::ended;
    if (ready == 0 && Clock::now() >= deadline) return Status::timeout;
    if (ready <= 0 || sources[0].revents != 0) continue;
    if (sources[1].revents != 0) {
      nudge_.drain();
      if (with_nudges) return Status::nudged;
      continue;
    }
    return Status::done;
  }
}

PeerSocket::Status PeerSocket::wait_readable(Clock::time_point deadline) { return wait_for_input(deadline, false); }

bool PeerSocket::pause(std::chrono::milliseconds time) {
  const auto end = Clock::now() + time;
  pollfd stop{stop_.descriptor(), POLLIN, 0};
  while (!is_abandoned_ && Clock::now() < end) poll(&stop, 1, remaining(end));
  return !is_abandoned_;
}

// The raw bytes of one piece.
PeerSocket::Status PeerSocket::receive(std::string &raw, Clock::time_point deadline) {
  for (;;) {
    const Status status = wait_for_input(deadline, true);
    if (status != Status::done) return status;
    char buffer[64 * 1024];
    const ssize_t size = recv(descriptor_, buffer, sizeof buffer, 0);
    if (size < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (size <= 0) return Status::ended;
    raw.assign(buffer, static_cast<size_t>(size));
    on_segment_(raw.size(), has_spoken_.exchange(false));
    return Status::done;
  }
}

bool PeerSocket::transmit(std::string_view raw) {
  const auto deadline = Clock::now() + write_deadline_;
  has_spoken_ = true;
  while (!raw.empty()) {
    if (is_abandoned_) return false;
    const ssize_t sent = send(descriptor_, raw.data(), raw.size(), MSG_NOSIGNAL);
    if (sent >= 0) {
      raw.remove_prefix(static_cast<size_t>(sent));
      continue;
    }
    if (errno != EAGAIN && errno != EINTR) return false;
    pollfd sources[] = {{stop_.descriptor(), POLLIN, 0}, {descriptor_, POLLOUT, 0}};
    if (poll(sources, 2, remaining(deadline)) == 0 && Clock::now() >= deadline) return false;
  }
  return true;
}

// Sends what TLS has produced. Under write_mutex_.
bool PeerSocket::flush_tls_locked() {
  for (;;) {
    char buffer[16 * 1024];
    int size = 0;
    {
      const std::lock_guard lock(tls_mutex_);
      if (ssl_ != nullptr) size = BIO_read(output_, buffer, sizeof buffer);
    }
    if (size <= 0) return true;
    if (!transmit({buffer, static_cast<size_t>(size)})) return false;
  }
}

PeerSocket::Status PeerSocket::read(std::string &bytes, Clock::time_point deadline) {
  for (;;) {
    bool has_output = false;
    {
      // The handshake, or the last piece, may have left something behind: that comes first.
      const std::lock_guard lock(tls_mutex_);
      if (ssl_ != nullptr) {
        ERR_clear_error();
        const size_t before = bytes.size();
        char buffer[16 * 1024];
        int size = 0;
        while ((size = SSL_read(ssl_.get(), buffer, sizeof buffer)) > 0) bytes.append(buffer, static_cast<size_t>(size));
        const int error = SSL_get_error(ssl_.get(), size);
        ERR_clear_error();
        if (bytes.size() > before) return Status::done;
        if (error != SSL_ERROR_WANT_READ) return Status::ended;
        has_output = BIO_pending(output_) > 0;
      }
    }
    if (has_output) {
      const std::lock_guard writing(write_mutex_);
      if (!flush_tls_locked()) return Status::ended;
    }
    std::string raw;
    const Status status = receive(raw, deadline);
    if (status != Status::done) return status;
    const std::lock_guard lock(tls_mutex_);
    if (ssl_ == nullptr) {
      bytes += raw;
      return Status::done;
    }
    BIO_write(input_, raw.data(), static_cast<int>(raw.size()));
  }
}

// Under write_mutex_.
bool PeerSocket::write_piece_locked(std::string_view piece) {
  bool is_plain = false;
  {
    const std::lock_guard lock(tls_mutex_);
    is_plain = ssl_ == nullptr;
    ERR_clear_error();
    if (!is_plain && SSL_write(ssl_.get(), piece.data(), static_cast<int>(piece.size())) <= 0) {
      ERR_clear_error();
      return false;
    }
  }
  return is_plain ? transmit(piece) : flush_tls_locked();
}

bool PeerSocket::write(std::string_view bytes, size_t chunk) {
  const std::lock_guard writing(write_mutex_);
  // A record of TLS holds 16 KiB; larger pieces would only grow its buffer.
  const size_t piece_max = chunk == 0 ? 16 * 1024 : chunk;
  while (!bytes.empty()) {
    if (is_finished_ || is_abandoned_ || descriptor_ < 0) return false;
    const std::string_view piece = bytes.substr(0, piece_max);
    if (!write_piece_locked(piece)) return false;
    bytes.remove_prefix(piece.size());
  }
  return true;
}

bool PeerSocket::make_noise(TlsNoise noise, size_t count) {
  while (count > 0) {
    const std::lock_guard writing(write_mutex_);
    if (is_finished_ || is_abandoned_ || descriptor_ < 0) return false;
    {
      const std::lock_guard lock(tls_mutex_);
      for (; count > 0 && (ssl_ == nullptr || BIO_pending(output_) < kNoiseBytes); --count) {
        const bool said = ssl_ != nullptr && say(ssl_.get(), noise);
        ERR_clear_error();
        if (!said) throw std::runtime_error("this TLS cannot say so");
      }
    }
    if (!flush_tls_locked()) return false;
  }
  return true;
}

PeerSocket::Status PeerSocket::start_tls(SSL_CTX *context, Clock::time_point deadline) {
  {
    const std::lock_guard lock(tls_mutex_);
    ssl_.reset(SSL_new(context));
    if (ssl_ == nullptr) return Status::ended;
    input_ = BIO_new(BIO_s_mem());
    output_ = BIO_new(BIO_s_mem());
    BIO_set_mem_eof_return(input_, -1);
    SSL_set_bio(ssl_.get(), input_, output_);
    SSL_set_accept_state(ssl_.get());
  }
  for (;;) {
    int result = 0, error = SSL_ERROR_NONE;
    {
      const std::lock_guard writing(write_mutex_);
      {
        const std::lock_guard lock(tls_mutex_);
        ERR_clear_error();
        result = SSL_do_handshake(ssl_.get());
        error = SSL_get_error(ssl_.get(), result);
        if (const char *reason = ERR_reason_error_string(ERR_peek_error()); reason != nullptr) tls_error_ = reason;
        ERR_clear_error();
      }
      if (!flush_tls_locked()) return Status::ended;  // an alert too is to arrive
    }
    if (result == 1) return Status::done;
    if (error != SSL_ERROR_WANT_READ) return Status::ended;
    std::string raw;
    const Status status = receive(raw, deadline);
    if (status == Status::nudged) continue;
    if (status != Status::done) return status;
    const std::lock_guard lock(tls_mutex_);
    BIO_write(input_, raw.data(), static_cast<int>(raw.size()));
  }
}

TlsFacts PeerSocket::tls_facts() {
  const std::lock_guard lock(tls_mutex_);
  TlsFacts facts;
  if (ssl_ == nullptr) return facts;
  facts.version = SSL_get_version(ssl_.get());
  if (const char *name = SSL_get_servername(ssl_.get(), TLSEXT_NAMETYPE_host_name); name != nullptr) facts.server_name = name;
  const X509 *certificate = SSL_get0_peer_certificate(ssl_.get());
  if (certificate == nullptr) return facts;
  facts.client_verified = SSL_get_verify_result(ssl_.get()) == X509_V_OK;
  const std::unique_ptr<BIO, decltype(&BIO_free)> text(BIO_new(BIO_s_mem()), BIO_free);
  X509_NAME_print_ex(text.get(), X509_get_subject_name(certificate), 0, XN_FLAG_RFC2253);
  char *start = nullptr;
  const long length = BIO_get_mem_data(text.get(), &start);
  facts.client_subject.assign(start, static_cast<size_t>(length));
  return facts;
}

void PeerSocket::finish_writing(bool close_notify) {
  const std::lock_guard writing(write_mutex_);
  if (is_finished_ || descriptor_ < 0) return;
  is_finished_ = true;
  {
    const std::lock_guard lock(tls_mutex_);
    if (close_notify && ssl_ != nullptr && SSL_is_init_finished(ssl_.get()) == 1) SSL_shutdown(ssl_.get());
    ERR_clear_error();
  }
  flush_tls_locked();
  shutdown(descriptor_, SHUT_WR);
}

}  // namespace testpeer

#include "link.h"

#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/x509_vfy.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

namespace wb {

namespace {

constexpr size_t kInputBytes = 16 * 1024;
// OpenSSL moves all that it has read ahead to the front of its buffer for each record that it takes from there: it gets a few
// small records at a time.
constexpr size_t kPieceBytes = 2 * 1024;
constexpr size_t kOutputBytesKept = 64 * 1024;  // a larger buffer is given back once it is empty
// We never write so much ahead of the socket: it is TLS that answers a peer which asks and asks, and reads nothing.
constexpr size_t kOutputBytesMax = 512 * 1024;
// OpenSSL reads on until it finds something for us. A peer that sends new keys or tickets without end must not keep the loop:
// each key costs both of us a tenth of a millisecond, and a good server sends one in hours and a few tickets.
constexpr unsigned kFillsPerCall = 2;
constexpr size_t kFruitlessBytesMax = 64 * 1024;
// For each byte of data: records of one byte each are not held against a server.
constexpr size_t kFruitlessBytesForgiven = 64;

// What others left in the thread's queue would be taken for a failure of ours. Clearing walks all of the queue each time, so an
// empty one is left alone.
void clear_errors() {
  if (ERR_peek_error() != 0) ERR_clear_error();
}

}  // namespace

// OpenSSL's view of a link: it reads what the link has read, and writes what the link then sends or keeps.
struct LinkBio {
  static Link &link(BIO *bio) { return *static_cast<Link *>(BIO_get_data(bio)); }

  static int read(BIO *bio, char *buffer, int size) {
    BIO_clear_retry_flags(bio);
    size_t got = 0;
    switch (link(bio).read_buffered(buffer, std::min(static_cast<size_t>(size), kPieceBytes), got)) {
      case Link::Io::done:
        return static_cast<int>(got);
      case Link::Io::again:
        if (link(bio).socket_error_ == 0) BIO_set_retry_read(bio);
        return -1;
      case Link::Io::closed:
        return 0;
      default:
        return -1;
    }
  }

  static int write(BIO *bio, const char *bytes, int size) {
    BIO_clear_retry_flags(bio);
    try {
      if (link(bio).end_if_piled_up()) return -1;
      link(bio).send_or_keep({bytes, static_cast<size_t>(size)});
      return size;
    } catch (const std::bad_alloc &) {
      return -1;
    }
  }

  static long control(BIO *, int command, long, void *) { return command == BIO_CTRL_FLUSH ? 1 : 0; }

  static int create(BIO *bio) {
    BIO_set_init(bio, 1);
    return 1;
  }

  static const BIO_METHOD *method() {
    static BIO_METHOD *const made = [] {
      BIO_METHOD *fresh = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "link");
      if (fresh != nullptr) {
        BIO_meth_set_read(fresh, read);
        BIO_meth_set_write(fresh, write);
        BIO_meth_set_ctrl(fresh, control);
        BIO_meth_set_create(fresh, create);
      }
      return fresh;
    }();
    return made;
  }
};

std::shared_ptr<Link> Link::take_over(int fd) {
  try {
    return std::make_shared<Link>(fd);
  } catch (const std::bad_alloc &) {
    close(fd);
    throw;
  }
}

Link::~Link() {
  ssl_.reset();
  close(fd_);
}

Link::Io Link::receive(char *room, size_t size, size_t &got) {
  if (in_closed_) return Io::closed;
  if (drained_) return Io::again;
  for (;;) {
    const ssize_t count = recv(fd_, room, size, 0);
    if (count > 0) {
      got = static_cast<size_t>(count);
      // The loop tells when more has come.
      drained_ = got < size;
      spoken_ = false;
      return Io::done;
    }
    if (count == 0) {
      in_closed_ = true;
      return Io::closed;
    }
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
      drained_ = true;
      return Io::again;
    }
    socket_error_ = errno;
    return Io::failed;
  }
}

Link::Io Link::fill() {
  if (in_ == nullptr) in_.reset(new (std::nothrow) char[kInputBytes]);
  if (in_ == nullptr) return Io::failed;
  in_begin_ = in_end_ = 0;
  return receive(in_.get(), kInputBytes, in_end_);
}

Link::Io Link::read_buffered(char *buffer, size_t size, size_t &got) {
  if (in_begin_ == in_end_) {
    if (ssl_ != nullptr && fills_left_ == 0) return Io::again;
    if (ssl_ != nullptr) --fills_left_;
    if (const Io filled = fill(); filled != Io::done) return filled;
    fruitless_ += in_end_;
  }
  got = std::min(size, in_end_ - in_begin_);
  std::memcpy(buffer, in_.get() + in_begin_, got);
  in_begin_ += got;
  return Io::done;
}

bool Link::start_tls(SslPtr ssl) {
  BIO *bio = LinkBio::method() != nullptr ? BIO_new(LinkBio::method()) : nullptr;
  if (bio == nullptr) return false;
  BIO_set_data(bio, this);
  SSL_set_bio(ssl.get(), bio, bio);
  SSL_set_connect_state(ssl.get());
  // Whatever the application has set on the context: a write takes all, and a read goes on behind a record without data.
  SSL_clear_mode(ssl.get(), SSL_MODE_ENABLE_PARTIAL_WRITE);
  SSL_set_mode(ssl.get(), SSL_MODE_AUTO_RETRY);
  SSL_set_read_ahead(ssl.get(), 1);
  ssl_ = std::move(ssl);
  in_begin_ = in_end_ = 0;
  return true;
}

Link::Io Link::tls_result(int result) {
  switch (SSL_get_error(ssl_.get(), result)) {
    case SSL_ERROR_WANT_READ:
    case SSL_ERROR_WANT_WRITE:
      return Io::again;
    case SSL_ERROR_ZERO_RETURN:
      return Io::closed;
    default:
      break;
  }
  const unsigned long code = ERR_peek_last_error();
  // A peer that closes the socket without TLS's farewell has closed all the same.
  const bool cut_off = code == 0 || ERR_GET_REASON(code) == SSL_R_UNEXPECTED_EOF_WHILE_READING;
  if (cut_off && (in_closed_ || socket_error_ != 0)) {
    ERR_clear_error();
    return socket_error_ == 0 ? Io::closed : Io::failed;
  }
  const long verified = SSL_get_verify_result(ssl_.get());
  if (verified != X509_V_OK && ERR_GET_REASON(code) == SSL_R_CERTIFICATE_VERIFY_FAILED) {
    tls_error_ = std::string("the server's certificate is refused: ") + X509_verify_cert_error_string(verified);
  } else if (code != 0 && ERR_reason_error_string(code) != nullptr) {
    tls_error_ = ERR_reason_error_string(code);
  } else {
    tls_error_ = "TLS failed";
  }
  ERR_clear_error();
  return Io::failed;
}

Link::Io Link::handshake() {
  ERR_clear_error();
  fills_left_ = kFillsPerCall;
  fruitless_ = 0;
  const int result = SSL_do_handshake(ssl_.get());
  return result == 1 ? Io::done : tls_result(result);
}

// Servers put each stanza into a record of its own, but many records come at once.
Link::Io Link::read_tls(char *buffer, size_t size, size_t &got) {
  bool is_first = true;
  fills_left_ = kFillsPerCall;
  while (got < size && tls_end_ == Io::done) {
    const bool is_empty = drained_ && in_begin_ == in_end_ && SSL_has_pending(ssl_.get()) == 0;
    if (is_empty) return got > 0 ? Io::done : Io::again;
    if (std::exchange(is_first, false)) clear_errors();
    size_t piece = 0;
    const int result = SSL_read_ex(ssl_.get(), buffer + got, size - got, &piece);
    const Io io = result == 1 ? Io::done : tls_result(result);
    got += piece;
    fruitless_ -= std::min(fruitless_, kFruitlessBytesForgiven * piece);
    const bool is_noise = io == Io::again && fruitless_ > kFruitlessBytesMax;
    if (io == Io::again && !is_noise) return got > 0 ? Io::done : Io::again;
    if (is_noise) tls_error_ = "the server sends new keys or tickets, and no data";
    tls_end_ = is_noise ? Io::failed : io;
  }
  return got > 0 ? Io::done : tls_end_;
}

Link::Io Link::read(char *buffer, size_t size, size_t &got) {
  got = 0;
  return ssl_ != nullptr ? read_tls(buffer, size, got) : read_buffered(buffer, size, got);
}

Link::Io Link::write(std::string_view bytes) {
  if (bytes.empty()) return Io::done;
  if (ssl_ == nullptr) {
    send_or_keep(bytes);
    return Io::done;
  }
  clear_errors();
  size_t written = 0;
  // The buffer takes everything, so a write is never partial.
  const int result = SSL_write_ex(ssl_.get(), bytes.data(), bytes.size(), &written);
  return result == 1 ? Io::done : tls_result(result);
}

Link::Io Link::write_through(std::string_view bytes) {
  through_ = bytes.size() <= SSL3_RT_MAX_PLAIN_LENGTH;
  const Io io = write(bytes);
  through_ = false;
  return io;
}

bool Link::end_if_piled_up() {
  if (waiting() <= kOutputBytesMax) return false;
  socket_error_ = ENOBUFS;
  tls_error_ = "the server asks and asks in TLS, and does not read the answers";
  return true;
}

void Link::send_or_keep(std::string_view bytes) {
  if (std::exchange(through_, false) && waiting() == 0 && socket_error_ == 0) {
    out_.reserve(out_.size() + bytes.size());  // what has been sent in part must not fail to be kept
    const ssize_t sent = send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent >= 0) {
      spoken_ = true;
      bytes.remove_prefix(static_cast<size_t>(sent));
    } else if (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK) {
      socket_error_ = errno;
    }
  }
  out_.append(bytes);
}

Link::Io Link::flush() {
  if (socket_error_ != 0) return Io::failed;
  while (out_begin_ < out_.size()) {
    const ssize_t sent = send(fd_, out_.data() + out_begin_, out_.size() - out_begin_, MSG_NOSIGNAL);
    if (sent >= 0) {
      out_begin_ += static_cast<size_t>(sent);
      spoken_ = true;
      continue;
    }
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) return Io::again;
    socket_error_ = errno;
    return Io::failed;
  }
  out_begin_ = 0;
  out_.clear();
  if (out_.capacity() > kOutputBytesKept) out_.shrink_to_fit();
  return Io::done;
}

void Link::give_buffers_back() {
  if (in_begin_ != in_end_) return;
  in_.reset();
  // OpenSSL itself does not look at a record of which a part has been read.
  if (ssl_ != nullptr && SSL_has_pending(ssl_.get()) == 0) SSL_free_buffers(ssl_.get());
}

void Link::say_goodbye() {
  if (ssl_ != nullptr && SSL_is_init_finished(ssl_.get()) == 1) SSL_shutdown(ssl_.get());
  ERR_clear_error();
}

void Link::finish() {
  say_goodbye();
  flush();
  shutdown(fd_, SHUT_WR);
}

Link::Io Link::ignore_input(unsigned reads) {
  Io filled = Io::again;
  while (reads-- > 0 && (filled = fill()) == Io::done) {
  }
  return filled == Io::done ? Io::again : filled;
}

bool Link::is_all_acknowledged() const {
  int waiting = 0;
  return ioctl(fd_, SIOCOUTQ, &waiting) == 0 && waiting == 0;
}

void Link::acknowledge_quickly() const {
  if (spoken_) return;
  const int on = 1;
  setsockopt(fd_, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
}

std::string Link::reason() const {
  if (tls_failed()) return tls_error_;
  if (socket_error_ == 0) return "closed by the peer";
  char text[128];
  return strerror_r(socket_error_, text, sizeof text);
}

}  // namespace wb

// A connected socket, plain at first and TLS later, without waiting: bytes are buffered on both sides, so that many stanzas leave
// in one write and many TLS records arrive in one read.
#pragma once

#include <openssl/ssl.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "loop_gate.h"

namespace wb {

struct SslDeleter {
  void operator()(SSL *ssl) const { SSL_free(ssl); }
};
using SslPtr = std::unique_ptr<SSL, SslDeleter>;

class Link final : public Buriable {
 public:
  enum class Io {
    done,    // all that was asked
    again,   // the socket has to become ready first
    closed,  // the peer has closed its side
    failed   // the socket or TLS failed
  };

  // Takes over a connected, non-blocking socket, which is closed if that fails. Throws std::bad_alloc.
  static std::shared_ptr<Link> take_over(int fd);
  explicit Link(int fd) : fd_(fd) {}
  ~Link();
  Link(const Link &) = delete;
  Link &operator=(const Link &) = delete;

  int fd() const { return fd_; }
  SSL *ssl() const { return ssl_.get(); }

  // From here on bytes are TLS; what the peer sent before and was not read is thrown away. Takes over a client connection without
  // a socket.
  bool start_tls(SslPtr ssl);
  // Goes on with the handshake: done when it is complete. Call flush whatever it returns.
  Io handshake();

  // The socket has become readable: what follows may look at it again.
  void look_again() { drained_ = false; }
  // Reads at most size bytes (size > 0), of as many TLS records as are there; done with got > 0.
  Io read(char *buffer, size_t size, size_t &got);
  // Buffers bytes for the peer; failed when TLS refuses.
  Io write(std::string_view bytes);
  // The same, but what fits into one record of TLS goes to the socket at once, as far as that takes it. Call flush whatever it
  // returns.
  Io write_through(std::string_view bytes);
  // Writes what is buffered to the socket.
  Io flush();
  // Bytes that wait in the buffer.
  size_t waiting() const { return out_.size() - out_begin_; }
  // Buffers TLS's farewell.
  void say_goodbye();

  // Gives back the buffers that nothing is in. They come again when they are needed.
  void give_buffers_back();

  // Closes our side, once all is written: the peer gets the farewell and the end behind what it has not read yet.
  void finish();
  // Throws away what has come from the socket, in so many reads at most. Nothing can be read by TLS any more.
  Io ignore_input(unsigned reads);
  // Whether the peer's system has all that was flushed.
  bool is_all_acknowledged() const;

  // The acknowledgement of what was read leaves at once, unless something that was written since carries it: what the peer holds
  // back until then would be late by 40 ms.
  void acknowledge_quickly() const;

  // Whether it was TLS that failed, the peer's alert perhaps, and not just the socket.
  bool tls_failed() const { return !tls_error_.empty(); }
  // What went wrong after failed, for a person to read.
  std::string reason() const;

 private:
  friend struct LinkBio;
  Io receive(char *room, size_t size, size_t &got);
  Io fill();
  Io read_buffered(char *buffer, size_t size, size_t &got);
  bool end_if_piled_up();
  void send_or_keep(std::string_view bytes);
  Io tls_result(int result);
  Io read_tls(char *buffer, size_t size, size_t &got);

  const int fd_;
  SslPtr ssl_;
  std::unique_ptr<char[]> in_;  // what the socket gave and nobody took
  size_t in_begin_ = 0, in_end_ = 0;
  bool in_closed_ = false;
  size_t fruitless_ = 0;     // what was read since there were data in it
  unsigned fills_left_ = 0;  // of in_, in this call
  bool drained_ = false;     // the socket had nothing more when it was last read
  bool spoken_ = false;      // written since it was last read
  Io tls_end_ = Io::done;    // how reading ended, behind bytes that came before
  std::string out_;          // what the socket has not taken yet
  size_t out_begin_ = 0;
  bool through_ = false;  // to the socket, what OpenSSL writes
  int socket_error_ = 0;
  std::string tls_error_;
};

}  // namespace wb

// The server's end of a connection: waits, and speaks TLS once it is told to.
#pragma once

#include <openssl/ssl.h>

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace test_support {

struct SslFree {
  void operator()(SSL *ssl) const { SSL_free(ssl); }
};
struct SslContextFree {
  void operator()(SSL_CTX *context) const { SSL_CTX_free(context); }
};
using SslContextPtr = std::unique_ptr<SSL_CTX, SslContextFree>;

// One thread reads; any thread may write or interrupt.
class ServerSocket {
 public:
  explicit ServerSocket(int fd) : fd_(fd) {}
  ~ServerSocket();
  ServerSocket(const ServerSocket &) = delete;
  ServerSocket &operator=(const ServerSocket &) = delete;

  // Waits for bytes and appends them. False when the peer has closed, or nothing can be had any more.
  bool read(std::string &bytes);
  // False when the peer is gone.
  bool write(std::string_view bytes, bool byte_by_byte = false);
  // The handshake as a server.
  bool start_tls(SSL_CTX *context);

  // No more is written; what was written still arrives.
  void finish();
  // The same, without TLS saying so.
  void truncate();
  // The peer sees a reset.
  void reset();
  // Ends a read or write that waits; both fail from here on.
  void interrupt();

  // Of the peer: changes between talk and silence; TLS records with content.
  unsigned flights() const { return flights_; }
  unsigned records() const { return records_; }
  std::string server_name() const;
  std::string tls_version() const;

 private:
  bool receive_raw(std::string &bytes);
  bool send_raw(std::string_view bytes);
  bool flush_tls();

  const int fd_;
  bool spoken_ = true;  // since we last heard
  unsigned flights_ = 0, records_ = 0;
  std::mutex mutex_;  // for ssl_ and what is written
  std::unique_ptr<SSL, SslFree> ssl_;
  BIO *input_ = nullptr, *output_ = nullptr;  // of ssl_
};

}  // namespace test_support

// The server's end of a TCP connection, in plain and, once it is told so, in TLS. Every wait has a deadline and can be called
// off.
#pragma once

#include <openssl/ssl.h>
#include <qlk/testpeer/connection.hpp>
#include <qlk/testpeer/script.hpp>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace testpeer {

using Clock = std::chrono::steady_clock;

struct SslContextFree {
  void operator()(SSL_CTX *context) const { SSL_CTX_free(context); }
};
using SslContextPtr = std::unique_ptr<SSL_CTX, SslContextFree>;

// A pipe with which one thread ends another one's poll. Throws std::runtime_error when there are no descriptors left.
class WakePipe {
 public:
  WakePipe();
  ~WakePipe();
  WakePipe(const WakePipe &) = delete;
  WakePipe &operator=(const WakePipe &) = delete;

  void signal() const;
  void drain() const;
  int descriptor() const { return ends_[0]; }

 private:
  int ends_[2] = {-1, -1};
};

// One thread, the connection's own, reads, shakes hands and closes; any thread may write and do the rest.
class PeerSocket {
 public:
  enum class Status { done, ended, timeout, nudged, abandoned };
  // Called for each piece that arrives, with its size; says whether we had spoken since the one before.
  using OnSegment = std::function<void(size_t size, bool is_new_flight)>;

  // Takes the descriptor over.
  PeerSocket(int descriptor, std::chrono::milliseconds write_deadline, OnSegment on_segment);
  ~PeerSocket();
  PeerSocket(const PeerSocket &) = delete;
  PeerSocket &operator=(const PeerSocket &) = delete;

  // Appends what arrives. Ended: the peer closed or the connection is broken.
  Status read(std::string &bytes, Clock::time_point deadline);
  // Something is there to be read; a nudge does not end it.
  Status wait_readable(Clock::time_point deadline);
  // Waits without reading; false when it was abandoned meanwhile.
  bool pause(std::chrono::milliseconds time);
  // Takes part in the handshake, as the server.
  Status start_tls(SSL_CTX *context, Clock::time_point deadline);
  TlsFacts tls_facts();
  // Why the handshake failed, in OpenSSL's words; an alert of the peer is named there. Empty when it did not.
  const std::string &tls_error() const { return tls_error_; }
  // Ends the connection. The peer sees a reset if that was asked for.
  void close();

  // False when not everything could be handed to the kernel. chunk: the most bytes in one go and one TLS record, 0 for all.
  bool write(std::string_view bytes, size_t chunk = 0);
  // Says this so often. False as above. Throws std::runtime_error when there is no TLS, or none that can.
  bool make_noise(TlsNoise noise, size_t count);
  // Nothing can be written afterwards; what was written still arrives. close_notify: TLS says goodbye, as it should.
  void finish_writing(bool close_notify);
  // While it is off, bytes stay in the kernel and the peer is soon unable to send more.
  void set_reading(bool reading);
  // Ends a read that waits: there is something else to look at.
  void nudge() const { nudge_.signal(); }
  // Everything that waits, now or later, fails.
  void abandon();
  void reset_on_close() { is_reset_ = true; }

 private:
  struct SslFree {
    void operator()(SSL *ssl) const { SSL_free(ssl); }
  };

  Status wait_for_input(Clock::time_point deadline, bool with_nudges);
  Status receive(std::string &raw, Clock::time_point deadline);
  bool transmit(std::string_view raw);
  bool flush_tls_locked();
  bool write_piece_locked(std::string_view piece);

  int descriptor_;
  const std::chrono::milliseconds write_deadline_;
  const OnSegment on_segment_;
  WakePipe nudge_, stop_;
  std::atomic<bool> is_abandoned_ = false, is_reset_ = false, is_reading_ = true;
  std::atomic<bool> has_spoken_ = true;  // since something arrived

  std::mutex write_mutex_;  // held for a whole write, so that two do not mix; taken before tls_mutex_
  bool is_finished_ = false;
  std::mutex tls_mutex_;  // for ssl_ and its buffers; never held while something waits
  std::unique_ptr<SSL, SslFree> ssl_;
  BIO *input_ = nullptr, *output_ = nullptr;  // of ssl_
  std::string tls_error_;                     // of the connection's own thread
};

}  // namespace testpeer

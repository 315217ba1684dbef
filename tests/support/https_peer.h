// An HTTPS service inside the test's process that answers each request as its script says, in order or not. Clients must show a
// certificate. Each connection has a thread; the destructor ends them all.
#pragma once

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <qlk/testpeer/script.hpp>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "server_socket.h"

namespace test_support {

class HttpsPeer {
 public:
  class Exchange;

  struct Options {
    testpeer::Credentials certificate;  // of the service
    std::string client_authority;       // a file: the client's certificate must chain to it
    testpeer::TlsVersion tls_version_min = testpeer::TlsVersion::tls_1_2, tls_version_max = testpeer::TlsVersion::tls_1_3;
    // Instead of the handshake, in plain text; true: it follows after all. Both this and the answer are on the connection's
    // thread.
    std::function<bool(Exchange &)> instead_of_tls = {};
    // Answers one request; the connection ends in order when it returns.
    std::function<void(Exchange &)> answer = {};
  };

  explicit HttpsPeer(Options options);
  ~HttpsPeer();
  HttpsPeer(const HttpsPeer &) = delete;
  HttpsPeer &operator=(const HttpsPeer &) = delete;

  std::string url() const { return "https://127.0.0.1:" + std::to_string(port_) + "/bulk"; }

  unsigned connections() const { return connections_; }
  unsigned ended() const { return ended_; }   // of them
  std::vector<std::string> requests() const;  // heads with bodies, as they came

 private:
  struct Client {
    std::unique_ptr<ServerSocket> socket;  // null: the connection has ended
    std::thread thread;
  };

  void accept_clients();
  void reap();
  void serve(ServerSocket &socket);

  const Options options_;
  SslContextPtr tls_;
  int listener_ = -1;
  unsigned port_ = 0;
  std::atomic<unsigned> connections_ = 0, ended_ = 0;

  mutable std::mutex mutex_;
  bool ending_ = false;  // with the following under mutex_
  std::vector<std::string> requests_;
  std::list<Client> clients_;

  std::thread acceptor_;
};

// One request and the answer to it.
class HttpsPeer::Exchange {
 public:
  Exchange(ServerSocket &socket, std::string request) : socket_(socket), request_(std::move(request)) {}

  const std::string &request() const { return request_; }

  // The head of an answer. Without a length the body ends with the connection.
  bool begin(int status = 200);
  bool begin_with_length(size_t length);
  // As they are, each call in a write of its own. False when the client is gone.
  bool send(std::string_view bytes) { return socket_.write(bytes); }
  bool send_byte_by_byte(std::string_view bytes) { return socket_.write(bytes, true); }
  // Says nothing more; returns when the client is gone.
  void stay_silent();
  void reset() { socket_.reset(); }
  // TCP ends, without TLS having said so.
  void truncate() { socket_.truncate(); }

 private:
  ServerSocket &socket_;
  const std::string request_;
};

// A URL of this machine at which nobody listens, as long as this lives.
class DeafPort {
 public:
  DeafPort();
  ~DeafPort();
  DeafPort(const DeafPort &) = delete;
  DeafPort &operator=(const DeafPort &) = delete;

  std::string url() const { return "https://127.0.0.1:" + std::to_string(port_) + "/bulk"; }

 private:
  int socket_ = -1;
  unsigned port_ = 0;
};

}  // namespace test_support

// A port of the loopback, and a thread for each connection to it.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "peer_link.h"

namespace testpeer {

// A TCP socket of either family, bound to a port of the loopback that the system chooses. Throws std::runtime_error.
class LoopbackSocket {
 public:
  explicit LoopbackSocket(bool ipv6);
  ~LoopbackSocket();
  LoopbackSocket(const LoopbackSocket &) = delete;
  LoopbackSocket &operator=(const LoopbackSocket &) = delete;

  int descriptor() const { return descriptor_; }
  unsigned port() const { return port_; }
  const std::string &host() const { return host_; }

 private:
  int descriptor_ = -1;
  unsigned port_ = 0;
  std::string host_;
};

class Acceptor {
 public:
  // Takes the descriptor over, unless it throws. The link must not be null.
  using Make = std::function<std::shared_ptr<PeerLink>(int descriptor)>;

  // Listens when it returns; whoever connects waits until the start. receive_buffer: of the kernel, 0 for the usual one.
  // Throws std::runtime_error.
  Acceptor(bool ipv6, size_t receive_buffer);
  ~Acceptor() { stop(); }
  Acceptor(const Acceptor &) = delete;
  Acceptor &operator=(const Acceptor &) = delete;

  // Once.
  void start(Make make);
  // Ends all connections at once and joins the threads. May be called again.
  void stop();

  unsigned port() const { return listener_->port(); }
  const std::string &host() const { return host_; }

 private:
  // The thread alone keeps the link, so that nothing of a connection is left when it has ended.
  struct Served {
    std::weak_ptr<PeerLink> link;
    std::thread thread;
  };

  void accept_connections();
  void serve(int descriptor);
  void join_ended();

  std::unique_ptr<LoopbackSocket> listener_;
  const std::string host_;
  Make make_;
  WakePipe stop_;
  std::vector<Served> served_;  // of the acceptor's thread, and of stop once that was joined
  std::thread thread_;
};

}  // namespace testpeer

// A server for tests of XMPP clients, within the test's own process: correct by default, and wrong in whatever way it is told.
//
//   CertificateAuthority authority;
//   ScriptedPeer peer({.certificate = authority.server("grid.example"), .faults = {{Stage::sasl, Fault::reset()}}});
//   ... let the client connect to peer.host() ...
//   EXPECT_TRUE(peer.wait_connections(1, 2s));
//
// Each connection has a thread of its own. Everything here may be called from any thread. The destructor ends all connections at
// once and joins the threads; a Connection that is still held afterwards can be asked but does nothing more.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "peer_connection.h"
#include "script.h"

namespace testpeer {

class ScriptedPeer {
 public:
  using Milliseconds = std::chrono::milliseconds;

  // Listens when it returns. Throws std::runtime_error when it cannot, or when a certificate cannot be loaded.
  explicit ScriptedPeer(Options options = {});
  ~ScriptedPeer();
  ScriptedPeer(const ScriptedPeer &) = delete;
  ScriptedPeer &operator=(const ScriptedPeer &) = delete;

  unsigned port() const;
  // "127.0.0.1:PORT" or "[::1]:PORT"; in texts of the script "{host}" stands for it.
  const std::string &host() const;

  // How many connections there were, and how many of them had a session; those that have ended count too.
  size_t connections() const;
  size_t established() const;
  bool wait_connections(size_t count, Milliseconds deadline) const;
  bool wait_established(Milliseconds deadline, size_t count = 1) const;
  // All connections there were have ended.
  bool wait_all_ended(Milliseconds deadline) const;

  // By the order in which they came, from 0 on, and the newest; null when there is none.
  std::shared_ptr<Connection> connection(size_t number) const;
  std::shared_ptr<Connection> newest() const;

  // All stanzas of established sessions in the order in which they came.
  std::vector<Stanza> stanzas() const;
  // The first that the predicate accepts, of those that came and those that come before the deadline. The predicate must not
  // ask the peer itself.
  std::optional<Stanza> wait_for_stanza(const std::function<bool(const Stanza &)> &predicate, Milliseconds deadline) const;

  // To all sessions that are established.
  void send(std::string_view bytes) const;

 private:
  void accept_connections();
  void serve(int descriptor);
  void join_ended();

  struct Served {
    std::shared_ptr<Connection> connection;
    std::thread thread;
  };

  const std::shared_ptr<PeerState> state_;
  int listener_ = -1;
  unsigned port_ = 0;
  WakePipe stop_;
  std::vector<Served> served_;  // of the acceptor, and of the destructor once that was joined
  std::thread acceptor_;
};

}  // namespace testpeer

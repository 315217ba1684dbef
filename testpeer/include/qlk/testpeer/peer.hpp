// The scripted peer itself: a server on a port of the loopback that the system chooses.
//
//   using namespace testpeer;
//   CertificateAuthority authority;
//   ScriptedPeer peer({.certificate = authority.server("grid.example"), .faults = {{Stage::sasl, Fault::reset()}}});
//   ... let the client connect to peer.host() ...
//   assert(peer.wait_connections(1, std::chrono::seconds(10)));
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <qlk/testpeer/connection.hpp>
#include <qlk/testpeer/script.hpp>

namespace testpeer {

// Each connection has a thread of its own. Everything here may be called from any thread; what waits tells whether the condition
// came to hold before the deadline.
class ScriptedPeer {
 public:
  using Milliseconds = std::chrono::milliseconds;

  // Listens when it returns. Throws std::runtime_error when it cannot, or when a certificate cannot be loaded.
  explicit ScriptedPeer(Options options = {});
  // Ends all connections at once, as a server that is killed does, and joins the threads: callbacks of the script that are under
  // way are waited for.
  ~ScriptedPeer();
  ScriptedPeer(const ScriptedPeer &) = delete;
  ScriptedPeer &operator=(const ScriptedPeer &) = delete;

  unsigned port() const;
  // "127.0.0.1:PORT" or "[::1]:PORT"; in texts of the script "{host}" stands for it. Lives as long as the peer.
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
  // The first that the predicate accepts, of those that came and those that come before the deadline; nothing when there is none.
  // The predicate runs under the peer's lock and must not ask the peer anything.
  std::optional<Stanza> wait_for_stanza(const std::function<bool(const Stanza &)> &predicate, Milliseconds deadline) const;

  // Sends the bytes to all sessions that are established. Blocks as Connection::send does.
  void send(std::string_view bytes) const;
  // Sends each of them a message from the controller with this notification, an XML element.
  void notify(std::string_view payload) const;

 private:
  class Server;
  const std::unique_ptr<Server> server_;
};

}  // namespace testpeer

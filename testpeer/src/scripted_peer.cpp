
#include <qlk/testpeer/peer.hpp>

#include "acceptor.h"
#include "grid_answers.h"
#include "peer_connection.h"
#include "tls_context.h"

namespace testpeer {

class ScriptedPeer::Server {
 public:
  explicit Server(Options options)
      : state_(std::make_shared<PeerState>(std::move(options))), acceptor_(state_->options.ipv6, state_->options.receive_buffer) {
    state_->tls = make_server_context(tls_settings(state_->options));
    state_->host = acceptor_.host();
    acceptor_.start([this](int descriptor) { return add_connection(descriptor); });
  }

  ~Server() {
    acceptor_.stop();
    const std::lock_guard lock(state_->mutex);
    state_->connections.clear();  // they hold the state
  }
  Server(const Server &) = delete;
  Server &operator=(const Server &) = delete;

  unsigned port() const { return acceptor_.port(); }
  PeerState &state() const { return *state_; }

  // The predicate holds, now or before the deadline; it runs under the mutex.
  bool wait_until(Milliseconds deadline, const std::function<bool()> &predicate) const {
    std::unique_lock lock(state_->mutex);
    return state_->changed.wait_for(lock, deadline, predicate);
  }

 private:
  std::shared_ptr<PeerLink> add_connection(int descriptor) {
    const std::lock_guard lock(state_->mutex);
    const auto connection = std::make_shared<ServedConnection>(state_, descriptor, state_->connections.size());
    state_->connections.push_back(connection);
    state_->changed.notify_all();
    return connection;
  }

  const std::shared_ptr<PeerState> state_;
  Acceptor acceptor_;
};

ScriptedPeer::ScriptedPeer(Options options) : server_(std::make_unique<Server>(std::move(options))) {}

ScriptedPeer::~ScriptedPeer() = default;

unsigned ScriptedPeer::port() const { return server_->port(); }

const std::string &ScriptedPeer::host() const { return server_->state().host; }

size_t ScriptedPeer::connections() const {
  const std::lock_guard lock(server_->state().mutex);
  return server_->state().connections.size();
}

size_t ScriptedPeer::established() const {
  const std::lock_guard lock(server_->state().mutex);
  return server_->state().established;
}

bool ScriptedPeer::wait_connections(size_t count, Milliseconds deadline) const {
  return server_->wait_until(deadline, [&state = server_->state(), count] { return state.connections.size() >= count; });
}

bool ScriptedPeer::wait_established(Milliseconds deadline, size_t count) const {
  return server_->wait_until(deadline, [&state = server_->state(), count] { return state.established >= count; });
}

bool ScriptedPeer::wait_all_ended(Milliseconds deadline) const {
  return server_->wait_until(deadline, [&state = server_->state()] { return state.ended == state.connections.size(); });
}

std::shared_ptr<Connection> ScriptedPeer::connection(size_t number) const {
  const std::lock_guard lock(server_->state().mutex);
  const auto &all = server_->state().connections;
  return number < all.size() ? all[number] : nullptr;
}

std::shared_ptr<Connection> ScriptedPeer::newest() const {
  const std::lock_guard lock(server_->state().mutex);
  const auto &all = server_->state().connections;
  return all.empty() ? nullptr : all.back();
}

std::vector<Stanza> ScriptedPeer::stanzas() const {
  const std::lock_guard lock(server_->state().mutex);
  return server_->state().stanzas;
}

std::optional<Stanza> ScriptedPeer::wait_for_stanza(const std::function<bool(const Stanza &)> &predicate,
                                                    Milliseconds deadline) const {
  const std::vector<Stanza> &stanzas = server_->state().stanzas;
  std::optional<Stanza> found;
  size_t seen = 0;
  server_->wait_until(deadline, [&] {
    while (seen < stanzas.size() && !predicate(stanzas[seen])) ++seen;
    if (seen < stanzas.size()) found = stanzas[seen];
    return found.has_value();
  });
  return found;
}

void ScriptedPeer::send(std::string_view bytes) const {
  for (const auto &one : server_->state().live()) one->send(bytes);
}

void ScriptedPeer::notify(std::string_view payload) const {
  for (const auto &one : server_->state().live()) one->send(grid_notification(one->options(), one->jid(), payload));
}

}  // namespace testpeer

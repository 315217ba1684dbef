#include <qlk/testpeer/https_peer.hpp>

#include "acceptor.h"
#include "https_connection.h"
#include "tls_context.h"

namespace testpeer {

const char *name_of(HttpsStage stage) {
  switch (stage) {
    case HttpsStage::accept:
      return "accept";
    case HttpsStage::tls_handshake:
      return "tls_handshake";
    case HttpsStage::head:
      return "head";
    case HttpsStage::body:
      return "body";
  }
  return "";
}

class HttpsPeer::Server {
 public:
  explicit Server(HttpsOptions options)
      : state_(std::make_shared<HttpsState>(std::move(options))), acceptor_(state_->options.ipv6, 0) {
    state_->tls = make_server_context(tls_settings(state_->options));
    state_->host = acceptor_.host();
    acceptor_.start([this](int descriptor) { return add_connection(descriptor); });
  }

  unsigned port() const { return acceptor_.port(); }
  const std::string &host() const { return state_->host; }

  // What the function makes of the state.
  template <typename Function>
  auto ask(Function &&function) const {
    const std::lock_guard lock(state_->mutex);
    return function(*state_);
  }

  // The predicate holds for the state, now or before the deadline.
  template <typename Predicate>
  bool wait_until(Milliseconds deadline, Predicate &&predicate) const {
    std::unique_lock lock(state_->mutex);
    return state_->changed.wait_for(lock, deadline, [&] { return predicate(*state_); });
  }

 private:
  std::shared_ptr<PeerLink> add_connection(int descriptor) const {
    // It has ended once its descriptors are closed, as a test may count those.
    const auto forget = [state = state_](HttpsConnection *connection) {
      delete connection;
      const std::lock_guard lock(state->mutex);
      ++state->ended;
      state->changed.notify_all();
    };
    std::shared_ptr<HttpsConnection> connection(new HttpsConnection(state_, descriptor), forget);
    const std::lock_guard lock(state_->mutex);
    ++state_->connections;
    state_->changed.notify_all();
    return connection;
  }

  const std::shared_ptr<HttpsState> state_;
  Acceptor acceptor_;
};

HttpsPeer::HttpsPeer(HttpsOptions options) : server_(std::make_unique<Server>(std::move(options))) {}

HttpsPeer::~HttpsPeer() = default;

unsigned HttpsPeer::port() const { return server_->port(); }

const std::string &HttpsPeer::host() const { return server_->host(); }

size_t HttpsPeer::connections() const {
  return server_->ask([](const HttpsState &state) { return state.connections; });
}

size_t HttpsPeer::ended() const {
  return server_->ask([](const HttpsState &state) { return state.ended; });
}

bool HttpsPeer::wait_connections(size_t count, Milliseconds deadline) const {
  return server_->wait_until(deadline, [count](const HttpsState &state) { return state.connections >= count; });
}

bool HttpsPeer::wait_all_ended(Milliseconds deadline) const {
  return server_->wait_until(deadline, [](const HttpsState &state) { return state.ended == state.connections; });
}

std::vector<HttpRequest> HttpsPeer::requests() const {
  return server_->ask([](const HttpsState &state) { return state.requests; });
}

bool HttpsPeer::wait_requests(size_t count, Milliseconds deadline) const {
  return server_->wait_until(deadline, [count](const HttpsState &state) { return state.requests.size() >= count; });
}

std::vector<std::string> HttpsPeer::errors() const {
  return server_->ask([](const HttpsState &state) { return state.errors; });
}

}  // namespace testpeer

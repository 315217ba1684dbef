
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <qlk/testpeer/peer.hpp>

#include <algorithm>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "grid_answers.h"
#include "peer_connection.h"

namespace testpeer {

namespace {

void require(bool done, const std::string &what) {
  if (!done) throw std::runtime_error("the scripted peer: " + what);
}

int number_of(TlsVersion version) {
  if (version == TlsVersion::tls_1_1) return TLS1_1_VERSION;
  return version == TlsVersion::tls_1_2 ? TLS1_2_VERSION : TLS1_3_VERSION;
}

// Whether the client's certificate is good is left to those scripts that name an authority.
int accept_any(int, X509_STORE_CTX *) { return 1; }

int give_passphrase(char *buffer, int size, int, void *passphrase) {
  const std::string &text = *static_cast<const std::string *>(passphrase);
  if (text.size() > static_cast<size_t>(size)) return -1;
  std::copy(text.begin(), text.end(), buffer);
  return static_cast<int>(text.size());
}

void demand_certificates(SSL_CTX *context, const Options &options) {
  const int mode = SSL_VERIFY_PEER | (options.needs_client_certificate ? SSL_VERIFY_FAIL_IF_NO_PEER_CERT : 0);
  SSL_CTX_set_verify(context, mode, options.client_authority.empty() ? accept_any : nullptr);
  if (options.client_authority.empty()) return;
  const char *file = options.client_authority.c_str();
  require(SSL_CTX_load_verify_locations(context, file, nullptr) == 1, "cannot load " + options.client_authority);
  SSL_CTX_set_client_CA_list(context, SSL_load_client_CA_file(file));
  if (options.client_revocations.empty()) return;
  X509_STORE *store = SSL_CTX_get_cert_store(context);
  const char *list = options.client_revocations.c_str();
  require(X509_STORE_load_file(store, list) == 1 && X509_STORE_set_flags(store, X509_V_FLAG_CRL_CHECK) == 1,
          "cannot load " + options.client_revocations);
}

SslContextPtr make_context(const Options &options) {
  SslContextPtr context(SSL_CTX_new(TLS_server_method()));
  require(context != nullptr, "no TLS context");
  // What is older than 1.2 signs with what the usual level refuses.
  if (options.tls_version_min < TlsVersion::tls_1_2) SSL_CTX_set_security_level(context.get(), 0);
  SSL_CTX_set_min_proto_version(context.get(), number_of(options.tls_version_min));
  SSL_CTX_set_max_proto_version(context.get(), number_of(options.tls_version_max));
  SSL_CTX_set_num_tickets(context.get(), 0);  // nobody resumes a session, and a flight counts for more when it is one's own
  const Credentials &own = options.certificate;
  if (!own.certificate.empty()) {
    SSL_CTX_set_default_passwd_cb(context.get(), give_passphrase);
    SSL_CTX_set_default_passwd_cb_userdata(context.get(), const_cast<std::string *>(&own.passphrase));
    require(SSL_CTX_use_certificate_chain_file(context.get(), own.certificate.c_str()) == 1 &&
                SSL_CTX_use_PrivateKey_file(context.get(), own.key.c_str(), SSL_FILETYPE_PEM) == 1,
            "cannot load " + own.certificate);
  }
  demand_certificates(context.get(), options);
  return context;
}

// Of either family, on the loopback, on a port that the system chooses.
int open_listener(const Options &options, unsigned &port) {
  const int listener = socket(options.ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM, 0);
  require(listener >= 0, "no socket");
  fcntl(listener, F_SETFD, FD_CLOEXEC);
  fcntl(listener, F_SETFL, O_NONBLOCK);
  const int buffer = static_cast<int>(options.receive_buffer);
  if (buffer != 0) setsockopt(listener, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
  sockaddr_in v4{};
  v4.sin_family = AF_INET;
  v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  sockaddr_in6 v6{};
  v6.sin6_family = AF_INET6;
  v6.sin6_addr = in6addr_loopback;
  auto *address = options.ipv6 ? reinterpret_cast<sockaddr *>(&v6) : reinterpret_cast<sockaddr *>(&v4);
  socklen_t length = options.ipv6 ? sizeof v6 : sizeof v4;
  const bool listens =
      bind(listener, address, length) == 0 && listen(listener, 128) == 0 && getsockname(listener, address, &length) == 0;
  if (!listens) close(listener);
  require(listens, "cannot listen");
  port = ntohs(options.ipv6 ? v6.sin6_port : v4.sin_port);
  return listener;
}

}  // namespace

// Listens, and keeps a thread for each connection.
class ScriptedPeer::Server {
 public:
  explicit Server(Options options) : state_(std::make_shared<PeerState>(std::move(options))) {
    state_->tls = make_context(state_->options);
    listener_ = open_listener(state_->options, port_);
    state_->host = (state_->options.ipv6 ? "[::1]:" : "127.0.0.1:") + std::to_string(port_);
    acceptor_ = std::thread([this] { accept_connections(); });
  }

  ~Server() {
    stop_.signal();
    acceptor_.join();
    close(listener_);
    for (const Served &one : served_) one.connection->abandon();
    for (Served &one : served_) one.thread.join();
    const std::lock_guard lock(state_->mutex);
    state_->connections.clear();  // they hold the state
  }
  Server(const Server &) = delete;
  Server &operator=(const Server &) = delete;

  unsigned port() const { return port_; }
  PeerState &state() const { return *state_; }

  // The predicate holds, now or before the deadline; it runs under the mutex.
  bool wait_until(Milliseconds deadline, const std::function<bool()> &predicate) const {
    std::unique_lock lock(state_->mutex);
    return state_->changed.wait_for(lock, deadline, predicate);
  }

 private:
  struct Served {
    std::shared_ptr<ServedConnection> connection;
    std::thread thread;
  };

  void accept_connections();
  void serve(int descriptor);
  void join_ended();

  const std::shared_ptr<PeerState> state_;
  int listener_ = -1;
  unsigned port_ = 0;
  WakePipe stop_;
  std::vector<Served> served_;  // of the acceptor, and of the destructor once that was joined
  std::thread acceptor_;
};

void ScriptedPeer::Server::accept_connections() {
  for (;;) {
    pollfd sources[] = {{listener_, POLLIN, 0}, {stop_.descriptor(), POLLIN, 0}};
    if (poll(sources, 2, -1) < 0) continue;
    if (sources[1].revents != 0) return;
    const int descriptor = accept(listener_, nullptr, nullptr);
    if (descriptor < 0) {
      // Out of descriptors, perhaps: the client stays in the queue, and asking again at once would only keep a processor busy.
      poll(&sources[1], 1, 10);
      continue;
    }
    fcntl(descriptor, F_SETFD, FD_CLOEXEC);
    const int on = 1;
    setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    join_ended();
    try {
      serve(descriptor);
    } catch (const std::exception &) {
      close(descriptor);  // no pipe or thread was to be had: the client sees that it is not served
    }
  }
}

// Takes the descriptor over, unless it throws.
void ScriptedPeer::Server::serve(int descriptor) {
  std::shared_ptr<ServedConnection> connection;
  {
    const std::lock_guard lock(state_->mutex);
    connection = std::make_shared<ServedConnection>(state_, descriptor, state_->connections.size());
    state_->connections.push_back(connection);
    state_->changed.notify_all();
  }
  try {
    served_.push_back({connection, std::thread([connection] { connection->run(); })});
  } catch (const std::system_error &) {
    connection->finish();
  }
}

// So that a peer that has seen thousands of connections does not hold as many threads.
void ScriptedPeer::Server::join_ended() {
  const auto ended =
      std::partition(served_.begin(), served_.end(), [](const Served &one) { return !one.connection->transcript().is_ended; });
  std::for_each(ended, served_.end(), [](Served &one) { one.thread.join(); });
  served_.erase(ended, served_.end());
}

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

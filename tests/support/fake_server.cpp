#include "fake_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace test_support {

namespace {

constexpr char kTls[] = "urn:ietf:params:xml:ns:xmpp-tls";
constexpr char kSasl[] = "urn:ietf:params:xml:ns:xmpp-sasl";
constexpr char kBind[] = "urn:ietf:params:xml:ns:xmpp-bind";
constexpr char kStanzaErrors[] = "urn:ietf:params:xml:ns:xmpp-stanzas";

void require(bool done, const char *what) {
  if (!done) throw std::runtime_error(std::string("the test's server: ") + what);
}

// What the client shows is looked at, if at all, by the options; without an authority every certificate is good.
int accept_certificate(int, X509_STORE_CTX *) { return 1; }

SslContextPtr make_context(const FakeServer::Options &options) {
  SslContextPtr context(SSL_CTX_new(TLS_server_method()));
  require(context != nullptr, "no TLS context");
  if (options.certificate.certificate.empty()) return context;
  if (options.max_tls_version != 0 && options.max_tls_version < TLS1_2_VERSION) {
    SSL_CTX_set_security_level(context.get(), 0);
    SSL_CTX_set_min_proto_version(context.get(), TLS1_VERSION);
  }
  SSL_CTX_set_max_proto_version(context.get(), options.max_tls_version);
  SSL_CTX_set_num_tickets(context.get(), 0);
  require(SSL_CTX_use_certificate_chain_file(context.get(), options.certificate.certificate.c_str()) == 1 &&
              SSL_CTX_use_PrivateKey_file(context.get(), options.certificate.key.c_str(), SSL_FILETYPE_PEM) == 1,
          "no certificate");
  if (options.client_authority.empty()) {
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, accept_certificate);
  } else {
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    require(SSL_CTX_load_verify_locations(context.get(), options.client_authority.c_str(), nullptr) == 1, "no authority");
  }
  return context;
}

std::string stream_features(const std::string &content) { return "<stream:features>" + content + "</stream:features>"; }

// The answer to an IQ, up to its content.
std::string reply_head(const Element &iq, const std::string &jid, const char *type) {
  std::string head =
      std::string("<iq type='") + type + "' id='" + escape_xml(iq.attribute("id")) + "' to='" + escape_xml(jid) + "'";
  if (!iq.attribute("to").empty()) head.append(" from='").append(escape_xml(iq.attribute("to"))).append("'");
  return head.append(">");
}

}  // namespace

// ---- The server

FakeServer::FakeServer(Options options) : options_(std::move(options)), tls_(make_context(options_)) {
  listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  require(listener_ >= 0, "no socket");
  const int window = 16 * 1024;
  if (options_.small_window) setsockopt(listener_, SOL_SOCKET, SO_RCVBUF, &window, sizeof window);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto *generic = reinterpret_cast<sockaddr *>(&address);
  require(::bind(listener_, generic, length) == 0 && listen(listener_, 64) == 0 && getsockname(listener_, generic, &length) == 0,
          "cannot listen");
  port_ = ntohs(address.sin_port);
  acceptor_ = std::thread([this] { accept_clients(); });
}

FakeServer::~FakeServer() {
  std::vector<std::thread> threads;
  {
    const std::lock_guard lock(mutex_);
    ending_ = true;
    for (const auto &session : sessions_) session->socket_.interrupt();
    threads.swap(threads_);
  }
  changed_.notify_all();
  shutdown(listener_, SHUT_RDWR);
  acceptor_.join();
  for (std::thread &thread : threads) thread.join();
  close(listener_);
}

void FakeServer::accept_clients() {
  for (;;) {
    const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) return;
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    ++connections_;
    const auto session = std::make_shared<Session>(*this, fd);
    const std::lock_guard lock(mutex_);
    if (ending_) return;
    sessions_.push_back(session);
    threads_.emplace_back([session] { session->run(); });
  }
}

void FakeServer::record(const Element &stanza) {
  const std::lock_guard lock(mutex_);
  stanzas_.push_back(stanza);
  changed_.notify_all();
}

std::vector<Element> FakeServer::stanzas() const {
  const std::lock_guard lock(mutex_);
  return stanzas_;
}

bool FakeServer::wait_for_stanza(const std::function<bool(const Element &)> &predicate, Element *stanza,
                                 std::chrono::milliseconds at_most) const {
  std::unique_lock lock(mutex_);
  size_t seen = 0;
  return changed_.wait_for(lock, at_most, [&] {
    for (; seen < stanzas_.size(); ++seen) {
      if (!predicate(stanzas_[seen])) continue;
      if (stanza != nullptr) *stanza = stanzas_[seen];
      return true;
    }
    return false;
  });
}

void FakeServer::send_to_all(std::string_view text) {
  std::vector<std::shared_ptr<Session>> bound;
  {
    const std::lock_guard lock(mutex_);
    for (const auto &session : sessions_) {
      if (session->is_bound_) bound.push_back(session);
    }
  }
  for (const auto &session : bound) session->send(text);
}

void FakeServer::close_all() {
  std::vector<std::shared_ptr<Session>> all;
  {
    const std::lock_guard lock(mutex_);
    all = sessions_;
  }
  for (const auto &session : all) session->close();
}

void FakeServer::resume_reading() {
  const std::lock_guard lock(mutex_);
  reading_ = true;
  changed_.notify_all();
}

std::string FakeServer::server_name() const {
  const std::lock_guard lock(mutex_);
  return server_name_;
}

std::string FakeServer::tls_version() const {
  const std::lock_guard lock(mutex_);
  return tls_version_;
}

std::string FakeServer::initial_response() const {
  const std::lock_guard lock(mutex_);
  return initial_response_;
}

unsigned FakeServer::records() const {
  const std::lock_guard lock(mutex_);
  unsigned all = 0;
  for (const auto &session : sessions_) all += session->records_;
  return all;
}

// ---- A connection

std::string FakeServer::Session::jid() const {
  const std::lock_guard lock(server_.mutex_);
  return jid_;
}

void FakeServer::Session::send(std::string_view text) { socket_.write(text, server_.options_.byte_by_byte); }

void FakeServer::Session::close() {
  send("</stream:stream>");
  socket_.finish();
}

void FakeServer::Session::run() {
  try {
    negotiate();
    serve();
  } catch (const Ended &) {
  } catch (const std::exception &) {
    // What the client says is looked at by the tests; here it only ends the connection.
  }
  {
    const std::lock_guard lock(server_.mutex_);
    is_bound_ = false;
  }
  socket_.interrupt();
}

// Keeps the socket open until the client closes it, so that what was sent is not lost in a reset.
void FakeServer::Session::drain() {
  std::string ignored;
  while (socket_.read(ignored)) ignored.clear();
  throw Ended();
}

void FakeServer::Session::act(const std::map<Stage, Fault> &faults, Stage stage) {
  const auto found = faults.find(stage);
  if (found == faults.end()) return;
  const Fault &fault = found->second;
  std::string text = fault.text;
  if (const size_t at = text.find("{host}"); at != std::string::npos) text.replace(at, 6, server_.host());
  switch (fault.kind) {
    case Fault::Kind::none:
      return;
    case Fault::Kind::silent:
      return drain();
    case Fault::Kind::close:
      socket_.finish();
      return drain();
    case Fault::Kind::reset:
      socket_.reset();
      throw Ended();
    case Fault::Kind::send_and_stay:
      send(text);
      return drain();
    case Fault::Kind::send_and_close:
      send(text);
      socket_.finish();
      return drain();
    case Fault::Kind::send_and_go_on:
      return send(text);
  }
}

XmlStream::Item FakeServer::Session::next() {
  std::string bytes;
  while (stream_->empty()) {
    {
      std::unique_lock lock(server_.mutex_);
      server_.changed_.wait(lock, [&] { return server_.ending_ || !is_bound_ || server_.reading_; });
    }
    bytes.clear();
    if (!socket_.read(bytes)) throw Ended();
    if (is_bound_) records_ = socket_.records() - records_before_;
    stream_->feed(bytes);
  }
  return stream_->take();
}

Element FakeServer::Session::next_stanza() {
  XmlStream::Item item = next();
  if (item.kind == XmlStream::Item::Kind::stanza) return std::move(item.element);
  if (is_bound_) ++server_.closed_streams_;
  if (server_.options_.closes_streams) close();
  drain();
  return {};
}

// Reads the client's head and answers it.
void FakeServer::Session::open_stream(const std::string &features, Stage request) {
  const XmlStream::Item opening = next();
  if (opening.kind != XmlStream::Item::Kind::head) throw Ended();
  user_ = opening.element.attribute("from");
  const std::string head =
      "<?xml version='1.0'?><stream:stream xmlns='jabber:client' xmlns:stream='http://etherx.jabber.org/streams' id='s1' "
      "version='1.0' xml:lang='en' from='" +
      escape_xml(server_.options_.domain) + "'>";
  send(head);
  if (!stream_->empty()) act(server_.options_.faults_ahead, request);
  if (!features.empty()) send(stream_features(features));
}

void FakeServer::Session::negotiate() {
  secure();
  authenticate();
  bind();
}

void FakeServer::Session::secure() {
  const Options &options = server_.options_;
  act(Stage::head);
  open_stream("", Stage::proceed);
  act(Stage::features);
  send(stream_features(options.offers_starttls ? std::string("<starttls xmlns='") + kTls + "'><required/></starttls>" : ""));
  if (!next_stanza().is("starttls", kTls)) throw Ended();
  act(Stage::proceed);
  send(std::string("<proceed xmlns='") + kTls + "'/>" + options.after_proceed);
  if (options.faults.contains(Stage::tls)) {
    // Only what comes after the client's hello counts as TLS.
    std::string hello;
    if (!socket_.read(hello)) throw Ended();
    act(Stage::tls);
  }
  stream_ = std::make_unique<XmlStream>();
  if (!socket_.start_tls(server_.tls_.get())) drain();
  const std::lock_guard lock(server_.mutex_);
  server_.server_name_ = socket_.server_name();
  server_.tls_version_ = socket_.tls_version();
}

void FakeServer::Session::authenticate() {
  const Options &options = server_.options_;
  std::string mechanisms;
  for (const std::string &mechanism : options.mechanisms) mechanisms += "<mechanism>" + mechanism + "</mechanism>";
  open_stream(std::string("<mechanisms xmlns='") + kSasl + "'>" + mechanisms + "</mechanisms>", Stage::sasl);
  for (;;) {
    const Element auth = next_stanza();
    if (!auth.is("auth", kSasl)) throw Ended();
    act(Stage::sasl);
    {
      const std::lock_guard lock(server_.mutex_);
      server_.initial_response_ = auth.text;
    }
    bool offered = false;
    for (const std::string &mechanism : options.mechanisms) offered = offered || mechanism == auth.attribute("mechanism");
    const std::string failure = offered ? options.sasl_failure : "invalid-mechanism";
    if (!failure.empty()) {
      send(std::string("<failure xmlns='") + kSasl + "'><" + failure + "/></failure>");
      continue;
    }
    if (!options.challenge.empty()) {
      send(std::string("<challenge xmlns='") + kSasl + "'>" + options.challenge + "</challenge>");
      if (!next_stanza().is("response", kSasl)) {
        send(std::string("<failure xmlns='") + kSasl + "'><aborted/></failure>");
        continue;
      }
    }
    send(std::string("<success xmlns='") + kSasl + "'>" + options.success_data + "</success>");
    stream_ = std::make_unique<XmlStream>();
    return;
  }
}

void FakeServer::Session::bind() {
  const Options &options = server_.options_;
  std::string features = options.offers_bind ? std::string("<bind xmlns='") + kBind + "'/>" : "<other xmlns='urn:test:other'/>";
  if (options.max_bytes != 0 || options.idle_seconds != 0) {
    features += "<limits xmlns='urn:xmpp:stream-limits:0'>";
    if (options.max_bytes != 0) features += "<max-bytes>" + std::to_string(options.max_bytes) + "</max-bytes>";
    if (options.idle_seconds != 0) features += "<idle-seconds>" + std::to_string(options.idle_seconds) + "</idle-seconds>";
    features += "</limits>";
  }
  open_stream(features, Stage::bind);
  const Element iq = next_stanza();
  const Element *wish = iq.child("bind");
  if (!iq.is("iq", "jabber:client") || wish == nullptr) throw Ended();
  act(Stage::bind);
  const std::string id = escape_xml(iq.attribute("id"));
  if (!options.bind_error.empty()) {
    send("<iq type='error' id='" + id + "'><error type='cancel'><" + options.bind_error + " xmlns='" + kStanzaErrors +
         "'/></error></iq>");
    drain();
  }
  const Element *resource = wish->child("resource");
  std::string jid = options.bound_jid;
  if (jid.empty())
    jid = (user_.empty() ? "user@" + options.domain : user_) + "/" + (resource != nullptr ? resource->text : "made-by-server");
  {
    const std::lock_guard lock(server_.mutex_);
    jid_ = jid;
    is_bound_ = true;
    records_before_ = socket_.records();
  }
  ++server_.established_;
  server_.flights_ = socket_.flights();
  send("<iq type='result' id='" + id + "'><bind xmlns='" + kBind + "'><jid>" + escape_xml(jid) + "</jid></bind></iq>");
}

void FakeServer::Session::serve() {
  for (bool first = true;; first = false) {
    const Element stanza = next_stanza();
    server_.record(stanza);
    if (first) act(Stage::established);
    on_stanza(stanza);
  }
}

void FakeServer::Session::on_stanza(const Element &stanza) {
  const Options &options = server_.options_;
  if (options.on_stanza) return options.on_stanza(*this, stanza);
  if (options.answers_pings) answer_ping(stanza);
}

bool FakeServer::Session::answer_ping(const Element &stanza) {
  const std::string to = stanza.attribute("to");
  if (stanza.name != "iq" || stanza.attribute("type") != "get" || stanza.child("ping") == nullptr) return false;
  if (!to.empty() && to != server_.options_.domain) return false;
  send(reply_head(stanza, jid(), "result") + "</iq>");
  return true;
}

}  // namespace test_support

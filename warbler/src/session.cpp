#include "session.h"

#include <warbler/log.h>

#include "guard.h"
#include "log_context.h"
#include "xmpp_names.h"

namespace wb {

namespace {

constexpr size_t kReadBytes = 16 * 1024;
constexpr unsigned kReadsPerPass = 16;      // then others have their turn
constexpr size_t kWriteBytes = 256 * 1024;  // given to the link at a time
constexpr std::chrono::seconds kClosingTime{2};

std::chrono::milliseconds until(std::chrono::steady_clock::time_point when) {
  return std::chrono::ceil<std::chrono::milliseconds>(when - std::chrono::steady_clock::now());
}

const char *condition_of(StreamError error) {
  switch (error) {
    case StreamError::restricted_xml:
      return "restricted-xml";
    case StreamError::policy_violation:
      return "policy-violation";
    case StreamError::unsupported_encoding:
      return "unsupported-encoding";
    case StreamError::bad_namespace:
      return "bad-namespace-prefix";
    case StreamError::no_memory:
      return "resource-constraint";
    default:
      return "not-well-formed";
  }
}

}  // namespace

template <typename Function>
void Session::run(Function &&function) {
  if (has_ended()) return;
  const LogContext context(options_.host_text.c_str());
  const bool done = guarded(nullptr, __func__, [&] {
    function();
    return true;
  });
  if (!done) end(WB_ERR_NO_MEMORY, "out of memory");
}

Session::Session(wb_workq &queue, std::shared_ptr<LoopGate> gate, ClientOptions options, Owner &owner)
    : queue_(queue),
      gate_(std::move(gate)),
      options_(std::move(options)),
      owner_(owner),
      names_{options_.domain, options_.endpoint.host},
      endpoint_(options_.endpoint),
      timer_(queue.base(), -1, 0, gate_, [this](short) { run([this] { on_timer(); }); }),
      parser_(*this, options_.limits) {}

Session::~Session() {
  if (link_ == nullptr) return;
  link_->say_goodbye();
  link_->flush();
}

void Session::start(const std::shared_ptr<Session> &self) {
  self_ = self;
  deadline_ = Clock::now() + options_.connect_timeout;
  arm_timer();
  resolve();
}

void Session::resolve() {
  state_ = State::resolving;
  lookup_ = std::make_unique<Lookup>(queue_, endpoint_.host, endpoint_.port,
                                     [weak = self_, gate = gate_](AddressList addresses, int error) {
                                       const LoopGate::Pass pass(gate);
                                       const std::shared_ptr<Session> session = pass ? weak.lock() : nullptr;
                                       if (session == nullptr) return;
                                       session->run([&] { session->on_resolved(std::move(addresses), error); });
                                     });
}

void Session::on_resolved(AddressList addresses, int error) {
  if (error != 0) return end(WB_ERR_SOCKET_CONNECT, "cannot resolve " + endpoint_.host + ": " + gai_strerror(error));
  state_ = State::connecting;
  connector_ = std::make_shared<Connector>(queue_.base(), gate_, std::move(addresses), deadline_,
                                           [this](int fd, const std::string &text) { run([&] { on_connected(fd, text); }); });
  connector_->start();
}

void Session::on_connected(int fd, const std::string &text) {
  gate_->bury(std::move(connector_));
  if (fd < 0) return end(WB_ERR_SOCKET_CONNECT, "cannot connect to " + options_.host_text + ": " + text);
  wb_log(WB_LOG_VERBOSE, "connected to %s", text.c_str());
  link_ = std::make_unique<Link>(fd);
  tune_socket(fd, static_cast<unsigned>(options_.idle_probe.count()));
  readable_ = std::make_shared<LoopEvent>(queue_.base(), fd, EV_READ | EV_PERSIST, gate_,
                                          [this](short) { run([this] { on_readable(); }); });
  writable_ = std::make_shared<LoopEvent>(queue_.base(), fd, EV_WRITE, gate_, [this](short) { run([this] { pump(); }); });
  readable_->add();
  begin_opening();
}

void Session::on_readable() {
  // Servers hold a second small packet back until the first is acknowledged, and not everything that arrives is answered.
  link_->acknowledge_quickly();
  heard_ = Clock::now();
  probed_ = false;
  if (state_ == State::tls) return on_handshake();
  if (state_ == State::tls_accept) return readable_->remove();  // nothing is read before the application has answered
  read_stream();
}

void Session::read_stream() {
  for (unsigned reads = 0; reads < kReadsPerPass; ++reads) {
    char *room = parser_.buffer(kReadBytes);
    if (room == nullptr) return end(WB_ERR_NO_MEMORY, "no memory to read into");
    size_t got = 0;
    const State before = state_;
    switch (link_->read(room, kReadBytes, got)) {
      case Link::Io::again:
        return;
      case Link::Io::closed:
        return end(state_ == State::closing ? WB_ERR_NONE : WB_ERR_PROTOCOL, "the server closed the connection");
      case Link::Io::failed:
        return end(link_->ssl() != nullptr ? WB_ERR_TLS : WB_ERR_SOCKET_CONNECT, "the connection failed: " + link_->reason());
      case Link::Io::done:
        break;
    }
    const StreamError error = parser_.parse(got);
    if (has_ended()) return;
    if (error != StreamError::none) return on_parse_error(error);
    if (state_ != before && (link_ == nullptr || state_ == State::tls || state_ == State::tls_accept)) return;
  }
  // More may wait in the link where the socket cannot tell.
  if (readable_ != nullptr) readable_->activate();
}

void Session::on_parse_error(StreamError error) {
  const char *condition = condition_of(error);
  std::string farewell = "<stream:error><";
  farewell.append(condition).append(" xmlns='").append(ns::kStreamErrors).append("'/></stream:error></stream:stream>");
  write(farewell);
  if (link_ != nullptr) link_->flush();
  std::string reason = "the server sent what is refused (";
  reason.append(condition).append("): ").append(parser_.error_text());
  end(error == StreamError::no_memory ? WB_ERR_NO_MEMORY : WB_ERR_PROTOCOL, reason);
}

void Session::write(std::string_view bytes) {
  if (link_ == nullptr || has_ended()) return;
  spoken_ = Clock::now();
  if (sent_ == sending_.size()) {
    link_->write(bytes);
  } else {
    sending_.append(bytes);  // part of a stanza may have gone to the link already
  }
}

void Session::pump() {
  if (link_ == nullptr || has_ended()) return;
  for (;;) {
    if (state_ == State::established && sent_ == sending_.size()) {
      sending_.clear();
      sent_ = 0;
      owner_.take_outgoing(sending_);
    }
    const std::string_view piece = std::string_view(sending_).substr(sent_, kWriteBytes);
    if (!piece.empty()) {
      if (link_->write(piece) != Link::Io::done) return end(WB_ERR_TLS, "cannot encrypt: " + link_->reason());
      sent_ += piece.size();
      spoken_ = Clock::now();
    }
    switch (link_->flush()) {
      case Link::Io::again:
        owner_.set_backlog(sending_.size() - sent_ + link_->waiting());
        return writable_->add();
      case Link::Io::done:
        if (piece.empty()) return owner_.set_backlog(0);
        break;
      default:
        return end(WB_ERR_SOCKET_CONNECT, "the connection failed: " + link_->reason());
    }
  }
}

void Session::on_stream_close() {
  if (state_ != State::closing) {
    write("</stream:stream>");
    link_->flush();
  }
  end(state_ == State::closing ? WB_ERR_NONE : WB_ERR_PROTOCOL, "the server closed the stream");
}

void Session::on_stanza(wb_dom_node *stanza) {
  if (wb_log_get_level() >= WB_LOG_TRACE) wb_log_dom(WB_LOG_TRACE, stanza, "received");
  const char *uri = wb_dom_get_namespace_uri(stanza);
  if (uri != nullptr && std::string_view(uri) == ns::kStreams && std::string_view(wb_dom_get_localname(stanza)) == "error") {
    return on_stream_error(stanza);
  }
  if (state_ == State::established || state_ == State::closing) return owner_.on_session_stanza(stanza);
  on_negotiation(stanza);
}

// The application may answer within its hook or from a pass of its own making.
void Session::on_tls_answer(bool accept) noexcept {
  const LoopGate::Pass pass(gate_);
  if (pass) run([&] { go_on_after_accept(accept); });
}

void Session::close(wb_errcode reason) {
  if (has_ended()) return;
  if (state_ == State::closing) return;
  if (state_ != State::established) return end(reason, "disconnected while connecting");
  pump();
  if (has_ended()) return;
  // Whatever the socket does not take now still goes before the closing tag.
  std::string rest;
  owner_.take_outgoing(rest);
  write(rest);
  state_ = State::closing;
  wb_log(WB_LOG_VERBOSE, "closing the stream: %s", wb_err_message(reason));
  write("</stream:stream>");
  deadline_ = Clock::now() + kClosingTime;
  arm_timer();
  pump();
}

void Session::abandon() {
  state_ = State::ended;
  parser_.stop();
  timer_.remove();
  lookup_.reset();
  if (link_ != nullptr) {
    link_->say_goodbye();
    link_->flush();
  }
  gate_->bury(std::move(connector_));
  drop_link();
}

void Session::end(wb_errcode code, const std::string &reason, wb_dom_node *error) {
  if (has_ended()) return;
  const wb_log_level level = code == WB_ERR_NONE                                   ? WB_LOG_VERBOSE
                             : code == WB_ERR_TLS || code == WB_ERR_NOT_AUTHORIZED ? WB_LOG_ERROR
                                                                                   : WB_LOG_WARN;
  wb_log(level, "session with %s ended while %s: %s", options_.host_text.c_str(), state_name(), reason.c_str());
  abandon();
  owner_.on_session_end(code, error);
}

void Session::drop_link() {
  // Out of the loop before the socket is closed; freed later, because their functions may be the callers.
  if (readable_ != nullptr) readable_->remove();
  if (writable_ != nullptr) writable_->remove();
  gate_->bury(std::move(readable_));
  gate_->bury(std::move(writable_));
  if (link_ != nullptr) gate_->bury(std::shared_ptr<Link>(std::move(link_)));
  tls_session_ = {};
  sasl_.reset();
  sending_.clear();
  sent_ = 0;
}

void Session::arm_timer() {
  const auto idle = options_.idle_probe / 2;
  timer_.add(state_ == State::established
                 ? std::chrono::duration_cast<std::chrono::milliseconds>(idle) + std::chrono::milliseconds(1)
                 : until(deadline_));
}

void Session::on_timer() {
  if (state_ == State::established) return on_idle();
  if (Clock::now() < deadline_) return arm_timer();
  if (state_ == State::closing) return end(WB_ERR_NONE, "the server did not close the stream in time");
  end(WB_ERR_TIMEOUT, "the time allowed for connecting ran out");
}

// Twice in each interval: says something when nothing was said, asks when nothing was heard, gives up when nothing was answered.
void Session::on_idle() {
  const auto now = Clock::now();
  if (now - heard_ >= 2 * options_.idle_probe) return end(WB_ERR_TIMEOUT, "the server has vanished");
  if (now - heard_ >= options_.idle_probe && !probed_) {
    probed_ = true;
    std::string ping = "<iq type='get' id='probe' to='";
    ping.append(options_.domain).append("'><ping xmlns='").append(ns::kPing).append("'/></iq>");
    write(ping);
  } else if (now - spoken_ >= options_.idle_probe / 2) {
    write(" ");
  }
  arm_timer();
  pump();
}

const char *Session::state_name() const {
  static constexpr const char *kNames[] = {
      "resolving",   "connecting", "opening", "in the TLS handshake", "asking whether to accept TLS", "authenticating", "binding",
      "established", "closing",    "ended"};
  return kNames[static_cast<size_t>(state_)];
}

}  // namespace wb

#include "session.h"

#include <warbler/log.h>

#include <algorithm>
#include <utility>

#include "guard.h"
#include "log_context.h"
#include "xml_text.h"
#include "xmpp_names.h"

namespace wb {

namespace {

constexpr size_t kReadBytes = 16 * 1024;
constexpr size_t kWriteBytes = 256 * 1024;  // given to the link at a time
// So often in one pass of the loop; then others have their turn.
constexpr unsigned kReadsPerPass = 4;
constexpr unsigned kWritesPerPass = 4;
constexpr std::chrono::seconds kWritingTime{5};  // for what waits before the closing tag
constexpr std::chrono::seconds kClosingTime{2};  // for the server's closing tag
constexpr std::chrono::seconds kLeavingTime{2};  // for last words

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

bool is_in_streams(const wb_dom_node *node, std::string_view name) {
  const Name &found = *as_element(node)->name;
  return name == std::string_view(found.local, found.local_length) && found.uri->view() == ns::kStreams;
}

// While the loop reads, what is sent meanwhile need not wake it.
class Attendance {
 public:
  explicit Attendance(Session::Owner &owner) : owner_(owner) { owner_.begin_attendance(); }
  ~Attendance() { owner_.no_attendance(); }
  Attendance(const Attendance &) = delete;
  Attendance &operator=(const Attendance &) = delete;

 private:
  Session::Owner &owner_;
};

}  // namespace

template <typename Function>
void Session::run(Function &&function) {
  if (has_ended()) return;
  const LogContext context(host_text().c_str());
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
      traffic_(owner.traffic()),
      names_{options_.domain, options_.endpoint.host},
      host_texts_{options_.host_text},
      server_(options_.endpoint),
      keepalive_(options_.idle_probe),
      timer_(queue.base(), -1, 0, gate_, [this](short) { run([this] { on_timer(); }); }),
      more_(queue.base(), -1, 0, gate_, [this](short) { run([this] { on_more(); }); }),
      parser_(*this, options_.limits) {
  for (const Endpoint &other : options_.other_endpoints) host_texts_.push_back(text_of(other));
}

Session::~Session() {
  if (link_ == nullptr) return;
  link_->say_goodbye();
  link_->flush();
}

void Session::start(const std::shared_ptr<Session> &self) {
  self_ = self;
  deadline_ = Clock::now() + options_.connect_timeout;
  step_by_step_ = owner_.goes_step_by_step(server_);
  std::vector<Endpoint> all{server_};
  all.insert(all.end(), options_.other_endpoints.begin(), options_.other_endpoints.end());
  resolve(std::move(all));
  arm_timer();
}

void Session::resolve(std::vector<Endpoint> where) {
  state_ = State::resolving;
  lookups_.clear();
  dialled_ = std::move(where);
  lookups_left_ = dialled_.size();
  for (size_t host = 0; host < dialled_.size(); ++host) {
    lookups_.push_back(std::make_unique<Lookup>(queue_, dialled_[host].host, dialled_[host].port,
                                                [weak = self_, gate = gate_, host](AddressList addresses, int error) {
                                                  const LoopGate::Pass pass(gate);
                                                  const std::shared_ptr<Session> session = pass ? weak.lock() : nullptr;
                                                  if (session == nullptr) return;
                                                  session->run([&] { session->on_resolved(host, addresses, error); });
                                                }));
  }
}

// The first name that is known begins; the others join in.
void Session::on_resolved(size_t host, const AddressList &addresses, int error) {
  const bool more = --lookups_left_ > 0;
  const std::string failure = error != 0 ? "cannot resolve " + dialled_[host].host + ": " + gai_strerror(error) : std::string();
  if (error != 0 && dialled_.size() == 1) return end(WB_ERR_SOCKET_CONNECT, failure);
  state_ = State::connecting;
  if (connector_ == nullptr) {
    connector_ = std::make_shared<Connector>(queue_.base(), gate_, options_.race_gap, deadline_,
                                             [this](const Connector::Outcome &outcome) { run([&] { on_connected(outcome); }); });
  }
  if (error != 0) return connector_->add_failure(failure, more);
  connector_->add(host, addresses, more);
}

void Session::on_connected(const Connector::Outcome &outcome) {
  const int fd = outcome.fd;
  const std::string &text = outcome.text;
  lookups_.clear();
  gate_->bury(std::move(connector_));
  if (fd < 0) {
    const std::string host = host_text() + ": ";
    const bool is_named = text.compare(0, host.size(), host) == 0;  // a host in numbers is the address that failed
    return end(WB_ERR_SOCKET_CONNECT, "cannot connect to " + (is_named ? "" : host) + text);
  }
  if (dialled_.size() > 1) {
    host_ = outcome.host;
    server_ = dialled_[host_];
    names_.host = server_.host;
    step_by_step_ = owner_.goes_step_by_step(server_);
  }
  wb_log(WB_LOG_VERBOSE, "connected to %s", text.c_str());
  link_ = Link::take_over(fd);
  address_ = text;
  tune_socket(fd, static_cast<unsigned>(options_.idle_probe.count()));
  readable_ = std::make_shared<LoopEvent>(queue_.base(), fd, EV_READ | EV_PERSIST, gate_,
                                          [this](short) { run([this] { on_readable(); }); });
  writable_ = std::make_shared<LoopEvent>(queue_.base(), fd, EV_WRITE, gate_, [this](short) { run([this] { pump(); }); });
  readable_->add();
  begin_opening();
}

void Session::on_readable() {
  link_->look_again();
  heard_ = Clock::now();
  probed_ = false;
  if (state_ == State::leaving) return ignore_input();
  if (state_ == State::tls_accept) return readable_->remove();  // nothing is read before the application has answered
  if (state_ == State::tls) return on_handshake();
  read_stream();
}

void Session::read_stream() {
  more_to_read_ = false;
  {
    const Attendance attendance(owner_);
    read_pieces();
    // Servers hold a second small packet back until the first is acknowledged, and not everything that arrives is answered.
    if (link_ != nullptr) link_->acknowledge_quickly();
  }
  if (state_ == State::established) pump();
}

void Session::read_pieces() {
  for (unsigned reads = 0; reads < kReadsPerPass; ++reads) {
    if (link_ == nullptr) return;
    char *room = parser_.buffer(kReadBytes);
    if (room == nullptr) return end(WB_ERR_NO_MEMORY, "no memory to read into");
    size_t got = 0;
    const State before = state_;
    switch (link_->read(room, kReadBytes, got)) {
      case Link::Io::again:
        return;
      case Link::Io::closed:
        if (state_ == State::closing) return on_stream_close();
        return on_lost(WB_ERR_PROTOCOL, "the server closed the connection");
      case Link::Io::failed:
        // TLS's alert is an answer: the server refuses our certificate, and would do so again.
        if (link_->tls_failed()) return end(WB_ERR_TLS, "the connection failed: " + link_->reason());
        return on_lost(WB_ERR_SOCKET_CONNECT, "the connection failed: " + link_->reason());
      case Link::Io::done:
        break;
    }
    traffic_.count_received_bytes(got);
    const StreamError error = parser_.parse(got);
    if (has_ended() || state_ == State::leaving) return;
    if (error != StreamError::none) return on_parse_error(error);
    if (state_ != before && (link_ == nullptr || state_ == State::tls || state_ == State::tls_accept)) return;
    // The server goes to work on these while the next piece is read.
    if (state_ == State::established) pump();
  }
  // More may wait in the link where the socket cannot tell.
  more_to_read_ = true;
  more_.add_for_next_pass();
}

void Session::on_more() {
  const bool reads = std::exchange(more_to_read_, false);
  if (std::exchange(more_to_write_, false)) pump();
  if (reads && link_ != nullptr && state_ != State::leaving) read_stream();
}

void Session::on_parse_error(StreamError error) {
  const char *condition = condition_of(error);
  std::string last_words = "<stream:error><";
  last_words.append(condition).append(" xmlns='").append(ns::kStreamErrors).append("'/></stream:error></stream:stream>");
  std::string reason = "the server sent what is refused (";
  reason.append(condition).append("): ").append(parser_.error_text());
  leave(last_words, error == StreamError::no_memory ? WB_ERR_NO_MEMORY : WB_ERR_PROTOCOL, reason);
}

// A socket that is closed while something waits to be read is reset by the system, and what the server has not taken is lost.
void Session::ignore_input() {
  const Link::Io ignored = link_->ignore_input(kReadsPerPass);
  if (ignored == Link::Io::again) return;
  if (ignored == Link::Io::failed || farewell_said_) return tell_end(leaving_code_, leaving_error_);
  input_over_ = true;
  readable_->remove();
}

// A connection that breaks off.
void Session::on_lost(wb_errcode code, const std::string &reason) {
  if (!retry_step_by_step(reason)) end(code, reason);
}

void Session::write(std::string_view bytes) {
  if (link_ == nullptr || has_ended() || bytes.empty()) return;
  spoken_ = Clock::now();
  if (sent_ != sending_.size()) {
    sending_.append(bytes);  // part of a stanza may have gone to the link already
  } else if (link_->write(bytes) == Link::Io::done) {
    traffic_.count_sent_bytes(bytes.size());
  } else {
    end(WB_ERR_TLS, "cannot encrypt: " + link_->reason());
  }
}

void Session::write_element(std::string_view element) {
  show_sent(element);
  write(element);
}

void Session::show_sent(std::string_view element) {
  if (traffic_.is_traced() && !element.empty()) traffic_.show(WB_TRACE_SENT, element);
}

void Session::write_waiting() {
  run([this] { pump(); });
}

Session::Written Session::write_share() {
  for (unsigned pieces = 0;; ++pieces) {
    switch (link_->flush()) {
      case Link::Io::done:
        break;
      case Link::Io::again:
        owner_.set_backlog(sending_.size() - sent_ + link_->waiting());
        return Written::blocked;
      default:
        return Written::failed;
    }
    if (sent_ == sending_.size()) {
      sending_.clear();
      sent_ = 0;
      if (state_ == State::established) owner_.take_outgoing(sending_);
      if (sending_.empty()) {
        owner_.set_backlog(0);
        return Written::all;
      }
    }
    if (pieces == kWritesPerPass) {
      owner_.set_backlog(sending_.size() - sent_);
      return Written::share;
    }
    const std::string_view piece = std::string_view(sending_).substr(sent_, kWriteBytes);
    if (link_->write_through(piece) != Link::Io::done) return Written::refused;
    sent_ += piece.size();
    traffic_.count_sent_bytes(piece.size());
    spoken_ = Clock::now();
  }
}

void Session::pump() {
  if (link_ == nullptr) return;
  switch (write_share()) {
    case Written::all:
      return on_all_written();
    case Written::blocked:
      return writable_->add();
    case Written::share:
      more_to_write_ = true;
      return more_.add_for_next_pass();
    case Written::failed:
      // What the server said last may tell why, and is still there to be read.
      if (is_negotiating()) return;
      return end(WB_ERR_SOCKET_CONNECT, "the connection failed: " + link_->reason());
    case Written::refused:
      return end(WB_ERR_TLS, "cannot encrypt: " + link_->reason());
  }
}

void Session::write_off_loop() {
  // What is not all written is waited for, and what the owner has comes behind it.
  if (state_ != State::established || !is_all_written() || traffic_.is_traced()) return;
  const bool went_smoothly = guarded(nullptr, __func__, [this] { return write_share() == Written::all; });
  if (went_smoothly) return;
  more_to_write_ = true;
  more_.activate();
}

// What the owner has goes behind what is being written.
void Session::take_last() {
  std::string rest;
  owner_.take_outgoing(rest);
  if (sent_ != sending_.size()) {
    sending_.append(rest);
  } else {
    sending_ = std::move(rest);
    sent_ = 0;
  }
}

void Session::on_all_written() {
  if (state_ == State::leaving) return say_farewell();
  if (state_ != State::closing || tag_written_) return;
  tag_written_ = true;
  deadline_ = Clock::now() + kClosingTime;
  arm_timer();
}

// The server has all that was said when nothing is on its way any more, and at the latest when it closes its side too.
void Session::say_farewell() {
  if (farewell_said_) return;
  const bool is_heard = input_over_ || link_->is_all_acknowledged();
  link_->finish();
  farewell_said_ = true;
  if (is_heard) tell_end(leaving_code_, leaving_error_);
}

void Session::on_stream_open(wb_dom_node *head) {
  run([&] {
    if (!is_in_streams(head, "stream")) protocol_error("the server did not open an XMPP stream");
  });
}

void Session::on_stream_close() {
  run([this] {
    constexpr const char *kReason = "the server closed the stream";
    if (state_ != State::closing) {
      if (!retry_step_by_step(kReason)) leave("</stream:stream>", WB_ERR_PROTOCOL, kReason);
    } else if (is_all_written() && link_->is_all_acknowledged()) {
      end(WB_ERR_NONE, kReason);
    } else {
      leave("", WB_ERR_NONE, kReason);
    }
  });
}

void Session::on_stanza(wb_dom_node *stanza) {
  run([&] {
    if (traffic_.is_traced()) traffic_.show_received(stanza);
    if (wb_log_get_level() >= WB_LOG_TRACE) wb_log_dom(WB_LOG_TRACE, stanza, "received");
    if (is_in_streams(stanza, "error")) return on_stream_error(stanza);
    if (is_negotiating()) return on_negotiation(stanza);
    owner_.on_session_stanza(stanza);
    // What the application says to it need not wait until the parser has tidied up.
    if (state_ == State::established && parser_.is_last_stanza()) pump();
  });
}

// The application may answer within its hook or from a pass of its own making.
void Session::on_tls_answer(bool accept) {
  const LoopGate::Pass pass(gate_);
  if (pass) run([&] { go_on_after_accept(accept); });
}

// ---- The end

void Session::close(wb_errcode reason) {
  run([&] { close_stream(reason); });
}

void Session::close_stream(wb_errcode reason) {
  if (state_ == State::closing || state_ == State::leaving) return;
  if (state_ != State::established) return end(reason, "disconnected while connecting");
  wb_log(WB_LOG_VERBOSE, "closing the stream: %s", wb_err_message(reason));
  // Whatever was sent so far still goes before the closing tag.
  owner_.on_session_leaving();
  take_last();
  write("</stream:stream>");
  if (has_ended()) return;
  state_ = State::closing;
  deadline_ = Clock::now() + kWritingTime;
  arm_timer();
  pump();
}

void Session::leave(std::string_view last_words, wb_errcode code, const std::string &reason, wb_dom_node *error) {
  if (has_ended()) return;
  log_end(code, reason);
  if (wb_dom_context_retain(wb_dom_get_context(error), nullptr)) {
    leaving_context_.reset(wb_dom_get_context(error));
    leaving_error_ = error;
  }
  leaving_code_ = code;
  if (state_ == State::closing) last_words = {};  // our closing tag was the last
  state_ = State::leaving;
  parser_.stop();
  owner_.on_session_leaving();
  take_last();
  show_sent(last_words.substr(0, last_words.find("</stream:stream>")));
  write(last_words);
  if (has_ended()) return;
  deadline_ = Clock::now() + kLeavingTime;
  arm_timer();
  pump();
}

void Session::abandon() {
  state_ = State::ended;
  parser_.stop();
  timer_.remove();
  lookups_.clear();
  if (link_ != nullptr) {
    link_->say_goodbye();
    link_->flush();
  }
  gate_->bury(std::move(connector_));
  drop_link();
}

void Session::log_end(wb_errcode code, std::string_view reason) const {
  const wb_log_level level = code == WB_ERR_NONE                                   ? WB_LOG_VERBOSE
                             : code == WB_ERR_TLS || code == WB_ERR_NOT_AUTHORIZED ? WB_LOG_ERROR
                                                                                   : WB_LOG_WARN;
  wb_log(level, "session with %s ended while %s: %.*s", host_text().c_str(), state_name(), static_cast<int>(reason.size()),
         reason.data());
}

void Session::end(wb_errcode code, std::string_view reason, wb_dom_node *error) {
  if (has_ended()) return;
  if (state_ == State::leaving) return tell_end(leaving_code_, leaving_error_);
  log_end(code, reason);
  tell_end(code, error);
}

void Session::tell_end(wb_errcode code, wb_dom_node *error) {
  abandon();
  owner_.on_session_end(code, error);
}

void Session::drop_link() {
  // Out of the loop before the socket is closed; freed later, because their functions may be the callers.
  if (readable_ != nullptr) readable_->remove();
  if (writable_ != nullptr) writable_->remove();
  more_.remove();
  more_to_read_ = more_to_write_ = false;
  gate_->bury(std::move(readable_));
  gate_->bury(std::move(writable_));
  gate_->bury(std::move(link_));
  tls_.reset();
  tls_session_ = {};
  end_sasl();
  sending_.clear();
  sent_ = 0;
}

// A function of the mechanism may be the caller.
void Session::end_sasl() {
  if (sasl_ != nullptr) sasl_->end();
  gate_->bury(std::move(sasl_));
}

// ---- Time

void Session::arm_timer() {
  if (has_ended()) return;
  if (state_ == State::established) return timer_.add(until(idle_deadline()));
  timer_.add(until(ahead_ ? std::min(ahead_deadline_, deadline_) : deadline_));
}

void Session::on_timer() {
  if (state_ == State::established) return on_idle();
  const auto now = Clock::now();
  if (now < deadline_) {
    if (ahead_ && now >= ahead_deadline_ && retry_step_by_step("the server did not answer in time")) return;
    return arm_timer();
  }
  if (!is_negotiating())
    return end(WB_ERR_NONE,
               tag_written_ ? "the server did not close the stream in time" : "what waited could not be written in time");
  end(WB_ERR_TIMEOUT, "the time allowed for connecting ran out");
}

// When there is something to be done about silence, if nothing is said or heard before.
Session::Clock::time_point Session::idle_deadline() const {
  return std::min(spoken_ + Clock::duration(keepalive_) / 2, heard_ + (probed_ ? 2 : 1) * options_.idle_probe);
}

// Says something when nothing was said, asks when nothing was heard, gives up when nothing was answered.
void Session::on_idle() {
  const auto now = Clock::now();
  if (now - heard_ >= 2 * options_.idle_probe) return end(WB_ERR_TIMEOUT, "the server has vanished");
  if (now - heard_ >= options_.idle_probe && !probed_) {
    probed_ = true;
    std::string ping = "<iq type='get' id='probe'";
    append_attribute(ping, "to", options_.domain);
    write_element(ping.append("><ping xmlns='").append(ns::kPing).append("'/></iq>"));
    traffic_.count_sent_stanzas(1);
  } else if (now - spoken_ >= Clock::duration(keepalive_) / 2) {
    write(" ");
  }
  arm_timer();
  pump();
  if (link_ != nullptr) link_->give_buffers_back();
}

const char *Session::state_name() const {
  static constexpr const char *kNames[] = {"resolving",
                                           "connecting",
                                           "opening",
                                           "in the TLS handshake",
                                           "asking whether to accept TLS",
                                           "authenticating",
                                           "binding",
                                           "established",
                                           "closing",
                                           "leaving",
                                           "ended"};
  return kNames[static_cast<size_t>(state_)];
}

}  // namespace wb

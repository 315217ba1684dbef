// The order of a session, of which each step is a Stage:
//   head, features, starttls -> proceed, TLS, head with mechanisms, auth -> success, head with bind, bind -> result, stanzas.
// A client may send a request together with the head before it: bytes are read as a stream, and a step takes what is there.
#include "peer_connection.h"

#include <algorithm>
#include <stdexcept>

#include "grid_answers.h"

namespace testpeer {

namespace {

constexpr char kTls[] = "urn:ietf:params:xml:ns:xmpp-tls";
constexpr char kSasl[] = "urn:ietf:params:xml:ns:xmpp-sasl";
constexpr char kBind[] = "urn:ietf:params:xml:ns:xmpp-bind";
constexpr char kStreamErrors[] = "urn:ietf:params:xml:ns:xmpp-streams";
constexpr char kStanzaErrors[] = "urn:ietf:params:xml:ns:xmpp-stanzas";
constexpr char kClient[] = "jabber:client";
constexpr char kClosingTag[] = "</stream:stream>";

std::string empty_element(const std::string &local, const char *ns) { return "<" + local + " xmlns='" + ns + "'/>"; }

std::string features(const std::string &content) { return "<stream:features>" + content + "</stream:features>"; }

std::string mechanisms(const Options &options) {
  std::string names;
  for (const std::string &mechanism : options.mechanisms) names.append("<mechanism>").append(mechanism).append("</mechanism>");
  return std::string("<mechanisms xmlns='") + kSasl + "'>" + names + "</mechanisms>";
}

std::string sasl_failure(const std::string &condition, const std::string &text = {}) {
  const std::string explained = text.empty() ? "" : "<text xml:lang='en'>" + escape(text) + "</text>";
  return std::string("<failure xmlns='") + kSasl + "'><" + condition + "/>" + explained + "</failure>";
}

std::string stanza_error(const std::string &condition) {
  return "<error type='cancel'>" + empty_element(condition, kStanzaErrors) + "</error>";
}

std::string bare(const std::string &jid) { return jid.substr(0, jid.find('/')); }

bool is_request(const Stanza &stanza) {
  return stanza.is("iq", kClient) && (stanza.attribute("type") == "get" || stanza.attribute("type") == "set");
}

}  // namespace

std::vector<std::shared_ptr<ServedConnection>> PeerState::live() {
  std::vector<std::shared_ptr<ServedConnection>> all;
  {
    const std::lock_guard lock(mutex);
    all = connections;
  }
  std::erase_if(all, [](const auto &one) { return !one->is_live(); });
  return all;
}

ServedConnection::ServedConnection(std::shared_ptr<PeerState> state, int descriptor, size_t number)
    : PeerLink(descriptor, state->options.write_deadline, [this](size_t, bool is_new_flight) { on_segment(is_new_flight); }),
      state_(std::move(state)),
      number_(number) {}

// ---- What tests and callbacks ask for

std::string ServedConnection::jid() const {
  const std::lock_guard lock(state_->mutex);
  return transcript_.jid;
}

bool ServedConnection::is_live() const {
  const std::lock_guard lock(state_->mutex);
  return transcript_.is_established && !transcript_.is_ended;
}

bool ServedConnection::has_ended() const {
  const std::lock_guard lock(state_->mutex);
  return transcript_.is_ended;
}

Transcript ServedConnection::transcript() const {
  const std::lock_guard lock(state_->mutex);
  return transcript_;
}

bool ServedConnection::wait_until(const std::function<bool(const Transcript &)> &predicate, Milliseconds deadline) const {
  std::unique_lock lock(state_->mutex);
  return state_->changed.wait_for(lock, deadline, [&] { return predicate(transcript_); });
}

bool ServedConnection::send(std::string_view bytes) {
  const size_t first = std::min(options().cut_at, bytes.size());
  return socket_.write(bytes.substr(0, first), options().chunk_size) && socket_.write(bytes.substr(first), options().chunk_size);
}

void ServedConnection::send_later(Milliseconds time, std::string bytes) {
  {
    const std::lock_guard lock(later_mutex_);
    later_.emplace(Clock::now() + time, std::move(bytes));
  }
  socket_.nudge();
}

void ServedConnection::send_at(Milliseconds time, std::string bytes) {
  if (time == Milliseconds::zero()) {
    send(bytes);
  } else {
    send_later(time, std::move(bytes));
  }
}

std::string ServedConnection::text_of(const Stanza &request, const Reply &reply) const {
  const std::string from = reply.from.value_or(request.attribute("to"));
  std::string iq = std::string("<iq type='") + (reply.error.empty() ? "result" : "error") + "' id='" +
                   escape(reply.id.value_or(request.attribute("id"))) + "' to='" + escape(jid()) + "'";
  if (!from.empty()) iq.append(" from='").append(escape(from)).append("'");
  iq += ">" + reply.payload + (reply.error.empty() ? "" : stanza_error(reply.error)) + "</iq>";
  std::string copies;
  for (unsigned copy = 0; copy < reply.copies; ++copy) copies += iq;
  return copies;
}

void ServedConnection::reply(const Stanza &request, const Reply &reply) { send_at(reply.after, text_of(request, reply)); }

void ServedConnection::stream_error(const std::string &condition, const std::string &text) {
  const bool is_host = condition == "see-other-host";
  std::string error = has_sent_head_.exchange(true) ? "" : head();
  error +=
      "<stream:error><" + condition + " xmlns='" + kStreamErrors + "'>" + (is_host ? escape(text) : "") + "</" + condition + ">";
  if (!is_host && !text.empty()) error += std::string("<text xmlns='") + kStreamErrors + "'>" + escape(text) + "</text>";
  send(error + "</stream:error>" + kClosingTag);
  has_closed_stream_ = true;
  close();
}

void ServedConnection::close_stream() {
  if (!has_closed_stream_.exchange(true)) send(kClosingTag);
}

// ---- The session

void ServedConnection::run() {
  try {
    negotiate();
    serve();
  } catch (const Ended &) {
  } catch (const std::exception &error) {
    note([&](Transcript &transcript) { transcript.violations.emplace_back(error.what()); });
  }
  finish();
}

void ServedConnection::finish() {
  socket_.close();
  {
    const std::lock_guard lock(state_->mutex);
    ++state_->ended;
  }
  note([](Transcript &transcript) { transcript.is_ended = true; });
}

void ServedConnection::negotiate() {
  try {
    secure();
    authenticate();
    bind();
  } catch (const Silenced &) {
    listen();
  }
}

void ServedConnection::secure() {
  respond(Stage::accept, "");
  enter(Stage::stream_open);
  read_head();
  respond(Stage::stream_open, head());
  std::string offers;
  if (options().offers_starttls) offers += std::string("<starttls xmlns='") + kTls + "'><required/></starttls>";
  if (options().offers_mechanisms_before_tls) offers += mechanisms(options());
  respond(Stage::features, features(offers));
  enter(Stage::starttls);
  expect("starttls", kTls);
  if (reader_->has_rest()) {
    note([](Transcript &transcript) { transcript.violations.emplace_back("something between starttls and proceed"); });
  }
  if (!options().offers_starttls || options().refuses_starttls) {
    respond(Stage::starttls, empty_element("failure", kTls) + kClosingTag);
    end_with(Ending::close);
    leave();
  }
  respond(Stage::starttls, empty_element("proceed", kTls) + options().after_proceed);
  enter(Stage::tls_handshake);
  const auto deadline = Clock::now() + options().negotiation_deadline;
  if (socket_.wait_readable(deadline) != PeerSocket::Status::done) throw Ended();
  if (!meet_fault(Stage::tls_handshake, "")) throw Silenced();
  const PeerSocket::Status status = socket_.start_tls(state_->tls.get(), deadline);
  note([this](Transcript &transcript) {
    transcript.tls = socket_.tls_facts();
    transcript.tls_error = socket_.tls_error();
  });
  if (status == PeerSocket::Status::done) return;
  end_with(Ending::truncate);
  leave();
}

void ServedConnection::authenticate() {
  reader_ = std::make_unique<StreamReader>();  // what came in plain counts for nothing now
  has_sent_head_ = false;
  enter(Stage::stream_open_tls);
  read_head();
  respond(Stage::stream_open_tls, head() + features(mechanisms(options())));
  do {
    enter(Stage::sasl);
  } while (!decide_authentication(expect("auth", kSasl)));
}

// Whether the outcome is success. Without it the client may try again.
bool ServedConnection::decide_authentication(const Element &auth) {
  const std::string mechanism = auth.attribute("mechanism");
  const std::optional<std::string> response = auth.text.empty() ? std::nullopt : base64_decode(auth.text);
  note([&](Transcript &transcript) {
    transcript.sasl_mechanism = mechanism;
    transcript.sasl_response = response;
  });
  identity_ = response.value_or("");
  std::string failure = options().sasl_failure;
  if (std::find(options().mechanisms.begin(), options().mechanisms.end(), mechanism) == options().mechanisms.end()) {
    failure = "invalid-mechanism";
  } else if (!auth.text.empty() && !response) {
    failure = "incorrect-encoding";
  } else if (options().sasl_challenge) {
    send(std::string("<challenge xmlns='") + kSasl + "'>" + base64_encode(*options().sasl_challenge) + "</challenge>");
    const std::optional<Element> answer = next_element();
    if (!answer) leave();
    if (answer->is("abort", kSasl)) {
      failure = "aborted";
    } else if (answer->is("response", kSasl)) {
      note(
          [&](Transcript &transcript) { transcript.sasl_answers.push_back(base64_decode(answer->text).value_or(answer->text)); });
    } else {
      refuse("unsupported-stanza-type", "not an answer to a challenge: " + answer->local);
    }
  }
  if (!failure.empty()) {
    respond(Stage::sasl, sasl_failure(failure, options().sasl_failure_text));
    return false;
  }
  const std::string data = options().sasl_success_data ? base64_encode(*options().sasl_success_data) : "";
  respond(Stage::sasl, std::string("<success xmlns='") + kSasl + "'>" + data + "</success>");
  return true;
}

void ServedConnection::bind() {
  auto fresh = std::make_unique<StreamReader>();
  fresh->feed(reader_->take_rest());
  reader_ = std::move(fresh);
  has_sent_head_ = false;
  enter(Stage::stream_open_sasl);
  read_head();
  std::string offers = options().offers_bind ? empty_element("bind", kBind) : "";
  if (options().max_bytes) {
    offers +=
        "<limits xmlns='urn:xmpp:stream-limits:0'><max-bytes>" + std::to_string(*options().max_bytes) + "</max-bytes></limits>";
  }
  respond(Stage::stream_open_sasl, head() + features(offers));
  for (;;) {
    enter(Stage::bind);
    const Element iq = expect("iq", kClient);
    const Element *request = iq.child("bind", kBind);
    if (request == nullptr || iq.attribute("type") != "set") refuse("not-authorized", "a stanza before binding: " + iq.xml());
    const std::string id = escape(iq.attribute("id"));
    if (!options().bind_error.empty()) {
      respond(Stage::bind, "<iq type='error' id='" + id + "'>" + stanza_error(options().bind_error) + "</iq>");
      continue;
    }
    const Element *resource = request->child("resource", kBind);
    std::string account = identity_.find('@') != std::string::npos ? bare(identity_) : identity_ + "@" + options().domain;
    if (identity_.empty()) account = claimed_jid_.empty() ? "client@" + options().domain : bare(claimed_jid_);
    std::string jid = options().bound_jid;
    if (jid.empty()) jid = account + "/" + (resource != nullptr ? resource->text : "resource" + std::to_string(number_));
    const std::string answer =
        "<iq type='result' id='" + id + "'><bind xmlns='" + kBind + "'><jid>" + escape(jid) + "</jid></bind></iq>";
    const bool is_answer_due = meet_fault(Stage::bind, answer);
    {
      const std::lock_guard lock(state_->mutex);
      ++state_->established;
      stage_ = Stage::established;
    }
    note([&](Transcript &transcript) {
      transcript.jid = jid;
      transcript.is_established = true;
    });
    if (is_answer_due) send(answer);
    return;
  }
}

void ServedConnection::serve() {
  is_session_ = true;
  try {
    respond(Stage::established, "");
  } catch (const Silenced &) {
    is_silent_ = true;
  }
  while (const std::optional<Element> stanza = next_element()) {
    {
      const std::lock_guard lock(state_->mutex);
      state_->stanzas.push_back(*stanza);
      state_->changed.notify_all();
    }
    if (!is_silent_) serve_stanza(*stanza);
  }
  leave();
}

void ServedConnection::serve_stanza(const Stanza &stanza) {
  if (options().on_stanza && options().on_stanza(*this, stanza)) return;
  std::optional<Reply> reply = server_reply(stanza);
  if (!reply) reply = grid_reply(options(), stanza);
  const std::string answer = reply ? text_of(stanza, *reply) : "";
  try {
    if (meet_request_fault(stanza, answer) && reply) send_at(reply->after, answer);
  } catch (const Silenced &) {
    is_silent_ = true;
  }
}

// How the server itself answers; nothing when it is not asked.
std::optional<Reply> ServedConnection::server_reply(const Stanza &stanza) const {
  const std::string to = stanza.attribute("to");
  const bool is_asked = is_request(stanza) && (to.empty() || to == options().domain || to == bare(jid()));
  if (!options().answers_server_requests || !is_asked) return std::nullopt;
  const bool is_ping = stanza.attribute("type") == "get" && stanza.child("ping", "urn:xmpp:ping") != nullptr;
  return is_ping ? Reply{} : Reply{.error = "service-unavailable"};
}

// ---- Answers and faults

void ServedConnection::enter(Stage stage) {
  const std::lock_guard lock(state_->mutex);
  stage_ = stage;
}

void ServedConnection::respond(Stage stage, const std::string &answer) {
  enter(stage);
  if (meet_fault(stage, answer) && !answer.empty()) send(answer);
  if (stage == Stage::stream_open || stage == Stage::stream_open_tls || stage == Stage::stream_open_sasl) has_sent_head_ = true;
}

// Whether the normal answer is still to be given.
bool ServedConnection::meet_fault(Stage stage, const std::string &answer) {
  const auto found = options().faults.find(stage);
  return found == options().faults.end() || meet(state_->faults_met, name_of(stage), found->second, answer, values(""));
}

bool ServedConnection::meet_request_fault(const Stanza &stanza, const std::string &answer) {
  const Element *request = grid_request(stanza);
  const auto found = options().request_faults.find(request != nullptr ? request->local : stanza.local);
  if (found == options().request_faults.end()) return true;
  return meet(state_->faults_met, "request " + found->first, found->second, answer, values(stanza.attribute("id")));
}

PeerLink::Values ServedConnection::values(const std::string &id) const {
  return {{"{host}", state_->host}, {"{jid}", escape(jid())}, {"{id}", escape(id)}};
}

std::string ServedConnection::head() const {
  return options().prolog + "<stream:stream xmlns='" + escape(options().content_ns) + "' xmlns:stream='" +
         escape(options().stream_ns) + "' id='s" + std::to_string(number_) + "' version='1.0' xml:lang='en' from='" +
         escape(options().domain) + "'>";
}

// The client did what no client may do.
void ServedConnection::refuse(const std::string &condition, const std::string &violation) {
  note([&](Transcript &transcript) { transcript.violations.push_back(violation); });
  stream_error(condition, "");
  leave();
}

// ---- What the client says

void ServedConnection::read_head() {
  const StreamReader::Item item = next_item();
  if (item.kind != StreamReader::Item::Kind::head) refuse("bad-format", "an empty stream");
  if (!item.element.is("stream", "http://etherx.jabber.org/streams")) refuse("invalid-namespace", "no stream head");
  if (item.element.attribute("to") != options().domain) {
    note([&](Transcript &transcript) { transcript.violations.push_back("a head to " + item.element.attribute("to")); });
  }
  claimed_jid_ = item.element.attribute("from");
}

// The next element of the negotiation, which must be this one.
Element ServedConnection::expect(std::string_view local, std::string_view ns) {
  std::optional<Element> element = next_element();
  if (!element) leave();
  if (element->is(local, ns)) return std::move(*element);
  if (element->is("auth", kSasl)) {
    note([](Transcript &transcript) { transcript.violations.emplace_back("SASL in plain"); });
    send(sasl_failure("encryption-required") + kClosingTag);
    end_with(Ending::close);
    leave();
  }
  refuse("not-authorized", "instead of " + std::string(local) + ": " + element->xml());
}

// The next child of the stream; nothing when the client has closed it and was answered.
std::optional<Element> ServedConnection::next_element() {
  StreamReader::Item item = next_item();
  if (item.kind == StreamReader::Item::Kind::stanza) return std::move(item.element);
  note([](Transcript &transcript) { transcript.is_closed_by_client = true; });
  if (is_silent_ || !options().answers_close) listen();
  close_stream();
  close();
  return std::nullopt;
}

StreamReader::Item ServedConnection::next_item() {
  for (;;) {
    std::optional<StreamReader::Item> item;
    std::string violation;
    try {
      item = reader_->next();
    } catch (const std::runtime_error &error) {
      violation = error.what();
    }
    if (!violation.empty()) refuse("not-well-formed", violation);
    if (item) return std::move(*item);
    read_more();
  }
}

void ServedConnection::read_more() {
  const auto patience = is_session_ || is_silent_ ? Clock::time_point::max() : Clock::now() + options().negotiation_deadline;
  for (;;) {
    if (is_ending()) leave();
    send_due();
    std::string bytes;
    const PeerSocket::Status status = socket_.read(bytes, std::min(patience, next_due()));
    if (status == PeerSocket::Status::ended || status == PeerSocket::Status::abandoned) throw Ended();
    if (status == PeerSocket::Status::timeout && Clock::now() >= patience) refuse("connection-timeout", "it said nothing");
    if (status != PeerSocket::Status::done) continue;
    note([&](Transcript &transcript) {
      const size_t room = options().recorded_bytes_max - std::min(options().recorded_bytes_max, transcript.received.size());
      transcript.received.append(bytes, 0, room);
      transcript.stages[stage_].received.append(bytes, 0, room);
    });
    if (!is_listening_) reader_->feed(bytes);
    return;
  }
}

// Reads and records until the client goes.
void ServedConnection::listen() {
  is_silent_ = is_listening_ = true;
  for (;;) read_more();
}

void ServedConnection::send_due() {
  for (;;) {
    std::string bytes;
    {
      const std::lock_guard lock(later_mutex_);
      if (later_.empty() || later_.begin()->first > Clock::now()) return;
      bytes = std::move(later_.extract(later_.begin()).mapped());
    }
    send(bytes);
  }
}

Clock::time_point ServedConnection::next_due() {
  const std::lock_guard lock(later_mutex_);
  return later_.empty() ? Clock::time_point::max() : later_.begin()->first;
}

void ServedConnection::note(const std::function<void(Transcript &)> &change) {
  const std::lock_guard lock(state_->mutex);
  change(transcript_);
  state_->changed.notify_all();
}

void ServedConnection::on_segment(bool is_new_flight) {
  note([&](Transcript &transcript) {
    StageRecord &record = transcript.stages[stage_];
    ++record.segments;
    if (is_new_flight) ++record.flights;
  });
}

}  // namespace testpeer

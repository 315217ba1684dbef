#include "https_connection.h"

#include <numeric>
#include <stdexcept>

#include "http_message.h"

namespace testpeer {

HttpsConnection::HttpsConnection(std::shared_ptr<HttpsState> state, int descriptor)
    : PeerLink(descriptor, state->options.write_deadline, [](size_t, bool) {}), state_(std::move(state)) {}

template <typename Change>
void HttpsConnection::note(Change &&change) {
  const std::lock_guard lock(state_->mutex);
  change(*state_);
  state_->changed.notify_all();
}

void HttpsConnection::run() {
  try {
    serve();
  } catch (const Ended &) {
  } catch (const Silenced &) {
    stay_silent();
  } catch (const std::exception &error) {
    note([&](HttpsState &state) { state.errors.emplace_back(error.what()); });
  }
  finish();
}

void HttpsConnection::finish() {
  socket_.close();
  has_ended_ = true;
}

void HttpsConnection::serve() {
  secure();
  read_request();
  if (!state_->options.on_request || !state_->options.on_request(*this)) respond();
  if (!is_ending()) close();
  leave();
}

void HttpsConnection::secure() {
  meet_fault(HttpsStage::accept, "");
  if (socket_.wait_readable(Clock::time_point::max()) != PeerSocket::Status::done) throw Ended();
  if (!meet_fault(HttpsStage::tls_handshake, "")) throw Silenced();
  const PeerSocket::Status status = socket_.start_tls(state_->tls.get(), Clock::time_point::max());
  if (status == PeerSocket::Status::done) return;
  note([this](HttpsState &state) {
    state.errors.push_back(socket_.tls_error().empty() ? "the client left the handshake" : socket_.tls_error());
  });
  truncate();
  leave();
}

void HttpsConnection::read_more(std::string &bytes) {
  const PeerSocket::Status status = socket_.read(bytes, Clock::time_point::max());
  if (status == PeerSocket::Status::ended || status == PeerSocket::Status::abandoned) throw Ended();
}

void HttpsConnection::read_request() {
  constexpr std::string_view head_end = "\r\n\r\n";
  std::string bytes;
  size_t end = std::string::npos;
  while ((end = bytes.find(head_end)) == std::string::npos) read_more(bytes);
  end += head_end.size();
  request_ = parse_request_head(bytes.substr(0, end));
  request_.tls = socket_.tls_facts();
  bytes.erase(0, end);
  const size_t length = body_length(request_);
  if (bytes.size() < length && request_.header("Expect") == "100-continue") send("HTTP/1.1 100 Continue\r\n\r\n");
  while (bytes.size() < length) read_more(bytes);
  request_.body = bytes.substr(0, length);
  note([this](HttpsState &state) { state.requests.push_back(request_); });
}

// ---- Answers

void HttpsConnection::respond() {
  const HttpsOptions &options = state_->options;
  const auto found = options.answers.find(request_.path());
  const HttpAnswer &answer = found == options.answers.end() ? options.answer : found->second;
  const std::string head = head_of(answer);
  if (meet_fault(HttpsStage::head, head)) send(head);
  if (request_.method == "HEAD") return;
  const std::vector<std::string> pieces = encoded_pieces(answer);
  if (meet_fault(HttpsStage::body, std::accumulate(pieces.begin(), pieces.end(), std::string())))
    send_pieces(pieces, answer.pause);
}

// Whether the normal answer is still to be given.
bool HttpsConnection::meet_fault(HttpsStage stage, const std::string &answer) {
  const auto found = state_->options.faults.find(stage);
  if (found == state_->options.faults.end()) return true;
  return meet(state_->faults_met, name_of(stage), found->second, answer, {{"{host}", state_->host}});
}

bool HttpsConnection::send_pieces(const std::vector<std::string> &pieces, std::chrono::milliseconds time) {
  for (size_t i = 0; i < pieces.size(); ++i) {
    if (i > 0 && !pause(time)) return false;
    if (!send(pieces[i])) return false;
  }
  return true;
}

bool HttpsConnection::answer(const HttpAnswer &answer) {
  return begin(answer) && (request_.method == "HEAD" || send_pieces(encoded_pieces(answer), answer.pause));
}

bool HttpsConnection::begin(const HttpAnswer &answer) { return send(head_of(answer)); }

bool HttpsConnection::send(std::string_view bytes) { return socket_.write(bytes, state_->options.chunk_size); }

void HttpsConnection::stay_silent() {
  try {
    for (std::string ignored;; ignored.clear()) read_more(ignored);
  } catch (const Ended &) {
  }
}

// The client is to see it now, and not when on_request has returned.
void HttpsConnection::reset() {
  end_with(Ending::reset);
  socket_.close();
}

}  // namespace testpeer

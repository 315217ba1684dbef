// One connection of the scripted peer: the server's side of a session, and what the client did in it.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "peer_socket.h"
#include "script.h"
#include "stream_codec.h"

namespace testpeer {

// What came while the peer was waiting for the request whose answer is the stage's.
struct StageRecord {
  unsigned segments = 0;      // pieces that one read call of the socket returned
  unsigned flights = 0;       // those of them that came after the peer had spoken: the round trips
  std::string received = {};  // without TLS
};

// Everything that a client did on one connection so far.
struct Transcript {
  std::map<Stage, StageRecord> stages = {};
  std::string received = {};  // of all stages
  TlsFacts tls = {};
  std::string tls_error = {};                     // why the handshake failed
  std::string sasl_mechanism = {};                // of the last <auth/>
  std::optional<std::string> sasl_response = {};  // its initial response, decoded; nothing when it had none or no base64
  std::vector<std::string> sasl_answers = {};     // of <response/>, decoded
  std::string jid = {};                           // empty until it is bound
  std::vector<std::string> violations = {};  // what no correct client does: no XML, content in the wrong place, SASL in plain
  bool is_established = false;               // it had a session
  bool is_closed_by_client = false;          // the client sent the closing tag
  bool is_ended = false;

  unsigned flights() const;
  const StageRecord &at(Stage stage) const;
};

// What the connections of a peer share.
struct PeerState {
  explicit PeerState(Options script) : options(std::move(script)) {}

  const Options options;
  std::string host;   // set before the first connection
  SslContextPtr tls;  // likewise

  std::mutex mutex;
  std::condition_variable changed;  // whenever one of the following, or a transcript, has changed
  std::vector<std::shared_ptr<Connection>> connections;
  std::vector<Stanza> stanzas;
  std::map<Stage, unsigned> faults_met;
  size_t established = 0, ended = 0;
};

class Connection {
 public:
  Connection(std::shared_ptr<PeerState> state, int descriptor, size_t number);

  size_t number() const { return number_; }
  std::string jid() const { return transcript().jid; }
  Transcript transcript() const;
  const Options &options() const { return state_->options; }
  // The predicate holds for the transcript, now or before the deadline. It must not ask the peer itself.
  bool wait_until(const std::function<bool(const Transcript &)> &predicate, std::chrono::milliseconds deadline) const;

  // Any thread. False when it could not be sent.
  bool send(std::string_view bytes);
  void send_later(std::chrono::milliseconds time, std::string bytes);
  void reply(const Stanza &request, const Reply &reply);

  // Any thread, each the same as the fault of that name.
  void close() { end_with(Ending::close); }
  void truncate() { end_with(Ending::truncate); }
  void reset() { end_with(Ending::reset); }
  void half_close() { socket_.finish_writing(true); }
  void stop_reading() { socket_.set_reading(false); }
  void resume_reading() { socket_.set_reading(true); }
  void stream_error(const std::string &condition, const std::string &text = {});
  // Sends the closing tag and closes when the client has answered it.
  void close_stream();
  // For on_stanza: the connection waits, its reading with it. False when the peer ends meanwhile.
  bool pause(std::chrono::milliseconds time) { return socket_.pause(time); }

 private:
  friend class ScriptedPeer;
  enum class Ending { none, close, truncate, reset };
  struct Ended {};
  struct Silenced {};
  using Milliseconds = std::chrono::milliseconds;

  void run();
  void finish();
  void negotiate();
  void secure();
  void authenticate();
  bool decide_authentication(const Element &auth);
  void bind();
  void serve();
  void serve_stanza(const Stanza &stanza);
  bool answer_server_request(const Stanza &stanza);

  void enter(Stage stage);
  void respond(Stage stage, const std::string &answer);
  bool meet_fault(Stage stage);
  bool is_fault_due(Stage stage, const Fault &fault);
  bool act(const Fault::Action &action);
  void read_head();
  std::string head() const;
  Element expect(std::string_view local, std::string_view ns);
  std::optional<Element> next_element();
  StreamReader::Item next_item();
  void read_more();
  [[noreturn]] void listen();
  [[noreturn]] void refuse(const std::string &condition, const std::string &violation);
  [[noreturn]] void leave();
  void end_with(Ending ending);
  void send_due();
  Clock::time_point next_due();

  void note(const std::function<void(Transcript &)> &change);
  void on_segment(bool is_new_flight);

  const std::shared_ptr<PeerState> state_;
  const size_t number_;
  Transcript transcript_;  // under the state's mutex, with the stage
  Stage stage_ = Stage::accept;
  PeerSocket socket_;
  std::atomic<Ending> ending_ = Ending::none;
  std::atomic<bool> has_sent_head_ = false;
  std::atomic<bool> has_closed_stream_ = false;

  std::mutex later_mutex_;
  std::multimap<Clock::time_point, std::string> later_;

  // Of the connection's own thread.
  std::unique_ptr<StreamReader> reader_ = std::make_unique<StreamReader>();
  std::string claimed_jid_, identity_;
  bool is_session_ = false;    // stanzas are served
  bool is_silent_ = false;     // nothing is answered any more
  bool is_listening_ = false;  // nothing is even parsed
};

}  // namespace testpeer

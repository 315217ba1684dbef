// One connection of the scripted peer, as its own thread serves it.
#pragma once

#include <atomic>
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

#include <qlk/testpeer/connection.hpp>

#include "peer_link.h"
#include "stream_codec.h"

namespace testpeer {

class ServedConnection;

// What the connections of a peer share.
struct PeerState {
  explicit PeerState(Options script) : options(std::move(script)) {}

  // The sessions that are established. The transcripts of all connections are this state's, too.
  std::vector<std::shared_ptr<ServedConnection>> live();

  const Options options;
  std::string host;      // set before the first connection
  SslContextPtr tls;     // likewise
  FaultsMet faults_met;  // by the name of the stage, or of the request with "request " before it

  std::mutex mutex;
  std::condition_variable changed;  // whenever one of the following, or a transcript, has changed
  std::vector<std::shared_ptr<ServedConnection>> connections;
  std::vector<Stanza> stanzas;
  size_t established = 0, ended = 0;
};

class ServedConnection final : public Connection, public PeerLink {
 public:
  // Takes the descriptor over, unless it throws.
  ServedConnection(std::shared_ptr<PeerState> state, int descriptor, size_t number);

  void run() override;
  void finish() override;
  bool has_ended() const override;
  const Options &options() const { return state_->options; }
  // It has a session that has not ended.
  bool is_live() const;

  size_t number() const override { return number_; }
  std::string jid() const override;
  Transcript transcript() const override;
  bool wait_until(const std::function<bool(const Transcript &)> &predicate, Milliseconds deadline) const override;
  bool send(std::string_view bytes) override;
  void send_later(Milliseconds time, std::string bytes) override;
  void reply(const Stanza &request, const Reply &reply) override;
  void close() override { end_with(Ending::close); }
  void truncate() override { end_with(Ending::truncate); }
  void reset() override { end_with(Ending::reset); }
  void half_close() override { socket_.finish_writing(true); }
  void stop_reading() override { socket_.set_reading(false); }
  void resume_reading() override { socket_.set_reading(true); }
  void stream_error(const std::string &condition, const std::string &text) override;
  void close_stream() override;
  bool pause(Milliseconds time) override { return socket_.pause(time); }

 private:
  void negotiate();
  void secure();
  void authenticate();
  bool decide_authentication(const Element &auth);
  void bind();
  void serve();
  void serve_stanza(const Stanza &stanza);
  std::optional<Reply> server_reply(const Stanza &stanza) const;
  std::string text_of(const Stanza &request, const Reply &reply) const;
  void send_at(Milliseconds time, std::string bytes);

  void enter(Stage stage);
  void respond(Stage stage, const std::string &answer);
  bool meet_fault(Stage stage, const std::string &answer);
  bool meet_request_fault(const Stanza &stanza, const std::string &answer);
  Values values(const std::string &id) const;
  void read_head();
  std::string head() const;
  Element expect(std::string_view local, std::string_view ns);
  std::optional<Element> next_element();
  StreamReader::Item next_item();
  void read_more();
  [[noreturn]] void listen();
  [[noreturn]] void refuse(const std::string &condition, const std::string &violation);
  void send_due();
  Clock::time_point next_due();

  void note(const std::function<void(Transcript &)> &change);
  void on_segment(bool is_new_flight);

  const std::shared_ptr<PeerState> state_;
  const size_t number_;
  Transcript transcript_;  // under the state's mutex, with the stage
  Stage stage_ = Stage::accept;
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

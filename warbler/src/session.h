// One session with one server, from the name lookup to the closing tag. It lives on the loop.
//
//   resolving -> connecting -> opening -> tls -> [tls_accept] -> authenticating -> binding -> established -> closing -> ended
//
// opening, authenticating and binding each begin with a stream head. What does not depend on the server's features goes out
// together with the head, ahead of them: the wish for TLS, the authentication, the binding. That makes four round trips after
// TCP. When a server has not answered such a request but closes, reports a stream error or falls silent, it may have taken what
// came together for a mistake: it is asked once more, at the same address and one step at a time. If that works, the client
// remembers it for its next sessions with that server.
//
// When anything is still to be said at the end, a stream error or the closing tag, the session is leaving for a short time: it
// writes what waits, closes its side and throws away what the server still says until that closes its side too.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "client_options.h"
#include "connector.h"
#include "dom_node.h"
#include "link.h"
#include "sasl.h"
#include "stream_parser.h"
#include "traffic.h"
#include "workq.h"

namespace wb {

class Session final : public Buriable, private StreamParser::Handler, private TlsAsker {
 public:
  // What the session tells its client, within a pass. After on_session_end nothing more comes.
  class Owner {
   public:
    virtual void on_session_up(const std::string &jid, size_t stanza_bytes_max) = 0;
    // Nothing more can be sent.
    virtual void on_session_leaving() = 0;
    virtual void on_session_end(wb_errcode reason, wb_dom_node *error) = 0;
    virtual void on_session_stanza(wb_dom_node *stanza) = 0;
    // Bytes that wait to be written; empties them into the argument.
    virtual void take_outgoing(std::string &bytes) = 0;
    virtual void set_backlog(size_t bytes) = 0;
    // That of all sessions.
    virtual Traffic &traffic() = 0;
    // In between the session is going to look for outgoing bytes without being told.
    virtual void begin_attendance() = 0;
    virtual void no_attendance() = 0;
    // What the client knows about a server from sessions before.
    virtual bool goes_step_by_step(const Endpoint &server) const = 0;
    virtual void remember_step_by_step(const Endpoint &server) = 0;

   protected:
    ~Owner() = default;
  };

  Session(wb_workq &queue, std::shared_ptr<LoopGate> gate, ClientOptions options, Owner &owner);
  ~Session();
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;

  // All within a pass. self is the session's own owner pointer, for what comes back from other threads.
  void start(const std::shared_ptr<Session> &self);
  // Closes the stream in order; at once when it is not up.
  void close(wb_errcode reason);
  // Ends at once, telling the owner. Needs no memory.
  void end(wb_errcode code, std::string_view reason, wb_dom_node *error = nullptr);
  // Ends without a word.
  void abandon();
  // Writes what the owner has.
  void write_waiting();
  // The same on any thread, in a pass of its own. What does not go smoothly is left to the loop, and so the owner hears nothing.
  void write_off_loop();

  bool has_ended() const { return state_ == State::ended; }

 private:
  enum class State {
    resolving,
    connecting,
    opening,
    tls,
    tls_accept,
    authenticating,
    binding,
    established,
    closing,
    leaving,
    ended
  };
  using Clock = std::chrono::steady_clock;
  // What came of an attempt to write: all that there was, as much as the socket took, or as much as one pass may do; the socket
  // or TLS refused.
  enum class Written { all, blocked, share, failed, refused };

  void on_stream_open(wb_dom_node *head) override;
  void on_stanza(wb_dom_node *stanza) override;
  void on_stream_close() override;
  void on_tls_answer(bool accept) override;

  // The host that the session is about, as the configuration has it.
  const std::string &host_text() const { return host_texts_[host_]; }

  // session.cpp: the socket and the end
  void resolve(std::vector<Endpoint> where);
  void on_resolved(size_t host, const AddressList &addresses, int error);
  void on_connected(const Connector::Outcome &outcome);
  void on_readable();
  void read_stream();
  void read_pieces();
  void on_more();
  void on_parse_error(StreamError error);
  void ignore_input();
  void write(std::string_view bytes);
  void write_element(std::string_view element);
  void show_sent(std::string_view element);
  Written write_share();
  void pump();
  void take_last();
  void on_all_written();
  void say_farewell();
  bool is_all_written() const { return sent_ == sending_.size() && link_->waiting() == 0; }
  void on_lost(wb_errcode code, const std::string &reason);
  void drop_link();
  void end_sasl();
  void close_stream(wb_errcode reason);
  void leave(std::string_view last_words, wb_errcode code, const std::string &reason, wb_dom_node *error = nullptr);
  void log_end(wb_errcode code, std::string_view reason) const;
  void tell_end(wb_errcode code, wb_dom_node *error);
  void on_timer();
  void arm_timer();
  void on_idle();
  Clock::time_point idle_deadline() const;
  bool is_negotiating() const { return state_ < State::established; }
  // Runs a function that the loop calls; the session ends when memory runs out in it.
  template <typename Function>
  void run(Function &&function);
  void protocol_error(const char *what) { end(WB_ERR_PROTOCOL, what); }
  const char *state_name() const;

  // session_negotiation.cpp: what happens before the session is up
  void open_stream(std::string_view with);
  void begin_opening();
  void prepare_tls();
  void begin_tls();
  void on_handshake();
  void on_tls_up();
  void go_on_after_accept(bool accept);
  void begin_authenticating();
  bool is_offered(size_t mechanism) const;
  bool authenticate_with_offered(size_t from);
  bool make_auth(size_t mechanism, std::string &auth);
  void begin_binding();
  void on_negotiation(wb_dom_node *stanza);
  void on_opening(wb_dom_node *stanza);
  void on_authenticating(wb_dom_node *stanza);
  void on_binding(wb_dom_node *stanza);
  void on_mechanisms(wb_dom_node *features);
  void on_bind_features(wb_dom_node *features);
  void on_challenge(wb_dom_node *challenge);
  void on_success(wb_dom_node *success);
  void on_sasl_failure(wb_dom_node *failure);
  void on_bound(wb_dom_node *iq);
  void on_stream_error(wb_dom_node *error);
  bool redirect(const wb_dom_node *other);
  bool retry_step_by_step(std::string_view why);
  void dial_again(const Endpoint &where);

  wb_workq &queue_;
  const std::shared_ptr<LoopGate> gate_;
  const ClientOptions options_;
  Owner &owner_;
  Traffic &traffic_;
  std::weak_ptr<Session> self_;
  State state_ = State::resolving;
  ExpectedNames names_;
  std::vector<std::string> host_texts_;  // of all that are dialled, as configured, and never changed
  size_t host_ = 0;                      // which of them it is about
  Endpoint server_;                      // the configured one, or where it sent us
  std::string address_;                  // of the server that the socket leads to, in numbers
  unsigned redirects_ = 0;
  bool step_by_step_ = false;
  bool features_seen_ = false;        // of the stream that is open
  bool request_sent_ = false;         // what follows the features went out
  bool ahead_ = false;                // it did so before the features were there, and is not answered yet
  Clock::time_point ahead_deadline_;  // of the answer to it
  size_t stanza_bytes_max_ = 0;
  Clock::time_point deadline_;  // of connecting, then of closing
  Clock::time_point heard_, spoken_;
  std::chrono::seconds keepalive_;  // the server must not go without hearing from us for so long
  bool probed_ = false;
  bool tag_written_ = false;    // the closing tag, as far as the system's buffers
  bool input_over_ = false;     // the server has closed its side
  bool farewell_said_ = false;  // our side is closed
  wb_errcode leaving_code_ = WB_ERR_NONE;
  wb_dom_node *leaving_error_ = nullptr;
  ContextRef leaving_context_;  // of the error

  std::vector<Endpoint> dialled_;                 // all at once
  std::vector<std::unique_ptr<Lookup>> lookups_;  // of their names
  size_t lookups_left_ = 0;
  std::shared_ptr<Connector> connector_;
  std::shared_ptr<Link> link_;
  std::shared_ptr<LoopEvent> readable_, writable_;
  LoopEvent timer_;
  LoopEvent more_;  // goes on where a pass has done its share
  bool more_to_read_ = false, more_to_write_ = false;
  StreamParser parser_;
  std::shared_ptr<SaslExchange> sasl_;
  size_t mechanism_ = 0;              // the one in use, by its place in the factory
  std::vector<std::string> offered_;  // the server's mechanisms
  SslPtr tls_;                        // made, and not begun yet
  std::string tls_error_;             // why there is none
  wb_tls_session tls_session_{};
  std::string sending_;  // taken from the owner, not yet given to the link
  size_t sent_ = 0;
};

}  // namespace wb

// One session with one server, from the name lookup to the closing tag. It lives on the loop.
//
//   resolving -> connecting -> opening -> tls -> [tls_accept] -> authenticating -> binding -> established -> closing -> ended
//
// opening, authenticating and binding each begin with a stream head. What does not depend on the server's features goes out
// together with the head: the wish for TLS, the authentication, the binding. That makes four round trips after TCP. A server that
// answers this with a stream error is asked again on a fresh socket, one step at a time.
#pragma once

#include <memory>
#include <string>

#include "client_options.h"
#include "connector.h"
#include "link.h"
#include "sasl.h"
#include "stream_parser.h"
#include "workq.h"

namespace wb {

class Session final : private StreamParser::Handler, private TlsAsker {
 public:
  // What the session tells its client, within a pass. After on_session_end nothing more comes.
  class Owner {
   public:
    virtual void on_session_up(const std::string &jid, size_t stanza_bytes_max) = 0;
    virtual void on_session_end(wb_errcode reason, wb_dom_node *error) = 0;
    virtual void on_session_stanza(wb_dom_node *stanza) = 0;
    // Bytes that wait to be written; empties them into the argument.
    virtual void take_outgoing(std::string &bytes) = 0;
    virtual void set_backlog(size_t bytes) = 0;

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
  // Ends at once, telling the owner.
  void end(wb_errcode code, const std::string &reason, wb_dom_node *error = nullptr);
  // Ends without a word.
  void abandon();
  // Writes what waits.
  void pump();
  // Writes bytes of the session's own, with the next flush.
  void write(std::string_view bytes);

  bool has_ended() const { return state_ == State::ended; }
  const ClientOptions &options() const { return options_; }

 private:
  enum class State { resolving, connecting, opening, tls, tls_accept, authenticating, binding, established, closing, ended };
  using Clock = std::chrono::steady_clock;

  void on_stream_open(wb_dom_node *head) override;
  void on_stanza(wb_dom_node *stanza) override;
  void on_stream_close() override;
  void on_tls_answer(bool accept) noexcept override;

  // session.cpp: the socket and the end
  void resolve();
  void on_resolved(AddressList addresses, int error);
  void on_connected(int fd, const std::string &text);
  void on_readable();
  void read_stream();
  void on_parse_error(StreamError error);
  void drop_link();
  void on_timer();
  void arm_timer();
  void on_idle();
  // Runs a function that the loop calls; the session ends when memory runs out in it.
  template <typename Function>
  void run(Function &&function);
  void protocol_error(const char *what) { end(WB_ERR_PROTOCOL, what); }
  const char *state_name() const;

  // session_negotiation.cpp: what happens before the session is up
  void open_stream(std::string_view with);
  void begin_opening();
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
  void on_sasl_failure(wb_dom_node *failure);
  void on_bound(wb_dom_node *iq);
  void on_stream_error(wb_dom_node *error);
  bool redirect(wb_dom_node *error);
  bool retry_step_by_step(wb_dom_node *error);
  void dial_again();

  wb_workq &queue_;
  const std::shared_ptr<LoopGate> gate_;
  const ClientOptions options_;
  Owner &owner_;
  std::weak_ptr<Session> self_;
  State state_ = State::resolving;
  ExpectedNames names_;
  Endpoint endpoint_;  // where to dial: the configured one, or where the server sent us
  unsigned redirects_ = 0;
  bool step_by_step_ = false;
  bool features_seen_ = false;  // of the stream that is open
  bool request_sent_ = false;   // what follows the features went out with the head already
  size_t stanza_bytes_max_ = 0;
  Clock::time_point deadline_;  // of connecting, then of closing
  Clock::time_point heard_, spoken_;
  bool probed_ = false;

  std::unique_ptr<Lookup> lookup_;
  std::shared_ptr<Connector> connector_;
  std::unique_ptr<Link> link_;
  std::shared_ptr<LoopEvent> readable_, writable_;
  LoopEvent timer_;
  StreamParser parser_;
  std::unique_ptr<SaslExchange> sasl_;
  size_t mechanism_ = 0;              // the one in use, by its place in the factory
  std::vector<std::string> offered_;  // the server's mechanisms
  wb_tls_session tls_session_{};
  std::string sending_;  // taken from the owner, not yet given to the link
  size_t sent_ = 0;
};

}  // namespace wb

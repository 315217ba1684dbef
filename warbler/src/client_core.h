// The client behind wb_client: events, the session in force, and what any thread may do.
#pragma once

#include <warbler/client.h>

#include <array>
#include <deque>
#include <memory>

#include "channel.h"
#include "event.h"
#include "session.h"

namespace wb {

class ClientCore final : public Session::Owner, public Buriable, public std::enable_shared_from_this<ClientCore> {
 public:
  // handle is what events name as their source.
  ClientCore(wb_workq &queue, wb_client *handle);
  ~ClientCore();
  ClientCore(const ClientCore &) = delete;
  ClientCore &operator=(const ClientCore &) = delete;

  wb_event *event(const char *name);
  Channel &channel() { return channel_; }

  // Any thread; consumes one reference of the IQ's context. On a thread that is not the loop's the IQ leaves at once: whoever
  // asks waits for the answer, and the loop need not be woken twice.
  bool track(wb_dom_node *iq, TrackedIq tracked, std::chrono::seconds timeout, wb_err *err);
  // Of the calling thread, for all clients.
  static void leave_writing_to_loop(bool leaves);
  // Any thread.
  bool connect(wb_htable *config, wb_err *err);
  void destroy();
  // On the loop.
  void disconnect(wb_errcode reason);

  struct ReconnectState {
    wb_reconnect_status status;
    unsigned seconds;
  };

 private:
  enum EventIndex { kConnected, kDisconnected, kReconnect, kPresence, kMessage, kIq, kDestroyed, kEventCount };

  void on_session_up(const std::string &jid, size_t stanza_bytes_max) override;
  void on_session_leaving() override { channel_.refuse(); }
  void on_session_end(wb_errcode reason, wb_dom_node *error) override;
  void on_session_stanza(wb_dom_node *stanza) override;
  void take_outgoing(std::string &bytes) override;
  void set_backlog(size_t bytes) override { channel_.set_backlog(bytes); }
  Traffic &traffic() override { return channel_.traffic(); }
  void begin_attendance() override { channel_.begin_attendance(); }
  void no_attendance() override { channel_.no_attendance(); }
  bool goes_step_by_step(const Endpoint &server) const override;
  void remember_step_by_step(const Endpoint &server) override;

  void write_here();
  void start_session();
  void tell_end(wb_errcode reason, wb_dom_node *error);
  void call_back_unanswered();
  void on_iq(wb_dom_node *iq);
  void answer_iq(wb_dom_node *iq);
  void begin_countdown();
  void on_countdown();
  void cancel_countdown();
  void raise_reconnect(wb_reconnect_status status);
  void raise(EventIndex index, void *data) { events_[index].raise(handle_, data); }

  wb_workq &queue_;
  wb_client *const handle_;
  const std::shared_ptr<LoopGate> gate_ = std::make_shared<LoopGate>();
  std::array<wb_event, kEventCount> events_;
  Channel channel_;
  LoopEvent countdown_;
  bool counting_ = false;
  bool writes_here_ = false;  // a thread that is not the loop's writes, in a pass of its own
  bool wanted_ = false;       // the application has asked for a session and not for its end
  ClientOptions options_;     // of the last connect
  std::deque<Endpoint> step_by_step_servers_;
  std::shared_ptr<Session> session_;
};

}  // namespace wb

// The controller's session with the XMPP server. When it is lost, or cannot be had, it is tried again until stop.
#pragma once

#include <event2/event.h>
#include <warbler/warbler.h>

#include <functional>

#include "contained.h"
#include "options.h"
#include "xml.h"

namespace controller {

class Session {
 public:
  struct Handlers {
    std::function<void()> connected, disconnected;
    std::function<void(const wb_dom_node *)> presence, iq;
  };
  // Receives the answer to an IQ: a result or an error; NULL when none came.
  using Reply = std::function<void(const wb_dom_node *)>;

  // The options must outlive the session. Throws std::runtime_error.
  Session(event_base *base, const Options &options);
  ~Session();
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;

  void start(Handlers handlers);
  // Ends the session for good; done runs when the server has been told, or after a while.
  void stop(std::function<void()> done);
  // Drops the client: every reply that is awaited is called, and nothing is called afterwards.
  void close() { client_.reset(); }

  bool is_connected() const { return is_connected_; }
  // A stanza that cannot be sent is dropped, which the log tells.
  void send(Stanza stanza);
  // The reply is called exactly once, at once when the IQ cannot be sent.
  void track(Stanza iq, Reply reply, unsigned timeout_seconds = 10);

 private:
  static void on_connected(wb_event_data *event, void *self);
  static void on_disconnected(wb_event_data *event, void *self);
  static void on_presence(wb_event_data *event, void *self);
  static void on_iq(wb_event_data *event, void *self);
  static void on_reply(wb_dom_node *result, void *reply);
  static void on_timer(evutil_socket_t, short, void *self);
  static void prepare_tls(void *context, void *self);

  void put(const char *key, const void *value);
  void make_sasl_factory();
  void connect();
  void wait_before_next();
  void finish_stop();

  const Options &options_;
  const std::string bare_jid_ = options_.bare_jid(), jid_ = options_.jid();
  const wb_tls_connect_func tls_hook_ = prepare_tls;
  Handlers handlers_;
  std::function<void()> stopped_;
  bool is_connected_ = false, is_stopping_ = false;
  long retry_microseconds_;
  size_t host_ = 0;  // the one in use, or next
  // In the order in which they depend on one another.
  Owner<wb_htable, wb_htable_destroy> table_;
  Owner<event, event_free> timer_;
  Owner<wb_workq, wb_workq_destroy> queue_;
  Owner<wb_client, wb_client_destroy> client_;
};

}  // namespace controller

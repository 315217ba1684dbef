// What a connection holds beyond the fields that are laid down, for the modules that make it up.
#pragma once

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "async_queries.h"
#include "client_gate.h"
#include "event_loop.h"
#include "quillon_connection.h"
#include "statistics.h"

namespace qlk {

// The XMPP session, from the attempt to its end. One at a time: a connect ends what an earlier one left.
struct SessionState {
  unsigned number = 0;  // tells one session from the next
  bool open = false;    // from wb_client_connect until "clientDisconnected"
  bool posted = false;  // wb_client_connect has returned: what is put on the loop from now on comes after it
  bool wanted = false;  // a connect waits for it or has got it, and its end has not begun; one that comes up unwanted is ended
};

struct ConnectionPrivate {
  std::shared_ptr<EventLoop> loop;
  std::shared_ptr<ClientGate> gate = std::make_shared<ClientGate>();
  std::shared_ptr<AsyncQueries> async_queries;
  std::atomic<unsigned> holds = 1;      // see ConnectionHold; the first is the application's
  std::atomic<bool> destroyed = false;  // the application has let go; only what is under way still sees the record
  std::atomic<bool> uses_loop = false;
  PhaseStatistics phases;
  std::mutex disconnect_mutex;  // one disconnect at a time waits for the end of the session

  std::condition_variable changed;  // with mutex: the session has ended, or whoever waits is to look again

  std::mutex mutex;  // guards what follows, the callbacks of the record, and changes of its two flags
  SessionState session;
  unsigned sessions_begun = 0;
  unsigned loop_passes = 0;  // that a connect has waited for
  bool connecting = false;   // a connect is under way, on connect_thread
  pthread_t connect_thread = {};
  bool cancelled = false;            // a disconnect came meanwhile
  bool calls_for_restraint = false;  // the server ended the last session for a reason that coming back at once would repeat
  size_t hosts = 1;                  // whose turns make up a round
  int leaving = 0;                   // drains under way, and renewals
  std::chrono::steady_clock::time_point lost_at = {};  // when the connection ceased to be part of the grid
  bool pending = false;                                // it waits for the account to be enabled
  // What the XMPP table points to: copies, changed only while no session is open.
  std::string user_jid;
  std::string sasl_response;
  std::string host;
  std::string other_hosts;  // to be raced with it
  bool races_addresses = false;
  quillon_stanza_trace_cb stanza_trace = nullptr;
  void *stanza_trace_user_data = nullptr;
};

// Takes what the connection is about down for its statistics, whenever that may have changed. With the mutex held.
void note_phase_locked(const quillon_connection &connection);

// Keeps the record while a function uses it that may call the application, who may destroy the connection in that call.
class ConnectionHold {
 public:
  explicit ConnectionHold(quillon_connection &connection) : connection_(connection) { ++connection_.extra->holds; }
  ~ConnectionHold() { release(connection_); }
  ConnectionHold(const ConnectionHold &) = delete;
  ConnectionHold &operator=(const ConnectionHold &) = delete;

  // Gives up one hold; the last frees the record.
  static void release(quillon_connection &connection);

 private:
  quillon_connection &connection_;
};

// Becomes a user of the event loop, or stops to be one. Any thread; a second time does nothing.
void enter_loop(quillon_connection &connection);
void leave_loop(quillon_connection &connection);

inline bool is_on_loop(const quillon_connection &connection) { return connection.extra->loop->is_loop_thread(); }

// A callback of the application with its user data, as they are set at this moment.
template <typename Callback>
struct UserCallback {
  Callback function;
  void *user_data;
};

template <typename Callback>
UserCallback<Callback> user_callback(const quillon_connection &connection, Callback _quillon_connection::*function,
                                     void *_quillon_connection::*user_data) {
  const std::lock_guard lock(connection.extra->mutex);
  return {connection.*function, connection.*user_data};
}

// Wakes those who wait for a change of the connection.
void announce_change(quillon_connection &connection);

// Calls the account callback, if there is one. No lock held.
void call_account_cb(quillon_connection &connection, QUILLON_STATUS status);

// quillon_connection_connect for a caller who may change his mind: when keep_running is false, or becomes false followed by a
// disconnect, the attempt is given up. NULL: he does not. own_leaving: how much of extra->leaving is the caller's.
QUILLON_STATUS connect(quillon_connection &connection, const std::atomic<bool> *keep_running, int own_leaving = 0);

// Handler of the controller's notification about the account; arg is the connection.
void _connection_update_notification_callback(wb_dom_node *node, void *arg);

QUILLON_STATUS quillon_connection_init(quillon_connection *connection);
QUILLON_STATUS quillon_connection_register_core_capability_handler(quillon_connection *connection);

}  // namespace qlk

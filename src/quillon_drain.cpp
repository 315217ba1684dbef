// Leaving in order, by a deadline: nothing new is begun, what is under way ends, and then the session does. A callback may do so
// too. The thread that it runs on is then not waited for by others who drain, since it may be waiting for theirs.
#include <algorithm>

#include "connection_private.h"
#include "guard.h"
#include "quillon_notification.h"
#include "quillon_query.h"

namespace {

using qlk::SteadyClock;

// What a drain uses, although a callback may destroy the connection meanwhile.
struct Drained {
  explicit Drained(quillon_connection &connection)
      : hold(connection),
        calls(connection.extra->async_queries),
        query(connection.query->self),
        notification(connection.notification->weak_self.lock()),
        answering(query->request_handler),
        hearing(notification->notf_handler) {}

  const qlk::ConnectionHold hold;
  const std::shared_ptr<qlk::AsyncQueries> calls;
  const std::shared_ptr<_quillon_query> query;
  const std::shared_ptr<_quillon_notification> notification;
  const qlk::DispatchThread::Excused answering, hearing;
};

// While there is one a reconnection does not connect: what the new session brought would be taken for what is left of the old.
class Leaving {
 public:
  explicit Leaving(quillon_connection &connection) : hold_(connection), extra_(*connection.extra) {
    const std::lock_guard lock(extra_.mutex);
    ++extra_.leaving;
    extra_.changed.notify_all();
  }
  ~Leaving() {
    const std::lock_guard lock(extra_.mutex);
    --extra_.leaving;
    extra_.changed.notify_all();
  }
  Leaving(const Leaving &) = delete;
  Leaving &operator=(const Leaving &) = delete;

 private:
  const qlk::ConnectionHold hold_;
  qlk::ConnectionPrivate &extra_;
};

// The session that is up, or may come up; 0 for none.
unsigned live_session(const quillon_connection &connection) {
  const std::lock_guard lock(connection.extra->mutex);
  const qlk::SessionState &session = connection.extra->session;
  return session.open && (session.wanted || connection.is_xmpp_connected) ? session.number : 0;
}

// Ends the session. OK also when its end did not come in time, as the event loop is held up: has_ended tells.
QUILLON_STATUS leave(quillon_connection &connection, bool &has_ended) {
  const unsigned session = live_session(connection);
  const QUILLON_STATUS status = quillon_connection_disconnect(&connection);
  has_ended = session == 0 || connection.extra->destroyed || live_session(connection) != session;
  return status;
}

// has_ended: whether the session is over when this returns.
QUILLON_STATUS drain(quillon_connection &connection, SteadyClock::time_point deadline, bool &has_ended) {
  has_ended = true;
  const Leaving leaving(connection);
  const Drained drained(connection);
  const std::atomic<bool> &is_destroyed = connection.extra->destroyed;
  drained.query->calls.close();
  drained.calls->refuse_new();
  bool in_time = drained.query->calls.wait_until_empty(deadline);
  in_time = drained.calls->settle(deadline) && in_time;
  // Their answers need the session.
  in_time = drained.query->request_handler.wait_until_idle(deadline) && in_time;
  if (is_destroyed) return QUILLON_STATUS_OK;
  const QUILLON_STATUS status = leave(connection, has_ended);
  // Callbacks that still run may be about to return only now that the session has ended.
  drained.calls->wait_until_quiet();
  if (is_destroyed) return QUILLON_STATUS_OK;
  in_time = drained.query->request_handler.settle(deadline) && in_time;
  in_time = drained.notification->notf_handler.settle(deadline) && in_time;
  if (status != QUILLON_STATUS_OK) return status;
  return in_time && has_ended ? QUILLON_STATUS_OK : QUILLON_STATUS_SEND_TIMEOUT;
}

QUILLON_STATUS renew(quillon_connection &connection, uint32_t milliseconds) {
  const Leaving leaving(connection);
  bool has_ended = false;
  const QUILLON_STATUS status = drain(connection, SteadyClock::now() + std::chrono::milliseconds(milliseconds), has_ended);
  // A connect would take the old session for the new one.
  if (!has_ended || (status != QUILLON_STATUS_OK && status != QUILLON_STATUS_SEND_TIMEOUT)) return status;
  return qlk::connect(connection, nullptr, 1);
}

}  // namespace

QUILLON_STATUS quillon_connection_drain(quillon_connection *connection, uint32_t milliseconds) {
  qlk::trace(__func__);
  if (connection == nullptr) return qlk::refuse("Invalid connection object");
  if (qlk::is_on_loop(*connection)) {
    wb_log(WB_LOG_ERROR, "quillon_connection_drain cannot wait on the event loop thread");
    return QUILLON_STATUS_SEND_ERROR;
  }
  bool has_ended = false;
  return qlk::guarded(
      __func__, [&] { return drain(*connection, SteadyClock::now() + std::chrono::milliseconds(milliseconds), has_ended); });
}

QUILLON_STATUS quillon_connection_renew(quillon_connection *connection, uint32_t milliseconds) {
  qlk::trace(__func__);
  if (connection == nullptr) return qlk::refuse("Invalid connection object");
  if (qlk::is_on_loop(*connection)) {
    wb_log(WB_LOG_ERROR, "quillon_connection_renew cannot wait on the event loop thread");
    return QUILLON_STATUS_SEND_ERROR;
  }
  if (!quillon_connection_is_connected(connection)) return QUILLON_STATUS_NO_CONNECTION;
  return qlk::guarded(__func__, [&] { return renew(*connection, milliseconds); });
}

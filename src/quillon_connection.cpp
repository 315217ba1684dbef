// The connection's life. Destroying it may happen at any moment and on any thread, also within one of its own callbacks: from
// then on nothing gets through to its client, everything that waits is woken, and its threads and the connect under way are
// waited for, except the one that destroys it. The record itself goes with the last function that still uses it.
#include "quillon_connection.h"

#include <new>
#include <optional>

#include "connection_events.h"
#include "connection_private.h"
#include "guard.h"
#include "owners.h"
#include "pthread_lock.h"
#include "quillon_config.h"
#include "quillon_grid.h"
#include "quillon_lib.h"
#include "quillon_notification.h"
#include "quillon_query.h"

namespace {

constexpr char kInvalidConnection[] = "Invalid connection object";

quillon_connection &writable(const quillon_connection &connection) { return const_cast<quillon_connection &>(connection); }

template <typename Value>
QUILLON_STATUS set_field(const quillon_connection *connection, Value _quillon_connection::*field, Value value) {
  if (connection == nullptr) return qlk::refuse(kInvalidConnection);
  const std::lock_guard lock(connection->extra->mutex);
  writable(*connection).*field = value;
  return QUILLON_STATUS_OK;
}

QUILLON_STATUS fail(const char *message, QUILLON_STATUS status) {
  wb_log(WB_LOG_ERROR, "%s", message);
  return status;
}

void destroy_monitor(quillon_monitor *&monitor) {
  if (monitor != nullptr) quillon_monitor_destroy(monitor);
  monitor = nullptr;
}

// The last step: nobody uses the record any more.
void free_record(quillon_connection *connection) {
  wb_htable_destroy(connection->wb_config);
  destroy_monitor(connection->xmpp_connection_monitor);
  destroy_monitor(connection->connection_update_monitor);
  destroy_monitor(connection->disconnect_monitor);
  pthread_mutex_destroy(&connection->connect_lock);
  delete connection->extra;
  delete connection;
}

QUILLON_STATUS allocate(_quillon_lib_obj &library, quillon_connection *&out) {
  auto extra = std::unique_ptr<qlk::ConnectionPrivate>(new (std::nothrow) qlk::ConnectionPrivate());
  auto connection = std::unique_ptr<quillon_connection>(new (std::nothrow) quillon_connection());
  if (extra == nullptr || connection == nullptr) return fail("_quillon_connection malloc  failed", QUILLON_STATUS_MALLOC_ERROR);
  extra->loop = library.loop;
  extra->async_queries = std::make_shared<qlk::AsyncQueries>(*connection);
  connection->extra = extra.release();
  connection->qlnlib = &library;
  pthread_mutex_init(&connection->connect_lock, nullptr);
  out = connection.release();
  return QUILLON_STATUS_OK;
}

QUILLON_STATUS create_engines(quillon_connection &connection) {
  if (quillon_query_create(&connection.query, &connection) != QUILLON_STATUS_OK) {
    return fail("quillon_query_create failed", QUILLON_STATUS_QUILLON_ERROR);
  }
  if (quillon_notification_create(&connection.notification, &connection) != QUILLON_STATUS_OK) {
    return fail("quillon_notification_create failed", QUILLON_STATUS_QUILLON_ERROR);
  }
  const qlk::StringPtr ns = qlk::make_string(GRID_NS);
  const qlk::StringPtr name = qlk::make_string(conn_upd_notif_name);
  if (quillon_notification_register_handler(connection.notification, ns.get(), name.get(),
                                            qlk::_connection_update_notification_callback, &connection) != QUILLON_STATUS_OK) {
    return fail("quillon_notification_register_handler failed", QUILLON_STATUS_QUILLON_ERROR);
  }
  return QUILLON_STATUS_OK;
}

QUILLON_STATUS create_monitors(quillon_connection &connection) {
  QUILLON_STATUS status = quillon_monitor_create(&connection.xmpp_connection_monitor);
  if (status == QUILLON_STATUS_OK) status = quillon_monitor_create(&connection.connection_update_monitor);
  if (status == QUILLON_STATUS_OK) status = quillon_monitor_create(&connection.disconnect_monitor);
  return status;
}

// Everything that destroying takes back.
QUILLON_STATUS build(quillon_connection &connection) {
  if (const QUILLON_STATUS status = create_engines(connection); status != QUILLON_STATUS_OK) return status;
  if (const QUILLON_STATUS status = create_monitors(connection); status != QUILLON_STATUS_OK) return status;
  connection.ssl_ctx_cb = qlk::_default_ssl_ctx_cb;
  if (const QUILLON_STATUS status = qlk::core_capability_subscribe(&connection); status != QUILLON_STATUS_OK) return status;
  return qlk::quillon_connection_register_core_capability_handler(&connection);
}

void destroy_client(quillon_connection &connection) {
  if (connection.wb_client_ == nullptr) return;
  connection.extra->gate->drain(qlk::is_on_loop(connection));
  qlk::unbind_events(connection);
  wb_client_destroy(connection.wb_client_);
  connection.wb_client_ = nullptr;  // only now: until here the loop may have looked at it
}

void notify_if_made(quillon_monitor *monitor) {
  if (monitor != nullptr) quillon_monitor_notify(monitor);
}

void wait_for_connect(quillon_connection &connection) {
  {
    const std::lock_guard lock(connection.extra->mutex);
    if (connection.extra->connecting && pthread_equal(connection.extra->connect_thread, pthread_self()) != 0) return;
  }
  const qlk::PthreadLock left(connection.connect_lock);
}

// Who drains meanwhile may be on a thread that is joined here, and so must not wait for this one.
void stop_engines(quillon_connection &connection) {
  connection.extra->async_queries->give_up_waiting();
  const auto query = connection.query != nullptr ? connection.query->self : nullptr;
  const auto notification = connection.notification != nullptr ? connection.notification->weak_self.lock() : nullptr;
  std::optional<qlk::DispatchThread::Excused> answering, hearing;
  if (query != nullptr) {
    query->calls.give_up_waiting();
    answering.emplace(query->request_handler);
  }
  if (notification != nullptr) hearing.emplace(notification->notf_handler);
  qlk::query_stop(connection.query);
  qlk::notification_stop(connection.notification);
}

void _connection_cleanup(quillon_connection &connection) {
  connection.extra->destroyed = true;
  qlk::announce_change(connection);
  connection.extra->gate->close();
  notify_if_made(connection.xmpp_connection_monitor);
  notify_if_made(connection.connection_update_monitor);
  notify_if_made(connection.disconnect_monitor);
  // The engines' threads use the client, so they end before it; their objects take what the loop still receives, so they end
  // after it.
  stop_engines(connection);
  connection.extra->async_queries->stop_sending();
  destroy_client(connection);
  qlk::leave_loop(connection);
  connection.extra->async_queries->close();
  wait_for_connect(connection);
  if (connection.core_capability != nullptr) quillon_capability_destroy(std::exchange(connection.core_capability, nullptr));
  quillon_notification_destroy(std::exchange(connection.notification, nullptr));
  quillon_query_destroy(std::exchange(connection.query, nullptr));
  connection.extra->loop->settle();
}

}  // namespace

void qlk::ConnectionHold::release(quillon_connection &connection) {
  if (--connection.extra->holds == 0) free_record(&connection);
}

void qlk::enter_loop(quillon_connection &connection) {
  if (!connection.extra->uses_loop.exchange(true)) connection.extra->loop->enter();
}

void qlk::leave_loop(quillon_connection &connection) {
  if (connection.extra->uses_loop.exchange(false)) connection.extra->loop->leave();
}

void qlk::announce_change(quillon_connection &connection) {
  const std::lock_guard lock(connection.extra->mutex);
  connection.extra->changed.notify_all();
}

std::string qlk::own_jid(const quillon_connection &connection) {
  const std::lock_guard lock(connection.extra->mutex);
  return connection.extra->user_jid;
}

int qlk::send_timeout_seconds(const quillon_connection &connection) {
  const std::lock_guard lock(connection.extra->mutex);  // which a destroy takes before the configuration may go, too
  const bool has_config = connection.config != nullptr && !connection.extra->destroyed;
  return has_config ? connection.config->send_timeout_seconds : 0;
}

QUILLON_STATUS quillon_connection_create(quillon_connection **create_connection) {
  qlk::trace(__func__);
  if (create_connection == nullptr) return qlk::refuse("Invalid arguments passed");
  *create_connection = nullptr;
  return qlk::guarded(__func__, [&]() -> QUILLON_STATUS {
    if (const QUILLON_STATUS status = quillon_init(); status != QUILLON_STATUS_OK) return fail("quillon_init failed", status);
    const std::shared_ptr<_quillon_lib_obj> library = qlk::library();
    if (library == nullptr) return fail("quillon_init failed", QUILLON_STATUS_WB_ERROR);  // shut down meanwhile
    quillon_connection *connection = nullptr;
    if (const QUILLON_STATUS status = allocate(*library, connection); status != QUILLON_STATUS_OK) return status;
    if (const QUILLON_STATUS status = build(*connection); status != QUILLON_STATUS_OK) {
      quillon_connection_destroy(connection);
      return status;
    }
    // On this path alone the connection is left as it is: its engines and the registry of capabilities know it already.
    if (const QUILLON_STATUS status = qlk::quillon_connection_init(connection); status != QUILLON_STATUS_OK) {
      return fail("_quillon_init failed", status);
    }
    *create_connection = connection;
    wb_log(WB_LOG_TRACE, "quillon connection create done successfully");
    return QUILLON_STATUS_OK;
  });
}

QUILLON_STATUS quillon_connection_destroy(quillon_connection *connection) {
  if (qlk::is_forked_away()) return QUILLON_STATUS_OK;
  qlk::trace(__func__);
  if (connection == nullptr) {
    wb_log(WB_LOG_INFO, "connection already destroyed");
    return QUILLON_STATUS_OK;
  }
  return qlk::guarded(__func__, [&]() -> QUILLON_STATUS {
    _connection_cleanup(*connection);
    qlk::ConnectionHold::release(*connection);
    return QUILLON_STATUS_OK;
  });
}

QUILLON_STATUS quillon_connection_set_config(const quillon_connection *connection, quillon_config *config) {
  qlk::trace(__func__);
  if (connection == nullptr) return QUILLON_STATUS_INVALID_ARGS;
  return set_field(connection, &_quillon_connection::config, config);
}

QUILLON_STATUS quillon_connection_set_disconnect_cb(const quillon_connection *connection,
                                                    quillon_connection_disconnect_cb callback) {
  qlk::trace(__func__);
  return set_field(connection, &_quillon_connection::disconnect_cb, callback);
}

QUILLON_STATUS quillon_connection_set_connect_cb(const quillon_connection *connection, quillon_connection_connect_cb callback) {
  qlk::trace(__func__);
  return set_field(connection, &_quillon_connection::connect_cb, callback);
}

QUILLON_STATUS quillon_connection_set_account_cb(const quillon_connection *connection, quillon_connection_account_cb callback) {
  qlk::trace(__func__);
  return set_field(connection, &_quillon_connection::account_cb, callback);
}

QUILLON_STATUS quillon_connection_set_ssl_ctx_cb(const quillon_connection *connection, quillon_connection_ssl_ctx_cb callback) {
  qlk::trace(__func__);
  return set_field(connection, &_quillon_connection::ssl_ctx_cb, callback);
}

QUILLON_STATUS quillon_connection_set_disconnect_cb_user_data(const quillon_connection *connection, void *user_data) {
  qlk::trace(__func__);
  return set_field(connection, &_quillon_connection::disconnect_cb_user_data, user_data);
}

QUILLON_STATUS quillon_connection_set_connect_cb_user_data(const quillon_connection *connection, void *user_data) {
  qlk::trace(__func__);
  return set_field(connection, &_quillon_connection::connect_cb_user_data, user_data);
}

QUILLON_STATUS quillon_connection_set_account_cb_user_data(const quillon_connection *connection, void *user_data) {
  qlk::trace(__func__);
  return set_field(connection, &_quillon_connection::account_cb_user_data, user_data);
}

QUILLON_STATUS quillon_connection_set_ssl_ctx_cb_user_data(const quillon_connection *connection, void *user_data) {
  qlk::trace(__func__);
  return set_field(connection, &_quillon_connection::ssl_ctx_cb_user_data, user_data);
}

void quillon_connection_wakeup(quillon_connection *connection) {
  qlk::trace(__func__);
  if (connection != nullptr) connection->extra->loop->wake_up();
}

bool quillon_connection_is_connected(quillon_connection *connection) {
  qlk::trace(__func__);
  if (connection == nullptr) {
    wb_log(WB_LOG_ERROR, "%s", kInvalidConnection);
    return false;
  }
  return connection->is_xmpp_connected && connection->is_grid_connected;
}

QUILLON_STATUS quillon_connection_get_handler_queue_usage(const quillon_connection *connection, QUILLON_HANDLER_QUEUE queue,
                                                          quillon_handler_queue_usage *usage) {
  qlk::trace(__func__);
  if (connection == nullptr) return qlk::refuse(kInvalidConnection);
  if (usage == nullptr) return qlk::refuse("usage is null");
  switch (queue) {
    case QUILLON_HANDLER_QUEUE_QUERIES:
      *usage = connection->query->request_handler.gauge().usage();
      return QUILLON_STATUS_OK;
    case QUILLON_HANDLER_QUEUE_NOTIFICATIONS:
      *usage = connection->notification->notf_handler.gauge().usage();
      return QUILLON_STATUS_OK;
    case QUILLON_HANDLER_QUEUE_MAX:
      break;
  }
  return qlk::refuse("no such handler queue");
}

// The handlers only set flags, wake who waits and hand stanzas to the engines. Of the application's code, only disconnect_cb and
// the TLS-context callback run here; either may destroy the connection.
#include "connection_events.h"

#include <utility>

#include "connection_private.h"
#include "guard.h"
#include "owners.h"
#include "quillon_config.h"
#include "quillon_lib.h"
#include "quillon_notification.h"

namespace {

constexpr unsigned kWbConfigBuckets = 0;

quillon_connection *connection_of(void *arg) {
  if (arg == nullptr) wb_log(WB_LOG_ERROR, "Invalid connection object");
  return static_cast<quillon_connection *>(arg);
}

void _client_connected_callback(wb_event_data *, void *arg) {
  qlk::trace(__func__);
  quillon_connection *connection = connection_of(arg);
  if (connection == nullptr) return;
  bool wanted = false;
  {
    const std::lock_guard lock(connection->extra->mutex);
    wanted = connection->extra->session.wanted;
    if (wanted) connection->is_xmpp_connected = true;
    if (wanted) connection->extra->phases.count_session();
  }
  if (!wanted) {
    wb_log(WB_LOG_INFO, "a session that its connect no longer waits for is ended");
    return wb_client_disconnect(connection->wb_client_, WB_ERR_NONE);
  }
  quillon_monitor_notify(connection->xmpp_connection_monitor);
}

// Another session of the user has taken the place of this one, or the server does not bear what this client does.
bool calls_for_restraint(const wb_dom_node *error) {
  return wb_dom_get_first_element(error, "{urn:ietf:params:xml:ns:xmpp-streams}conflict") != nullptr ||
         wb_dom_get_first_element(error, "{urn:ietf:params:xml:ns:xmpp-streams}policy-violation") != nullptr;
}

// Tells whether the connection was part of the grid; from here on it does not become that with this session any more.
bool begin_end(quillon_connection &connection) {
  const std::lock_guard lock(connection.extra->mutex);
  connection.extra->session.wanted = false;
  connection.extra->changed.notify_all();
  return connection.is_grid_connected;
}

void mark_disconnected(quillon_connection &connection, bool calls_for_restraint) {
  const std::lock_guard lock(connection.extra->mutex);
  if (connection.is_grid_connected) connection.extra->lost_at = std::chrono::steady_clock::now();
  connection.state_enum = QUILLON_CONNECTION_STATE_DISCONNECTED;
  connection.is_grid_connected = false;
  connection.is_xmpp_connected = false;
  connection.extra->session = {};
  connection.extra->calls_for_restraint = calls_for_restraint;
  connection.extra->changed.notify_all();
  qlk::note_phase_locked(connection);
}

void _client_disconnected_callback(wb_event_data *event, void *arg) {
  qlk::trace(__func__);
  if (event == nullptr) return;
  quillon_connection *connection = connection_of(arg);
  if (connection == nullptr) return;
  const qlk::ConnectionHold hold(*connection);
  const auto *error = static_cast<const wb_dom_node *>(event->data);
  const bool restrains = error != nullptr && calls_for_restraint(error);
  const QUILLON_STATUS status = qlk::disconnect_status(error, begin_end(*connection));
  const auto callback =
      qlk::user_callback(*connection, &_quillon_connection::disconnect_cb, &_quillon_connection::disconnect_cb_user_data);
  if (callback.function != nullptr) callback.function(connection, status, callback.user_data);
  if (connection->extra->destroyed) return;
  connection->extra->loop->reap();  // the connection's thread, unless it is the one that runs here
  // Before that a connect must not begin: it would take the use of the loop for its own, and be left without one here.
  qlk::leave_loop(*connection);
  mark_disconnected(*connection, restrains);
  quillon_monitor_notify(connection->xmpp_connection_monitor);
  quillon_monitor_notify(connection->connection_update_monitor);
  quillon_monitor_notify(connection->disconnect_monitor);
}

void clientReconnectStatusChangedCb(wb_event_data *event, void *) {
  qlk::trace(__func__);
  static constexpr const char *kTexts[] = {"canceled", "pending", "starting"};
  wb_reconnect_status status = WB_RECONNECT_CANCELED;
  if (!wb_client_reconnect_get_status(event, &status, nullptr)) return;
  wb_log(WB_LOG_DEBUG, "reconnect status=%d", static_cast<int>(status));
  if (status <= WB_RECONNECT_STARTING) wb_log(WB_LOG_DEBUG, "%s", kTexts[status]);
}

void clientPresenceReceivedCb(wb_event_data *, void *) { qlk::trace(__func__); }

wb_dom_node *stanza_of(const wb_event_data *event) {
  return event != nullptr ? static_cast<wb_dom_node *>(event->data) : nullptr;
}

// Stanzas that come after it, until the session has ended, do nothing more.
void end_broken_session(const quillon_connection &connection, const char *reason) {
  {
    const std::lock_guard lock(connection.extra->mutex);
    if (!std::exchange(connection.extra->session.wanted, false)) return;
  }
  wb_log(WB_LOG_ERROR, "the session is ended: %s", reason);
  wb_client_disconnect(connection.wb_client_, WB_ERR_USER);
}

// A stanza could not be handed to its thread. Without a word of the controller the connection would go on with an account and
// publishers that are no longer so.
void lose_stanza(const quillon_connection &connection, QUILLON_STATUS status, bool is_needed) {
  const bool is_full = status == QUILLON_STATUS_UNKNOWN;
  const quillon_config *config = connection.config;
  const bool is_wanted = is_full && config != nullptr && config->handler_queue_overflow == QUILLON_HANDLER_QUEUE_OVERFLOW_CLOSE;
  if (!is_wanted && !is_needed) return;
  end_broken_session(connection, is_full ? "a handler queue is full" : "no memory for a word of the controller");
}

void _client_message_received_callback(wb_event_data *event, void *arg) {
  qlk::trace(__func__);
  auto *connection = static_cast<quillon_connection *>(arg);
  wb_dom_node *stanza = stanza_of(event);
  if (connection == nullptr || stanza == nullptr || connection->notification == nullptr) return;
  const QUILLON_STATUS status = quillon_notification_handle(connection->notification, stanza);
  if (status != QUILLON_STATUS_OK) lose_stanza(*connection, status, qlk::is_from_controller(stanza));
}

void _client_iq_received_callback(wb_event_data *event, void *arg) {
  qlk::trace(__func__);
  auto *connection = static_cast<quillon_connection *>(arg);
  wb_dom_node *stanza = stanza_of(event);
  if (connection == nullptr || stanza == nullptr || connection->query == nullptr) return;
  const QUILLON_STATUS status = quillon_query_handle(connection->query, stanza);
  if (status != QUILLON_STATUS_OK) lose_stanza(*connection, status, false);
}

void _client_destroyed_callback(wb_event_data *, void *arg) {
  qlk::trace(__func__);
  connection_of(arg);
}

struct Binding {
  const char *event;
  wb_event_callback handler;
};

constexpr Binding kBindings[] = {
    {"clientConnected", _client_connected_callback},
    {"clientDisconnected", _client_disconnected_callback},
    {"reconnectStatusChanged", clientReconnectStatusChangedCb},
    {"presenceReceived", clientPresenceReceivedCb},
    {"messageReceived", _client_message_received_callback},
    {"iqReceived", _client_iq_received_callback},
    {"clientDestroyed", _client_destroyed_callback},
};

// ---- TLS hooks

void _gs_ssl_ctx_cb(void *tls_context, void *arg) {
  qlk::shut_down_before_openssl();
  auto *connection = static_cast<quillon_connection *>(arg);
  if (connection == nullptr) return;
  const qlk::ConnectionHold hold(*connection);
  const auto callback =
      qlk::user_callback(*connection, &_quillon_connection::ssl_ctx_cb, &_quillon_connection::ssl_ctx_cb_user_data);
  if (callback.function == nullptr) return wb_log(WB_LOG_WARN, "User call back (ssl_ctx_cb) is not registered");
  callback.function(connection, tls_context, callback.user_data);
}

// Asked only when the application's TLS-context callback left verification off: that was its decision.
void clientTlsAcceptCertCb(wb_tls_session *session, void *) {
  wb_log(WB_LOG_WARN, "client tls accept cert callback");
  wb_tls_proceed(session, true);
}

// The table holds the addresses of these.
wb_tls_connect_func tls_connect_hook = _gs_ssl_ctx_cb;
wb_tls_accept_func tls_accept_hook = clientTlsAcceptCertCb;
char tls_accept_argument[] = "accept";

// ---- The client's table

struct Copying {
  wb_htable *to;
  bool ok;
};

bool copy_entry(wb_htable *, const void *key, void *value, void *arg) {
  auto &copying = *static_cast<Copying *>(arg);
  copying.ok = wb_htable_put(copying.to, key, value, nullptr, nullptr);
  return copying.ok;
}

bool copy_table(wb_htable *from, wb_htable *to) {
  Copying copying = {to, true};
  return wb_htable_walk(from, copy_entry, &copying, nullptr) && copying.ok &&
         wb_htable_get_count(from) == wb_htable_get_count(to);
}

bool put_hooks(quillon_connection &connection, wb_htable *table, wb_err *err) {
  return wb_htable_put(table, "tls-accept-cb", &tls_accept_hook, nullptr, err) &&
         wb_htable_put(table, "tls-accept-cb-arg", tls_accept_argument, nullptr, err) &&
         wb_htable_put(table, "tls-connect-cb", &tls_connect_hook, nullptr, err) &&
         wb_htable_put(table, "tls-connect-cb-arg", &connection, nullptr, err);
}

struct ClientDelete {
  void operator()(wb_client *client) const { wb_client_destroy(client); }
};

QUILLON_STATUS fail(const wb_err &err, const char *message) {
  wb_log_err(WB_LOG_ERROR, &err, message);
  return QUILLON_STATUS_WB_ERROR;
}

}  // namespace

QUILLON_STATUS qlk::disconnect_status(const wb_dom_node *error, bool was_grid_connected) {
  if (error == nullptr) return was_grid_connected ? QUILLON_STATUS_CONNECTION_ERROR : QUILLON_STATUS_QUILLON_ERROR;
  if (wb_dom_get_first_element(error, jabber_ele_not_authorized_err) != nullptr) {
    return QUILLON_STATUS_CONNECTION_ERROR_NOT_AUTHORIZED;
  }
  if (wb_dom_get_first_element(error, jabber_ele_remote_connection_err) != nullptr) {
    return QUILLON_STATUS_CONNECTION_ERROR_REMOTE_CONNECTION_FAILURE;
  }
  return QUILLON_STATUS_CONNECTION_ERROR_XMPP;
}

void qlk::_default_ssl_ctx_cb(quillon_connection *connection, void *ssl_ctx, void *) {
  if (connection == nullptr || connection->config == nullptr)
    return wb_log(WB_LOG_ERROR, "no configuration to fill the TLS context");
  quillon_config_fill_ssl_ctx(connection->config, ssl_ctx, false);
}

bool qlk::bind_events(quillon_connection &connection) {
  for (const Binding &binding : kBindings) {
    wb_err err = {};
    if (!wb_event_bind(wb_client_event(connection.wb_client_, binding.event), binding.handler, &connection, &err)) {
      wb_log_err(WB_LOG_ERROR, &err, binding.event);
      return false;
    }
  }
  return true;
}

void qlk::unbind_events(quillon_connection &connection) {
  for (const Binding &binding : kBindings)
    wb_event_unbind(wb_client_event(connection.wb_client_, binding.event), binding.handler);
}

QUILLON_STATUS qlk::quillon_connection_init(quillon_connection *connection) {
  trace(__func__);
  if (connection == nullptr) return refuse("Invalid connection object");
  wb_err err = {};
  wb_client *created_client = nullptr;
  if (!wb_client_create(connection->extra->loop->queue(), &created_client, &err)) return fail(err, "could not create client");
  std::unique_ptr<wb_client, ClientDelete> client(created_client);
  wb_htable *created_table = nullptr;
  if (!wb_htable_create(kWbConfigBuckets, wb_strcase_hashcode, wb_strcase_compare, &created_table, &err)) {
    return fail(err, "could not create hashtable");
  }
  TablePtr table(created_table);
  if (!copy_table(connection->qlnlib->wb_base_config, table.get())) {
    wb_log(WB_LOG_ERROR, "cannot copy base config htable");
    return QUILLON_STATUS_WB_ERROR;
  }
  if (!put_hooks(*connection, table.get(), &err)) return fail(err, "error populating configuration htable");
  connection->wb_client_ = client.get();
  if (!bind_events(*connection)) {
    connection->wb_client_ = nullptr;
    return QUILLON_STATUS_WB_ERROR;
  }
  connection->extra->gate->open(client.release());
  connection->wb_config = table.release();
  wb_log(WB_LOG_INFO, "quillon connection init done successfully");
  return QUILLON_STATUS_OK;
}

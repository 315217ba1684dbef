// Shows the application the stanzas that pass, with the secrets hidden by the XMPP client.
#include "connection_private.h"
#include "guard.h"

namespace {

// On the loop.
void show(wb_trace_direction direction, const char *xml, size_t length, void *arg) {
  auto &connection = *static_cast<quillon_connection *>(arg);
  std::unique_lock lock(connection.extra->mutex);
  const quillon_stanza_trace_cb callback = connection.extra->stanza_trace;
  void *const user_data = connection.extra->stanza_trace_user_data;
  lock.unlock();
  if (callback == nullptr) return;
  const QUILLON_TRACE_DIRECTION way = direction == WB_TRACE_SENT ? QUILLON_TRACE_SENT : QUILLON_TRACE_RECEIVED;
  qlk::guarded_void("quillon_stanza_trace_cb", [&] { callback(&connection, way, xml, length, user_data); });
}

}  // namespace

QUILLON_STATUS quillon_connection_set_stanza_trace(quillon_connection *connection, quillon_stanza_trace_cb callback,
                                                   void *user_data) {
  qlk::trace(__func__);
  if (connection == nullptr) return qlk::refuse("Invalid connection object");
  const auto set = [&](wb_client *client) {  // the gate before the mutex, as everywhere
    const std::lock_guard lock(connection->extra->mutex);
    connection->extra->stanza_trace = callback;
    connection->extra->stanza_trace_user_data = user_data;
    if (client != nullptr) wb_client_set_trace(client, callback != nullptr ? show : nullptr, connection);
  };
  if (!connection->extra->gate->use(set)) set(nullptr);
  return QUILLON_STATUS_OK;
}

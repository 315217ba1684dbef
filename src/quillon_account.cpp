// What the controller says of the account after it was asked: on the notification thread.
#include <string_view>

#include "connection_private.h"
#include "guard.h"

namespace {

struct AccountUpdate {
  std::string_view word;  // a text that begins with it counts as it
  QUILLON_CONNECTION_STATE_ENUM state;
  QUILLON_STATUS status;
  bool disconnects;
};

constexpr AccountUpdate kAccountUpdates[] = {
    {"disabled", QUILLON_CONNECTION_STATE_DISABLED, QUILLON_STATUS_ACCOUNT_DISABLED, true},
    {"deleted", QUILLON_CONNECTION_STATE_DELETED, QUILLON_STATUS_ACCOUNT_DELETED, true},
    {"authorizationChanged", QUILLON_CONNECTION_STATE_AUTHORIZATION_CHANGED, QUILLON_STATUS_ACCOUNT_AUTHORIZATION_CHANGED, true},
    {"enabled", QUILLON_CONNECTION_STATE_ENABLED, QUILLON_STATUS_ACCOUNT_ENABLED, false},
};

void apply_account_update(quillon_connection &connection, std::string_view text) {
  for (const AccountUpdate &update : kAccountUpdates) {
    if (!text.starts_with(update.word)) continue;
    connection.state_enum = update.state;
    qlk::call_account_cb(connection, update.status);
    if (update.disconnects && !connection.extra->destroyed) quillon_connection_disconnect(&connection);
    return;
  }
}

}  // namespace

void qlk::call_account_cb(quillon_connection &connection, QUILLON_STATUS status) {
  const auto callback = user_callback(connection, &_quillon_connection::account_cb, &_quillon_connection::account_cb_user_data);
  if (callback.function != nullptr) callback.function(&connection, status, callback.user_data);
}

void qlk::_connection_update_notification_callback(wb_dom_node *node, void *arg) {
  trace(__func__);
  auto *connection = static_cast<quillon_connection *>(arg);
  const char *text = wb_dom_get_first_text(wb_dom_get_first_child(node));
  if (connection == nullptr || text == nullptr) return;
  const ConnectionHold hold(*connection);
  apply_account_update(*connection, text);
  quillon_monitor_notify(connection->connection_update_monitor);
}

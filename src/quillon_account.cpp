// What the controller says of the account after it was asked: on the notification thread.
#include <algorithm>
#include <iterator>
#include <string_view>

#include "connection_private.h"
#include "guard.h"
#include "quillon_notification.h"

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

// Whether the session in which the word came is still open. Otherwise the application is told, but the session that has followed,
// or is about to, bears its own words.
bool is_of_this_session(const quillon_connection &connection) {
  const unsigned session = connection.notification->notf_handler.session();
  const std::lock_guard lock(connection.extra->mutex);
  return connection.extra->session.number == session;
}

void apply_account_update(quillon_connection &connection, const AccountUpdate &update) {
  if (is_of_this_session(connection)) connection.state_enum = update.state;
  qlk::call_account_cb(connection, update.status);
  if (update.disconnects && !connection.extra->destroyed && is_of_this_session(connection))
    quillon_connection_disconnect(&connection);
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
  const std::string_view word = text;
  const auto *update = std::find_if(std::begin(kAccountUpdates), std::end(kAccountUpdates),
                                    [&](const AccountUpdate &known) { return word.starts_with(known.word); });
  if (update != std::end(kAccountUpdates)) apply_account_update(*connection, *update);
  // Any word ends the wait for approval, which looks at what has become of the account.
  if (!connection->extra->destroyed && is_of_this_session(*connection))
    quillon_monitor_notify(connection->connection_update_monitor);
}

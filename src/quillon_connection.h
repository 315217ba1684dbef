// The connection's record and what the library's other modules may ask of it.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "quillon.h"

struct _quillon_lib_obj;

namespace qlk {
struct ConnectionPrivate;  // what the record holds beyond the fields that are laid down
}

struct _quillon_connection {
  quillon_config *config;  // borrowed
  wb_htable *wb_config;
  wb_client *wb_client_;  // named so because wb_client is the type
  _quillon_lib_obj *qlnlib;
  pthread_t thread;
  std::atomic<bool> is_grid_connected;
  std::atomic<bool> is_xmpp_connected;
  quillon_monitor *xmpp_connection_monitor;
  quillon_monitor *connection_update_monitor;
  quillon_monitor *disconnect_monitor;
  quillon_query *query;
  quillon_notification *notification;
  quillon_connection_disconnect_cb disconnect_cb;
  quillon_connection_connect_cb connect_cb;
  quillon_connection_account_cb account_cb;
  quillon_connection_ssl_ctx_cb ssl_ctx_cb;
  void *disconnect_cb_user_data;
  void *connect_cb_user_data;
  void *account_cb_user_data;
  void *ssl_ctx_cb_user_data;
  quillon_notification_callback_info topic_cb_info;
  quillon_capability *core_capability;
  std::atomic<QUILLON_CONNECTION_STATE_ENUM> state_enum;
  pthread_mutex_t connect_lock;
  qlk::ConnectionPrivate *extra;  // private addition
};

namespace qlk {

// The client's own full JID, as the last connect took it from the configuration ("userjid"); empty before the first. Any thread.
std::string own_jid(const quillon_connection &connection);

// The configuration's send time-out in seconds; 0 without a configuration. Any thread.
int send_timeout_seconds(const quillon_connection &connection);

// Creates the core capability and subscribes it; run once by create.
QUILLON_STATUS core_capability_subscribe(quillon_connection *connection);

}  // namespace qlk

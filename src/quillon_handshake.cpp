// Joining the grid and leaving it.
//
// A connect goes through three stages: the XMPP session, a presence to the controller, and a request in which the controller
// approves, denies or holds the account. While the account is pending the caller waits for the controller's notification.
// There is one connect at a time, which holds connect_lock to its end; a disconnect takes no part in that, since it is what ends
// a connect that waits. It marks the connect under way as cancelled, which every later step of the connect looks at, and ends the
// session if one is open.
#include <algorithm>
#include <cstring>
#include <new>

#include "connection_private.h"
#include "guard.h"
#include "monitor_wait.h"
#include "owners.h"
#include "pthread_lock.h"
#include "quillon_capability.h"
#include "quillon_config.h"
#include "quillon_grid.h"
#include "quillon_notification.h"
#include "quillon_query.h"
#include "stanza_builder.h"

namespace {

constexpr std::chrono::seconds kXmppTime{50};        // for the XMPP session to come up
constexpr std::chrono::seconds kDisconnectTime{50};  // for the session's end to be reported

// Between the addresses that are raced, and that they are not.
char race_text[] = "250";
char no_race_text[] = "0";

constexpr char kInvalidConnection[] = "Invalid connection object";

// Connections may share a configuration, and each connect moves its cursor.
std::mutex rotation_mutex;

quillon_connection &writable(const quillon_connection *connection) { return *const_cast<quillon_connection *>(connection); }

QUILLON_STATUS fail(const char *message, QUILLON_STATUS status) {
  wb_log(WB_LOG_ERROR, "%s", message);
  return status;
}

void log_with_text(const char *what, QUILLON_STATUS status) {
  wb_log(WB_LOG_ERROR, "%s error: %s", what, quillon_status_get_message(status));
}

// Whether the application, on this thread or another, has called the connect under way off.
bool is_called_off(quillon_connection &connection) {
  const std::lock_guard lock(connection.extra->mutex);
  return connection.extra->cancelled || connection.extra->destroyed;
}

// The session that is open; 0 for none.
unsigned open_session_number(quillon_connection &connection) {
  const std::lock_guard lock(connection.extra->mutex);
  return connection.extra->session.open ? connection.extra->session.number : 0;
}

// ---- The end of a session

// Waits until the end of the session has been reported: by then another may have begun. False on a time-out. When the connection
// is destroyed, or the library shut down, there is nothing to wait for.
bool wait_for_end(quillon_connection &connection, unsigned session) {
  const auto deadline = qlk::SteadyClock::now() + kDisconnectTime;
  for (;;) {
    quillon_monitor_clear(connection.disconnect_monitor);
    if (open_session_number(connection) != session || !connection.extra->gate->is_open()) return true;
    if (!qlk::wait_notified(*connection.disconnect_monitor, deadline)) return false;
  }
}

// A user of the event loop for the length of its scope, so that what is put on the loop meanwhile is run.
class LoopUse {
 public:
  explicit LoopUse(const quillon_connection &connection) : loop_(connection.extra->loop) { loop_->enter(); }
  ~LoopUse() { loop_->leave(); }
  LoopUse(const LoopUse &) = delete;
  LoopUse &operator=(const LoopUse &) = delete;

 private:
  const std::shared_ptr<qlk::EventLoop> loop_;
};

// Ends the session, or the attempt at one, and waits for its end. Fails when there is no memory to tell the loop.
QUILLON_STATUS end_session(quillon_connection &connection, unsigned session) {
  const std::lock_guard one_at_a_time(connection.extra->disconnect_mutex);
  // A session that is open uses the loop. Should it end by itself now, the loop would leave what this puts on it undone, and this
  // would wait in vain.
  const LoopUse use(connection);
  if (session == 0 || open_session_number(connection) != session) return QUILLON_STATUS_OK;
  quillon_data *data = nullptr;
  QUILLON_STATUS status = quillon_wb_client_create(&data, &connection);
  if (status == QUILLON_STATUS_OK) {
    quillon_monitor_clear(connection.disconnect_monitor);
    status = quillon_wb_client_disconnect(data);
    if (status != QUILLON_STATUS_OK) {
      wb_log(WB_LOG_ERROR, "quillon_connection_disconnect disconnect timed out");
    } else if (!wait_for_end(connection, session)) {
      wb_log(WB_LOG_ERROR, "quillon_connection_disconnect callback timed out");
    }
    quillon_wb_client_destroy(data);
  }
  quillon_monitor_notify(connection.xmpp_connection_monitor);
  // What the loop did not take in time it still will.
  return status == QUILLON_STATUS_SEND_TIMEOUT || status == QUILLON_STATUS_OK ? QUILLON_STATUS_OK : QUILLON_STATUS_MALLOC_ERROR;
}

// Ends what an earlier connect left: the session after a denial, or an attempt that was given up. Its end must be past before the
// new attempt begins, because it wakes whoever waits. False when it does not end.
bool end_previous_session(quillon_connection &connection) {
  const unsigned session = open_session_number(connection);
  if (session == 0) return true;
  qlk::enter_loop(connection);  // an attempt that was given up has nobody to dispatch for it
  if (connection.extra->loop->start_thread(connection.thread)) end_session(connection, session);
  if (open_session_number(connection) == 0) return true;
  qlk::leave_loop(connection);
  wb_log(WB_LOG_ERROR, "the session of an earlier connect does not end");
  return false;
}

// ---- The first stage: the XMPP session

// What SASL EXTERNAL tells the server.
std::string sasl_response(QUILLON_SASL_RESPONSE kind, std::string_view user_name, std::string_view jid) {
  if (kind == QUILLON_SASL_RESPONSE_NONE) return {};
  return std::string(kind == QUILLON_SASL_RESPONSE_BARE_JID ? jid.substr(0, jid.find('/')) : user_name);
}

// The hosts that come after the one whose turn it is, with blanks between them.
std::string hosts_behind(const quillon_config &config, int32_t turn) {
  std::string hosts;
  for (int32_t i = 1; i < config.hosts_count; ++i) {
    const auto place = static_cast<size_t>((turn + i) % config.hosts_count);
    const char *host = quillon_string_cstr(static_cast<const quillon_string *>(quillon_list_get_at(config.hosts, place)));
    if (host != nullptr) hosts.append(hosts.empty() ? "" : " ").append(host);
  }
  return hosts;
}

// The host whose turn it is, and the names to connect with.
QUILLON_STATUS read_target(quillon_connection &connection) {
  const quillon_config *config = connection.config;
  if (config == nullptr) return fail("cannot connect: no configuration is set", QUILLON_STATUS_INVALID_ARGS);
  const char *user_name = quillon_string_cstr(config->user_name);
  const char *jid = quillon_string_cstr(config->jid);
  if (user_name == nullptr || jid == nullptr) return fail("cannot connect: no user name is set", QUILLON_STATUS_INVALID_ARGS);
  const bool races = config->races_addresses;
  const quillon_string *host = nullptr;
  std::string others;
  {
    const std::lock_guard lock(rotation_mutex);
    if (config->hosts_index >= 0) {
      host = static_cast<const quillon_string *>(quillon_list_get_at(config->hosts, static_cast<size_t>(config->hosts_index)));
      if (races) others = hosts_behind(*config, config->hosts_index);
    }
  }
  if (quillon_string_cstr(host) == nullptr) return fail("cannot connect: no host is set", QUILLON_STATUS_INVALID_ARGS);
  const std::lock_guard lock(connection.extra->mutex);
  connection.extra->host = quillon_string_cstr(host);
  connection.extra->other_hosts = std::move(others);
  connection.extra->races_addresses = races;
  connection.extra->hosts = races ? 1 : static_cast<size_t>(std::max(config->hosts_count, 1));
  connection.extra->sasl_response = sasl_response(config->sasl_response, user_name, jid);
  connection.extra->user_jid = jid;
  return QUILLON_STATUS_OK;
}

// A setting of 0 is no limit.
size_t limit_of(int32_t stanzas) { return stanzas > 0 ? static_cast<size_t>(stanzas) : SIZE_MAX; }
size_t limit_of_bytes(size_t bytes) { return bytes > 0 ? bytes : SIZE_MAX; }

void limit_handler_queues(const quillon_connection &connection) {
  const quillon_config &config = *connection.config;
  const qlk::QueueGauge::Limits limits = {.warning = limit_of(config.handler_queue_warning),
                                          .bound = limit_of(config.handler_queue_bound),
                                          .warning_bytes = limit_of_bytes(config.handler_queue_warning_bytes),
                                          .bound_bytes = limit_of_bytes(config.handler_queue_bound_bytes)};
  connection.query->request_handler.gauge().set_limits(limits);
  connection.notification->notf_handler.gauge().set_limits(limits);
  connection.extra->async_queries->set_limits(limits);
}

bool put_target(quillon_connection &connection, wb_err *err) {
  wb_htable *table = connection.wb_config;
  return wb_htable_put(table, "userjid", connection.extra->user_jid.data(), nullptr, err) &&
         wb_htable_put(table, "quillon.user_name", connection.extra->sasl_response.data(), nullptr, err) &&
         wb_htable_put(table, "host", connection.extra->host.data(), nullptr, err) &&
         wb_htable_put(table, "other_hosts", connection.extra->other_hosts.data(), nullptr, err) &&
         wb_htable_put(table, "race_milliseconds", connection.extra->races_addresses ? race_text : no_race_text, nullptr, err);
}

void advance_rotation(quillon_config &config) {
  const std::lock_guard lock(rotation_mutex);
  if (++config.hosts_index >= config.hosts_count) config.hosts_index = 0;
}

void open_new_session(qlk::ConnectionPrivate &extra) {
  const std::lock_guard lock(extra.mutex);
  if (++extra.sessions_begun == 0) extra.sessions_begun = 1;  // 0 stands for none
  extra.session = {.number = extra.sessions_begun, .open = true, .posted = false, .wanted = true};
  extra.calls_for_restraint = false;
  extra.phases.count_attempt();
}

void forget_session(qlk::ConnectionPrivate &extra) {
  const std::lock_guard lock(extra.mutex);
  extra.session = {};
}

// The disconnects that come from now on can end the session themselves. It may have ended already.
void mark_posted(quillon_connection &connection) {
  const std::lock_guard lock(connection.extra->mutex);
  connection.extra->session.posted = connection.extra->session.open;
}

// The session if it is up after all; otherwise, should it come up later, it is not wanted any more.
bool take_session(quillon_connection &connection) {
  const std::lock_guard lock(connection.extra->mutex);
  if (connection.is_xmpp_connected) return true;
  connection.extra->session.wanted = false;
  return false;
}

QUILLON_STATUS begin_session(quillon_connection &connection) {
  quillon_monitor_clear(connection.xmpp_connection_monitor);
  open_new_session(*connection.extra);
  qlk::enter_loop(connection);
  wb_err err = {};
  bool begun = false;
  const bool is_there =
      connection.extra->gate->use([&](wb_client *client) { begun = wb_client_connect(client, connection.wb_config, &err); });
  if (!begun) {
    forget_session(*connection.extra);
    qlk::leave_loop(connection);
    if (!is_there)
      return fail("the connection is destroyed, or the library shut down, while it connects", QUILLON_STATUS_CONNECTION_ERROR);
    wb_log_err(WB_LOG_ERROR, &err, "could not connect to specified server");
    return QUILLON_STATUS_WB_ERROR;
  }
  mark_posted(connection);
  if (connection.extra->loop->start_thread(connection.thread)) return QUILLON_STATUS_OK;
  take_session(connection);
  qlk::leave_loop(connection);
  return fail("start thread error", QUILLON_STATUS_PTHREAD_ERROR);
}

// Waits until the session is up, its attempt has failed, or nobody wants it any more. False on a time-out.
bool wait_for_session(quillon_connection &connection) {
  const auto deadline = qlk::SteadyClock::now() + kXmppTime;
  for (;;) {
    quillon_monitor_clear(connection.xmpp_connection_monitor);
    if (connection.is_xmpp_connected || open_session_number(connection) == 0 || is_called_off(connection)) return true;
    if (!qlk::wait_notified(*connection.xmpp_connection_monitor, deadline)) return false;
  }
}

QUILLON_STATUS open_session(quillon_connection &connection) {
  if (const QUILLON_STATUS status = begin_session(connection); status != QUILLON_STATUS_OK) return status;
  const bool in_time = wait_for_session(connection);
  if (is_called_off(connection) && !connection.extra->destroyed) end_session(connection, open_session_number(connection));
  if (take_session(connection)) return QUILLON_STATUS_OK;
  log_with_text("connection", QUILLON_STATUS_XMPP_ERROR);
  if (!in_time) wb_log(WB_LOG_INFO, "quillon connection response timed out");
  qlk::leave_loop(connection);  // breaks the event loop, which goes on if others use it
  return QUILLON_STATUS_CONNECTION_ERROR;
}

// ---- The second stage: the presence

QUILLON_STATUS _presence_to_controller(quillon_connection &connection) {
  wb_err err = {};
  wb_dom_ctx *created = nullptr;
  if (!wb_dom_context_create(&created, &err)) {
    wb_log_err(WB_LOG_ERROR, &err, __func__);
    return QUILLON_STATUS_XML_ERROR;
  }
  qlk::DomContextPtr context(created);
  qlk::StanzaBuilder builder(created);
  wb_dom_node *presence = builder.element(ele_pres_name);
  builder.attribute(presence, ele_id_fieldname, ele_id_fieldname_val);
  builder.attribute(presence, ele_to_fieldname, CONTROLLER_JID);
  if (!builder.ok()) {
    builder.log_failure(__func__);
    return QUILLON_STATUS_XML_ERROR;
  }
  quillon_data *data = nullptr;
  QUILLON_STATUS status = quillon_wb_client_create(&data, &connection);
  if (status != QUILLON_STATUS_OK) return status;
  static_cast<void>(context.release());  // the send consumes it
  status = quillon_wb_client_send_and_forget(data, presence);
  quillon_wb_client_destroy(data);
  return status;
}

// ---- The third stage: the controller's approval

void add_credentials(qlk::StanzaBuilder &builder, wb_dom_node *request, const quillon_config &config) {
  wb_dom_node *credentials = builder.element(ele_cred_name, request);
  wb_dom_node *user = builder.element(ele_username_name, credentials);
  builder.text(user, ele_username_value, quillon_string_cstr(config.user_name));
  const char *group = quillon_string_cstr(config.user_group);
  builder.text(credentials, ele_group_name, group != nullptr ? group : ele_session_name);
  wb_dom_node *groups = builder.element(ele_groups_name, credentials);
  const _node *entry = config.groups != nullptr ? config.groups->head : nullptr;
  for (int32_t i = 0; i < config.groups_count && entry != nullptr; ++i, entry = entry->next) {
    builder.text(groups, ele_group_name, quillon_string_cstr(static_cast<const quillon_string *>(entry->data)));
  }
}

void add_description(wb_dom_node *node_info, const quillon_config &config) {
  const char *description = quillon_string_cstr(config.description);
  if (description == nullptr) return;
  if (quillon_xml_add_child_and_text(node_info, ele_desc_name, description) != QUILLON_STATUS_OK) {
    wb_log(WB_LOG_WARN, "%s", "could not add description to specified server");
  }
}

// The request in a context of its own; null when it cannot be built.
qlk::NodePtr build_connect_request(const quillon_config &config) {
  wb_err err = {};
  wb_dom_ctx *created = nullptr;
  if (!wb_dom_context_create(&created, &err)) {
    wb_log_err(WB_LOG_ERROR, &err, "'_connect_request': could not create context");
    return nullptr;
  }
  qlk::DomContextPtr context(created);
  qlk::StanzaBuilder builder(created);
  wb_dom_node *request = builder.element(ele_connect_name);
  add_credentials(builder, request, config);
  wb_dom_node *node_info = builder.element(ele_ginode_info_tag, request);
  if (!builder.ok()) {
    builder.log_failure("could not connect to specified server");
    return nullptr;
  }
  add_description(node_info, config);
  static_cast<void>(context.release());  // the request owns it
  return qlk::NodePtr(request);
}

// What the controller decided.
QUILLON_STATUS read_approval(const wb_dom_node *reply) {
  const char *text = wb_dom_get_first_text(wb_dom_get_first_element(reply, ele_approval_status));
  const std::string_view word = text != nullptr ? text : "";
  if (word == "approved") {
    wb_log(WB_LOG_INFO, "Account approved");
    return QUILLON_STATUS_OK;
  }
  if (word == "denied") {
    wb_log(WB_LOG_INFO, "Account denied");
    return QUILLON_STATUS_CONNECTION_DENIED;
  }
  if (word == "pending") {
    wb_log(WB_LOG_INFO, "Account pending");
    return QUILLON_STATUS_ACCOUNT_PENDING;
  }
  quillon_log_wb_dom(WB_LOG_ERROR, reply, "quillon_connection_query_controller response xml: ");
  return QUILLON_STATUS_CONNECTION_ERROR;
}

QUILLON_STATUS _connect_request(quillon_connection &connection) {
  const quillon_config *config = connection.config;
  if (config == nullptr || quillon_string_cstr(config->user_name) == nullptr) return QUILLON_STATUS_INVALID_ARGS;
  qlk::NodePtr request = build_connect_request(*config);
  if (request == nullptr) return QUILLON_STATUS_XML_ERROR;
  wb_dom_node *received = nullptr;
  QUILLON_STATUS status = quillon_connection_query_controller(&connection, request.release(), &received);
  const qlk::NodePtr reply(received);
  if (status == QUILLON_STATUS_NO_CONNECTION) return QUILLON_STATUS_CONNECTION_ERROR;  // the connection is being drained
  if (status == QUILLON_STATUS_SEND_TIMEOUT || reply == nullptr) return status;
  status = read_approval(reply.get());
  if (status == QUILLON_STATUS_CONNECTION_DENIED || status == QUILLON_STATUS_ACCOUNT_PENDING)
    qlk::call_account_cb(connection, status);
  return status;
}

void set_pending(quillon_connection &connection, bool pending) {
  const std::lock_guard lock(connection.extra->mutex);
  connection.extra->pending = pending;
  qlk::note_phase_locked(connection);
}

// Waits, as long as it takes, for the controller's word on the account, which came after the monitor was cleared or is yet to
// come.
QUILLON_STATUS wait_for_approval(quillon_connection &connection) {
  set_pending(connection, true);
  qlk::wait_notified(*connection.connection_update_monitor, std::nullopt);
  set_pending(connection, false);
  if (connection.extra->destroyed) return QUILLON_STATUS_CONNECTION_ERROR;
  if (connection.state_enum == QUILLON_CONNECTION_STATE_ENABLED) return QUILLON_STATUS_OK;
  log_with_text("_connect_request", QUILLON_STATUS_CONNECTION_ERROR_AUTOREGOFF);
  quillon_connection_disconnect(&connection);
  return QUILLON_STATUS_CONNECTION_ERROR;
}

// False when the session has ended meanwhile, or its end is on its way.
bool is_session_good_locked(const quillon_connection &connection) {
  const qlk::ConnectionPrivate &extra = *connection.extra;
  return connection.is_xmpp_connected && extra.session.wanted && !extra.cancelled && !extra.destroyed;
}

bool is_session_good(const quillon_connection &connection) {
  const std::lock_guard lock(connection.extra->mutex);
  return is_session_good_locked(connection);
}

bool mark_grid_connected(quillon_connection &connection) {
  const std::lock_guard lock(connection.extra->mutex);
  if (!is_session_good_locked(connection)) return false;
  connection.is_grid_connected = true;
  qlk::note_phase_locked(connection);
  return true;
}

// What the loop runs when it is done with what it is doing now, which may be never: it must not keep the connection.
struct LoopPass {
  quillon_connection &connection;
  const std::shared_ptr<qlk::ClientGate> gate;  // while it lets somebody pass the connection is there
};

void note_pass(void *arg, bool) {
  const std::unique_ptr<LoopPass> pass(static_cast<LoopPass *>(arg));
  pass->gate->use([&](wb_client *) {
    qlk::ConnectionPrivate &extra = *pass->connection.extra;
    const std::lock_guard lock(extra.mutex);
    ++extra.loop_passes;
    extra.changed.notify_all();
  });
}

// A request without an answer may be the first sign of a session that has ended: the loop tells of that only afterwards. Waits
// until it has, or has nothing to tell.
void hear_of_end(quillon_connection &connection) {
  qlk::ConnectionPrivate &extra = *connection.extra;
  const auto deadline = qlk::SteadyClock::now() + std::chrono::seconds(qlk::send_timeout_seconds(connection));
  std::unique_ptr<LoopPass> pass(new (std::nothrow) LoopPass{connection, extra.gate});
  std::unique_lock lock(extra.mutex);
  const unsigned passes = extra.loop_passes;
  if (pass == nullptr || !wb_workq_put(extra.loop->queue(), note_pass, pass.get(), nullptr)) return;
  static_cast<void>(pass.release());  // the queue's now
  extra.changed.wait_until(lock, deadline, [&] { return extra.loop_passes != passes || !is_session_good_locked(connection); });
}

// Announces what is remembered, and tells the application unless the session has ended over that.
QUILLON_STATUS begin_membership(quillon_connection &connection) {
  if (!qlk::guarded_or(__func__, false, [&] { return qlk::announce_remembered(connection); })) hear_of_end(connection);
  const auto callback =
      qlk::user_callback(connection, &_quillon_connection::connect_cb, &_quillon_connection::connect_cb_user_data);
  if (!is_session_good(connection)) return fail("the session ended while connecting", QUILLON_STATUS_CONNECTION_ERROR);
  if (callback.function != nullptr) callback.function(&connection, callback.user_data);
  return QUILLON_STATUS_OK;
}

QUILLON_STATUS join_grid(quillon_connection &connection) {
  if (const QUILLON_STATUS status = _presence_to_controller(connection); status != QUILLON_STATUS_OK) {
    quillon_connection_disconnect(&connection);
    log_with_text("_presence_to_controller", status);
    return status;
  }
  quillon_monitor_clear(connection.connection_update_monitor);
  if (is_called_off(connection)) return QUILLON_STATUS_CONNECTION_ERROR;
  QUILLON_STATUS status = _connect_request(connection);
  if (connection.extra->destroyed) return QUILLON_STATUS_CONNECTION_ERROR;
  if (status == QUILLON_STATUS_ACCOUNT_PENDING) status = wait_for_approval(connection);
  if (status != QUILLON_STATUS_OK) return status;
  if (!mark_grid_connected(connection)) return fail("the session ended while connecting", QUILLON_STATUS_CONNECTION_ERROR);
  return begin_membership(connection);
}

// The connect under way, for the length of its scope, once there is no other. False when the connection is left meanwhile: who
// leaves it may do so out of a callback of the other connect, and wait for the thread that would wait here.
class Connecting {
 public:
  explicit Connecting(quillon_connection &connection, int own_leaving) : connection_(connection), extra_(*connection.extra) {
    std::unique_lock lock(extra_.mutex);
    extra_.changed.wait(lock, [&] { return !extra_.connecting || extra_.destroyed || extra_.leaving > own_leaving; });
    admitted_ = !extra_.connecting && !extra_.destroyed;
    if (!admitted_) return;
    extra_.connecting = true;
    extra_.connect_thread = pthread_self();
    extra_.cancelled = false;
    qlk::note_phase_locked(connection_);
  }
  ~Connecting() {
    if (!admitted_) return;
    const std::lock_guard lock(extra_.mutex);
    extra_.connecting = false;
    extra_.changed.notify_all();
    qlk::note_phase_locked(connection_);
  }
  Connecting(const Connecting &) = delete;
  Connecting &operator=(const Connecting &) = delete;
  explicit operator bool() const { return admitted_; }

 private:
  const quillon_connection &connection_;
  qlk::ConnectionPrivate &extra_;
  bool admitted_ = false;
};

// Nobody wants what the connect waits for any more.
void call_off(quillon_connection &connection) {
  {
    const std::lock_guard lock(connection.extra->mutex);
    connection.extra->cancelled = true;
    connection.extra->changed.notify_all();
  }
  quillon_monitor_notify(connection.xmpp_connection_monitor);
  quillon_monitor_notify(connection.connection_update_monitor);
}

bool is_connecting_here(quillon_connection &connection) {
  const std::lock_guard lock(connection.extra->mutex);
  return connection.extra->connecting && pthread_equal(connection.extra->connect_thread, pthread_self()) != 0;
}

QUILLON_STATUS connect_locked(quillon_connection &connection, const std::atomic<bool> *keep_running) {
  if (connection.extra->destroyed || (keep_running != nullptr && !*keep_running)) return QUILLON_STATUS_CONNECTION_ERROR;
  const auto end_drain = [&] {
    connection.query->calls.open();
    connection.extra->async_queries->resume();
  };
  if (connection.is_grid_connected) {
    wb_log(WB_LOG_WARN, "quillon is connecting or already connected");
    end_drain();  // one that failed may have left the session
    return QUILLON_STATUS_OK;
  }
  if (connection.extra->loop->is_closed()) return fail("the library has been shut down", QUILLON_STATUS_CONNECTION_ERROR);
  if (!end_previous_session(connection)) return QUILLON_STATUS_CONNECTION_ERROR;
  end_drain();
  if (const QUILLON_STATUS status = read_target(connection); status != QUILLON_STATUS_OK) return status;
  limit_handler_queues(connection);
  wb_log(WB_LOG_INFO, "connecting to host %s .......", connection.extra->host.c_str());
  wb_err err = {};
  if (!put_target(connection, &err)) {
    wb_log_err(WB_LOG_ERROR, &err, "error populating configuration htable");
    return QUILLON_STATUS_WB_ERROR;
  }
  advance_rotation(*connection.config);
  // Should the session end at once, what joining still puts on the loop is refused there, and not left undone until its time-out.
  const LoopUse use(connection);
  if (const QUILLON_STATUS status = open_session(connection); status != QUILLON_STATUS_OK) return status;
  return join_grid(connection);
}

}  // namespace

QUILLON_STATUS qlk::connect(quillon_connection &connection, const std::atomic<bool> *keep_running, int own_leaving) {
  const ConnectionHold hold(connection);  // outlives the lock, which is part of the record
  if (is_on_loop(connection)) return fail("cannot connect on the event loop thread", QUILLON_STATUS_CONNECTION_ERROR);
  if (is_connecting_here(connection)) {
    wb_log(WB_LOG_WARN, "quillon is connecting or already connected");
    return connection.is_grid_connected ? QUILLON_STATUS_OK : QUILLON_STATUS_CONNECTION_ERROR;
  }
  const Connecting connecting(connection, own_leaving);
  if (!connecting) return fail("the connection is left while it connects", QUILLON_STATUS_CONNECTION_ERROR);
  const PthreadLock lock(connection.connect_lock);
  // After a shutdown nothing comes any more that would end a wait.
  const ClientGate::Waiting woken(*connection.extra->gate, [&connection] { call_off(connection); });
  if (!woken) return fail("the connection is destroyed, or the library shut down", QUILLON_STATUS_CONNECTION_ERROR);
  return connect_locked(connection, keep_running);
}

QUILLON_STATUS quillon_connection_connect(const quillon_connection *connection) {
  qlk::trace(__func__);
  if (connection == nullptr) return qlk::refuse(kInvalidConnection);
  return qlk::guarded(__func__, [&] { return qlk::connect(writable(connection), nullptr); });
}

QUILLON_STATUS quillon_connection_disconnect(const quillon_connection *connection) {
  qlk::trace(__func__);
  if (connection == nullptr) return qlk::refuse(kInvalidConnection);
  return qlk::guarded(__func__, [&]() -> QUILLON_STATUS {
    quillon_connection &target = writable(connection);
    const qlk::ConnectionHold hold(target);
    unsigned session = 0;  // that is to be ended
    bool ends_connect = false;
    {
      const std::lock_guard lock(target.extra->mutex);
      qlk::ConnectionPrivate &extra = *target.extra;
      ends_connect = extra.connecting;
      if (ends_connect) extra.cancelled = true;
      if (target.is_xmpp_connected || (extra.connecting && extra.session.posted)) session = extra.session.number;
    }
    if (ends_connect) quillon_monitor_notify(target.xmpp_connection_monitor);
    if (session != 0 && qlk::is_on_loop(target)) {
      wb_log(WB_LOG_ERROR, "quillon_connection_disconnect cannot wait on the event loop thread");
    } else if (const QUILLON_STATUS status = end_session(target, session); status != QUILLON_STATUS_OK) {
      return fail("no memory to end the session", status);
    }
    wb_log(WB_LOG_INFO, "quillon_connection_disconnect successful");
    return QUILLON_STATUS_OK;
  });
}

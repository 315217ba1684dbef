// Notifications. What is received is checked for its sender and shape and handed to every handler of its payload's name. A
// handler may register others, destroy capabilities and even its own connection, so that no lock is held while it runs and the
// list that is being walked stays as it is: changes meanwhile go into a copy, or wait until the walk has ended.
#include "quillon_notification.h"

#include <algorithm>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>

#include "connection_private.h"
#include "expanded_name.h"
#include "guard.h"
#include "quillon_capability.h"
#include "quillon_connection.h"
#include "quillon_grid.h"
#include "stanza_builder.h"

#define PUBSUB_NS "http://jabber.org/protocol/pubsub"

const char *const notif_quillon = "{quillon}grid";

namespace {

using qlk::NotificationHandler;
using qlk::NotificationHandlers;
using Slot = std::shared_ptr<NotificationHandlers>;

constexpr unsigned kTableBuckets = 7;
constexpr char kNotification[] = "notification";

void free_slot(bool, bool, void *key, void *value) {
  std::free(key);
  delete static_cast<Slot *>(value);
}

wb_dom_node *drop(const char *reason) {
  wb_log(WB_LOG_ERROR, "%s", reason);
  return nullptr;
}

// True when the stanza comes from that address or, where the address has no resource, from one of its resources. A user whose
// name merely begins like the address is somebody else.
bool comes_from(std::string_view from, std::string_view jid) {
  if (from == jid) return true;
  const bool any_resource = jid.find('/') == jid.npos;
  return any_resource && from.size() > jid.size() && from.substr(0, jid.size()) == jid && from[jid.size()] == '/';
}

// A server may tell a client about its subscription by message: that is no notification, and nothing is wrong with it.
bool is_subscription_event(const wb_dom_node *child_of_event) {
  return std::strcmp(wb_dom_get_ename(child_of_event), "{" PUBSUB_NS "#event}subscription") == 0;
}

// The grid element of an event of the publish-subscribe service; null, with the reason logged, when there is none.
wb_dom_node *grid_of_event(const wb_dom_node *message) {
  const wb_dom_node *event = wb_dom_get_first_child(message);
  if (event == nullptr) return drop("Get event_node failed");
  const wb_dom_node *items = wb_dom_get_first_child(event);
  if (items == nullptr) return drop("Get items failed");
  if (is_subscription_event(items)) return nullptr;
  const wb_dom_node *item = wb_dom_get_first_child(items);
  if (item == nullptr) return drop("Get item failed");
  wb_dom_node *grid = wb_dom_get_first_child(item);
  return grid != nullptr ? grid : drop("Get grid failed");
}

wb_dom_node *find_grid(const wb_dom_node *message) {
  const char *from = wb_dom_get_attribute(message, "from");
  if (from == nullptr) return drop("Get attribute for from failed");
  if (comes_from(from, PUBSUB_JID)) return grid_of_event(message);
  if (comes_from(from, CONTROLLER_JID)) {
    wb_dom_node *grid = wb_dom_get_first_child(message);
    return grid != nullptr ? grid : drop("Get grid failed");
  }
  wb_log(WB_LOG_ERROR, "Notification source unknown: %s", from);
  return nullptr;
}

// The payload of a notification; null when the message is none, which is logged.
wb_dom_node *_parse_for_notf(const wb_dom_node *message) {
  const wb_dom_node *grid = find_grid(message);
  if (grid == nullptr) return nullptr;
  const char *type = wb_dom_get_attribute(grid, "type");
  if (type == nullptr) return drop("Get type attribute failed");
  if (std::strncmp(type, kNotification, std::strlen(kNotification)) != 0) {
    wb_log(WB_LOG_ERROR, "Expected type notification. But got %s", type);
    return nullptr;
  }
  wb_dom_node *payload = wb_dom_get_first_child(grid);
  return payload != nullptr ? payload : drop("Get notfication call failed");
}

// The session that is open; 0 for none.
unsigned session_number(const quillon_connection *connection) {
  if (connection == nullptr) return 0;
  const std::lock_guard lock(connection->extra->mutex);
  return connection->extra->session.number;
}

bool is_stale(const NotificationHandler &handler) {
  return handler.capability != nullptr && handler.capability->destroyed.load();
}

// Holds the list that is dispatched to as it is.
class Dispatching {
 public:
  Dispatching(_quillon_notification &notification, const wb_dom_node *payload) : notification_(notification) {
    const std::lock_guard lock(notification_.map_mutex);
    const auto *slot =
        static_cast<const Slot *>(wb_htable_get(notification_.map_of_name_to_callback.get(), wb_dom_get_ename(payload)));
    if (slot != nullptr) notification_.in_dispatch = *slot;
  }
  ~Dispatching() {
    const std::lock_guard lock(notification_.map_mutex);
    if (notification_.has_stale) std::erase_if(*notification_.in_dispatch, is_stale);
    notification_.has_stale = false;
    notification_.in_dispatch.reset();
  }
  Dispatching(const Dispatching &) = delete;
  Dispatching &operator=(const Dispatching &) = delete;

  // Null when nobody has registered. Only the dispatch thread changes which list it is.
  const NotificationHandlers *handlers() const { return notification_.in_dispatch.get(); }

 private:
  _quillon_notification &notification_;
};

// The list under the key, to be changed in place: a copy when it is being dispatched to. Throws when memory is exhausted, false
// when the table refused.
bool changeable_locked(_quillon_notification &notification, const char *key, Slot *&out) {
  wb_htable *table = notification.map_of_name_to_callback.get();
  if (auto *found = static_cast<Slot *>(wb_htable_get(table, key))) {
    if (*found == notification.in_dispatch) {
      *found = std::make_shared<NotificationHandlers>(**found);
      std::erase_if(**found, is_stale);  // the end of the dispatching takes them out of the other list only
    }
    out = found;
    return true;
  }
  auto fresh = std::make_unique<Slot>(std::make_shared<NotificationHandlers>());
  qlk::MallocPtr<char> own_key(strdup(key));
  if (own_key == nullptr) throw std::bad_alloc();
  if (!wb_htable_put(table, own_key.get(), fresh.get(), free_slot, nullptr)) return false;
  static_cast<void>(own_key.release());
  out = fresh.release();
  return true;
}

bool is_registered(const NotificationHandlers &handlers, const quillon_notification_callback_info &info) {
  return std::any_of(handlers.begin(), handlers.end(), [&](const NotificationHandler &handler) {
    return handler.info.callback == info.callback && handler.info.arg == info.arg;
  });
}

const NotificationHandlers *find_locked(_quillon_notification &notification, const char *key) {
  const auto *slot = static_cast<const Slot *>(wb_htable_get(notification.map_of_name_to_callback.get(), key));
  return slot != nullptr ? slot->get() : nullptr;
}

QUILLON_STATUS add_handler(_quillon_notification &notification, const char *key, NotificationHandler handler) {
  const std::lock_guard lock(notification.map_mutex);
  // A publisher update is applied once, however often its capability was subscribed and refreshed.
  const NotificationHandlers *present = handler.capability != nullptr ? find_locked(notification, key) : nullptr;
  if (present != nullptr && is_registered(*present, handler.info)) return QUILLON_STATUS_OK;
  Slot *slot = nullptr;
  if (!changeable_locked(notification, key, slot)) return QUILLON_STATUS_WB_ERROR;
  (*slot)->push_back(std::move(handler));
  return QUILLON_STATUS_OK;
}

// Lets the registration end with its capability: from now on one knows of the other.
QUILLON_STATUS add_publisher_update(_quillon_notification &notification, const char *key,
                                    const quillon_notification_callback_info &info) {
  const auto capability = static_cast<quillon_capability *>(info.arg)->weak_self.lock();
  if (capability == nullptr) return QUILLON_STATUS_OK;
  const std::lock_guard lock(capability->mutex);
  if (capability->destroyed) return QUILLON_STATUS_OK;  // by another thread, while it was being subscribed
  qlk::capability_remember_engine_locked(*capability, notification.weak_self);
  return add_handler(notification, key, {info, capability});
}

bool forget_in_slot(wb_htable *, const void *, void *value, void *arg) {
  auto &notification = *static_cast<_quillon_notification *>(arg);
  Slot &slot = *static_cast<Slot *>(value);
  if (slot == notification.in_dispatch) {
    notification.has_stale = true;
  } else {
    std::erase_if(*slot, is_stale);
  }
  return true;
}

void call_handlers(const _quillon_notification &notification, const NotificationHandlers &handlers, wb_dom_node *payload) {
  for (const NotificationHandler &handler : handlers) {
    if (!notification.notf_handler.keep_running()) return;  // a handler has destroyed the connection
    if (is_stale(handler)) continue;
    qlk::guarded_void("notification handler", [&] { handler.info.callback(payload, handler.info.arg); });
  }
}

wb_dom_node *build_publish(int64_t id, const char *topic, wb_dom_node *payload) {
  char id_text[33];
  snprintf(id_text, sizeof id_text, "%" PRIx64, static_cast<uint64_t>(id));
  qlk::StanzaBuilder builder(wb_dom_get_context(payload));
  wb_dom_node *iq = builder.element("{jabber:client}iq");
  builder.attribute(iq, "{}id", id_text);
  builder.attribute(iq, "{}to", PUBSUB_JID);
  builder.attribute(iq, "{}type", "set");
  wb_dom_node *publish = builder.element("{" PUBSUB_NS "}publish", builder.element("{" PUBSUB_NS "}pubsub", iq));
  builder.attribute(publish, "{}node", topic);
  wb_dom_node *item = builder.element("{" PUBSUB_NS "}item", publish);
  wb_dom_node *grid = builder.element(notif_quillon, item);
  builder.attribute(grid, "{}type", kNotification);
  builder.child(grid, payload);
  if (builder.ok()) return iq;
  builder.log_failure("quillon_connection_notify");
  return nullptr;
}

// Hands the payload, which it consumes, to the event loop.
QUILLON_STATUS publish(_quillon_notification &notification, const quillon_capability &capability, qlk::NodePtr payload) {
  std::string topic;
  const bool has_topic = qlk::capability_copy_text(capability, &quillon_capability::topic, topic);
  wb_dom_node *iq = build_publish(notification.iq_id.fetch_add(1), has_topic ? topic.c_str() : nullptr, payload.get());
  if (iq == nullptr) return QUILLON_STATUS_XML_ERROR;
  quillon_data *data = nullptr;
  const QUILLON_STATUS created = quillon_wb_client_create(&data, notification.connection);
  if (created != QUILLON_STATUS_OK) return created;
  static_cast<void>(payload.release());  // the send consumes it
  const QUILLON_STATUS status = quillon_wb_client_send_and_forget(data, iq);
  quillon_wb_client_destroy(data);
  return status;
}

}  // namespace

bool qlk::is_from_controller(const wb_dom_node *message) {
  const char *from = wb_dom_get_attribute(message, "from");
  return from != nullptr && comes_from(from, CONTROLLER_JID);
}

void qlk::notification_stop(quillon_notification *notification) {
  if (notification != nullptr) notification->notf_handler.stop();
}

void qlk::notification_forget_destroyed(_quillon_notification &notification) {
  const std::lock_guard lock(notification.map_mutex);
  wb_htable_walk(notification.map_of_name_to_callback.get(), forget_in_slot, &notification, nullptr);
}

void qlk::handle_notification(void *owner, wb_dom_node *message) {
  auto &notification = *static_cast<_quillon_notification *>(owner);
  wb_dom_node *payload = _parse_for_notf(message);
  if (payload == nullptr) return;
  const Dispatching dispatching(notification, payload);
  if (dispatching.handlers() != nullptr) call_handlers(notification, *dispatching.handlers(), payload);
}

QUILLON_STATUS quillon_notification_create(quillon_notification **notification, quillon_connection *connection) {
  qlk::trace(__func__);
  if (notification == nullptr) return qlk::refuse("notification is null");
  *notification = nullptr;
  return qlk::guarded(__func__, [&]() -> QUILLON_STATUS {
    auto created = std::make_shared<_quillon_notification>();
    created->connection = connection;
    created->weak_self = created;
    created->iq_id = static_cast<int64_t>(std::time(nullptr)) * 1000;
    wb_htable *table = nullptr;
    wb_err err = {};
    if (!wb_htable_create(kTableBuckets, wb_strcase_hashcode, wb_strcase_compare, &table, &err)) {
      wb_log_err(WB_LOG_ERROR, &err, "quillon_notification_create");
      return QUILLON_STATUS_WB_ERROR;
    }
    created->map_of_name_to_callback.reset(table);
    const QUILLON_STATUS status = created->notf_handler.start(created, qlk::handle_notification);
    if (status != QUILLON_STATUS_OK) return status;
    created->self = created;
    *notification = created.get();
    return QUILLON_STATUS_OK;
  });
}

QUILLON_STATUS quillon_notification_destroy(quillon_notification *notification) {
  qlk::trace(__func__);
  if (notification == nullptr) return QUILLON_STATUS_OK;
  qlk::notification_stop(notification);
  const std::shared_ptr<_quillon_notification> last = std::move(notification->self);
  return QUILLON_STATUS_OK;
}

QUILLON_STATUS quillon_notification_register_handler(quillon_notification *notification, const quillon_string *ns,
                                                     const quillon_string *name, quillon_notification_cb callback, void *arg) {
  qlk::trace(__func__);
  if (notification == nullptr) return QUILLON_STATUS_INVALID_ARGS;
  if (ns == nullptr || callback == nullptr || qlk::text_of(name).empty()) return qlk::refuse("invalid notification handler");
  return qlk::guarded(__func__, [&]() -> QUILLON_STATUS {
    const qlk::StringPtr key = qlk::make_expanded_name(*ns, *name);
    if (!quillon_string_validate(key.get())) {
      wb_log(WB_LOG_ERROR, "string validation failed");
      return QUILLON_STATUS_MALLOC_ERROR;
    }
    const quillon_notification_callback_info info = {callback, arg};
    if (callback == _publisher_update_notification && arg != nullptr)
      return add_publisher_update(*notification, quillon_string_cstr(key.get()), info);
    return add_handler(*notification, quillon_string_cstr(key.get()), {info, nullptr});
  });
}

QUILLON_STATUS quillon_notification_handle(quillon_notification *notification, wb_dom_node *message) {
  if (notification == nullptr) return qlk::refuse("notification is null");
  qlk::DispatchThread &queue = notification->notf_handler;
  const bool is_needed = queue.gauge().is_bounded() && qlk::is_from_controller(message);
  const auto admission = is_needed ? qlk::QueueGauge::Admission::kNeeded : qlk::QueueGauge::Admission::kBounded;
  const QUILLON_STATUS status = queue.push(message, admission, session_number(notification->connection));
  if (status == QUILLON_STATUS_WB_ERROR) wb_log(WB_LOG_ERROR, "quillon_notification_handle retain failed");
  if (status == QUILLON_STATUS_MALLOC_ERROR) qlk::out_of_memory(__func__);
  return status;
}

QUILLON_STATUS quillon_notification_call(quillon_notification *notification, quillon_capability *capability,
                                         wb_dom_node *payload) {
  qlk::trace(__func__);
  if (notification == nullptr) return QUILLON_STATUS_QUILLON_ERROR;
  if (capability == nullptr) return qlk::refuse("capability is null");
  if (payload == nullptr) return qlk::refuse("notification is null");
  if (notification->connection == nullptr) return qlk::refuse("invalid connection object");
  return qlk::guarded(__func__, [&] { return publish(*notification, *capability, qlk::NodePtr(payload)); });
}

// The connection as the application's way to its engines and to the controller.
#include <atomic>
#include <cstring>

#include "connection_private.h"
#include "guard.h"
#include "owners.h"
#include "quillon_grid.h"
#include "stanza_builder.h"

namespace {

constexpr char kInvalidConnection[] = "Invalid connection object";

// A string that may be empty.
QUILLON_STATUS make_text(const char *text, qlk::StringPtr &out) {
  quillon_string *made = nullptr;
  const QUILLON_STATUS status =
      *text != '\0' ? quillon_string_create(&made, text, std::strlen(text)) : quillon_string_default_create(&made);
  out.reset(made);
  return status;
}

// Makes strings of the two and registers with them.
template <typename Register>
QUILLON_STATUS register_under(const char *ns, const char *name, Register &&register_handler) {
  if (ns == nullptr || name == nullptr || *name == '\0') return qlk::refuse("Invalid handler name");
  qlk::StringPtr ns_string, name_string;
  if (const QUILLON_STATUS status = make_text(ns, ns_string); status != QUILLON_STATUS_OK) return status;
  if (const QUILLON_STATUS status = make_text(name, name_string); status != QUILLON_STATUS_OK) return status;
  return register_handler(ns_string.get(), name_string.get());
}

QUILLON_STATUS fail(const char *message, QUILLON_STATUS status) {
  wb_log(WB_LOG_ERROR, "%s", message);
  return status;
}

// What both requests check first. OK: send.
QUILLON_STATUS check_request(quillon_connection *connection, wb_dom_node **response) {
  if (connection == nullptr) return qlk::refuse(kInvalidConnection);
  if (response == nullptr) return qlk::refuse("Invalid response object");
  *response = nullptr;
  return quillon_connection_is_connected(connection) ? QUILLON_STATUS_OK : QUILLON_STATUS_NO_CONNECTION;
}

wb_dom_node *add_root(qlk::StanzaBuilder &builder, const char *ename) {
  wb_dom_node *root = builder.element(ename);
  builder.declare(root, "", core_capability_ns);
  builder.declare(root, "qn", GRID_NS);
  builder.declare(root, "xsi", XSI_NS);
  return root;
}

// Builds a request in a context of its own and sends it; fill adds its children.
template <typename Fill>
QUILLON_STATUS send_request(quillon_connection *connection, const char *ename, const char *create_caption,
                            const char *set_caption, wb_dom_node **response, Fill &&fill) {
  wb_err err = {};
  wb_dom_ctx *created = nullptr;
  if (!wb_dom_context_create(&created, &err)) {
    wb_log_err(WB_LOG_ERROR, &err, create_caption);
    return QUILLON_STATUS_XML_ERROR;
  }
  qlk::DomContextPtr context(created);
  qlk::StanzaBuilder builder(created);
  wb_dom_node *root = add_root(builder, ename);
  fill(builder, root);
  if (!builder.ok()) {
    builder.log_failure(set_caption);
    return QUILLON_STATUS_XML_ERROR;
  }
  static_cast<void>(context.release());  // the query consumes it
  return quillon_connection_query_controller(connection, root, response);
}

}  // namespace

QUILLON_STATUS qlk::core_capability_subscribe(quillon_connection *connection) {
  trace("quillon_core_capability_subscribe");
  if (connection == nullptr) return refuse(kInvalidConnection);
  if (connection->core_capability == nullptr) {
    const QUILLON_STATUS status = quillon_capability_create(&connection->core_capability);
    if (connection->core_capability == nullptr) return fail("Failed to create CoreCapability", status);
  }
  QUILLON_STATUS status = quillon_capability_set_namespace(connection->core_capability, core_capability_ns);
  if (status != QUILLON_STATUS_OK) return fail("Failed to set namespace", status);
  status = quillon_capability_set_name(connection->core_capability, core_capability_name);
  if (status != QUILLON_STATUS_OK) return fail("Failed to set name", status);
  status = quillon_capability_subscribe(connection->core_capability, connection);
  if (status != QUILLON_STATUS_OK) return fail("Failed to subscribe to core capability.", status);
  return status;
}

QUILLON_STATUS qlk::quillon_connection_register_core_capability_handler(quillon_connection *connection) {
  trace(__func__);
  if (connection == nullptr) return refuse(kInvalidConnection);
  return quillon_connection_register_notification_handler(connection, core_capability_ns, core_notif_name,
                                                          quillon_connection_topic_handler, &connection->topic_cb_info);
}

QUILLON_STATUS quillon_connection_query_controller(quillon_connection *connection, wb_dom_node *request, wb_dom_node **response) {
  qlk::trace(__func__);
  if (connection == nullptr) return qlk::refuse(kInvalidConnection);
  return qlk::guarded(__func__, [&]() -> QUILLON_STATUS {
    const qlk::StringPtr jid = qlk::make_string(CONTROLLER_JID);
    if (jid != nullptr) return quillon_query_call_with_jid(connection->query, jid.get(), request, response);
    const qlk::NodePtr unsent(request);
    return QUILLON_STATUS_MALLOC_ERROR;
  });
}

QUILLON_STATUS quillon_connection_query(quillon_connection *connection, quillon_capability *capability, wb_dom_node *request,
                                        wb_dom_node **response) {
  qlk::trace(__func__);
  if (connection == nullptr) return qlk::refuse(kInvalidConnection);
  return quillon_query_call(connection->query, capability, request, response);
}

QUILLON_STATUS quillon_connection_notify(quillon_connection *connection, quillon_capability *capability, wb_dom_node *notf) {
  qlk::trace(__func__);
  if (connection == nullptr) return qlk::refuse(kInvalidConnection);
  return quillon_notification_call(connection->notification, capability, notf);
}

QUILLON_STATUS quillon_connection_register_notification_handler(quillon_connection *connection, const char *ns, const char *name,
                                                                quillon_notification_cb callback, void *arg) {
  qlk::trace(__func__);
  if (connection == nullptr) return qlk::refuse(kInvalidConnection);
  return register_under(ns, name, [&](const quillon_string *ns_string, const quillon_string *name_string) {
    return quillon_notification_register_handler(connection->notification, ns_string, name_string, callback, arg);
  });
}

QUILLON_STATUS quillon_connection_register_query_handler(quillon_connection *connection, const char *ns, const char *name,
                                                         quillon_query_cb callback, void *arg) {
  qlk::trace(__func__);
  if (connection == nullptr) return qlk::refuse(kInvalidConnection);
  return register_under(ns, name, [&](const quillon_string *ns_string, const quillon_string *name_string) {
    return quillon_query_register_handler(connection->query, ns_string, name_string, callback, arg);
  });
}

// Both sides of topic_cb_info are atomic accesses, so that a handler may be set while updates arrive: the argument is there
// before the callback is.
void quillon_connection_topic_handler(wb_dom_node *node, void *arg) {
  qlk::trace(__func__);
  auto *info = static_cast<quillon_notification_callback_info *>(arg);
  if (info == nullptr) return;
  const quillon_notification_cb callback = std::atomic_ref(info->callback).load(std::memory_order_acquire);
  if (callback != nullptr) callback(node, std::atomic_ref(info->arg).load(std::memory_order_relaxed));
}

QUILLON_STATUS quillon_connection_register_topic_notification_handler(quillon_connection *connection,
                                                                      quillon_notification_cb callback, void *user_data) {
  qlk::trace(__func__);
  if (connection == nullptr) return qlk::refuse(kInvalidConnection);
  std::atomic_ref(connection->topic_cb_info.arg).store(user_data, std::memory_order_relaxed);
  std::atomic_ref(connection->topic_cb_info.callback).store(callback, std::memory_order_release);
  return QUILLON_STATUS_OK;
}

QUILLON_STATUS quillon_connection_query_capabilities(quillon_connection *connection, wb_dom_node **response) {
  qlk::trace(__func__);
  return qlk::guarded(__func__, [&]() -> QUILLON_STATUS {
    if (const QUILLON_STATUS status = check_request(connection, response); status != QUILLON_STATUS_OK) return status;
    return send_request(connection, ele_get_capabilities_name, "quillon_connection_query_capabilities create dom",
                        "quillon_connection_query_capabilities set dom", response, [](qlk::StanzaBuilder &, wb_dom_node *) {});
  });
}

QUILLON_STATUS quillon_connection_query_capability_status(quillon_connection *connection, const char *name, const char *version,
                                                          wb_dom_node **response) {
  qlk::trace(__func__);
  return qlk::guarded(__func__, [&]() -> QUILLON_STATUS {
    if (const QUILLON_STATUS status = check_request(connection, response); status != QUILLON_STATUS_OK) return status;
    if (name == nullptr) return fail("Invalid capability name", QUILLON_STATUS_UNKNOWN);
    return send_request(connection, ele_get_capability_status, "quillon_connection_query_capability_status create dom",
                        "quillon_connection_query_capability_status set dom", response,
                        [&](qlk::StanzaBuilder &builder, wb_dom_node *root) {
                          builder.text(root, ele_cap_name, name);
                          if (version != nullptr) builder.text(root, ele_cap_version, version);
                        });
  });
}

// Announcing capabilities to the controller, as their subscriber or their publisher, and keeping the lists of their publishers.
#include <cstring>
#include <string>

#include "controller_request.h"
#include "guard.h"
#include "quillon_capability.h"
#include "quillon_connection.h"
#include "quillon_grid.h"

#define GRID_NAME(local) "{" GRID_NS "}" local

const char *const element_subreq_name = GRID_NAME("subscribeRequest");
const char *const element_pubreq_name = GRID_NAME("initPublishRequest");
const char *const element_cap_name = GRID_NAME("capability");
const char *const element_cap_reference = GRID_NAME("capabilityRef");
const char *const capability_tag_id = GRID_NAME("id");
const char *const capability_name_tag = GRID_NAME("name");
const char *const namespace_version_tag = GRID_NAME("version");
const char *const element_attr_type_name = "{" XSI_NS "}type";
const char *const element_base_events_capability_name = "BaseEventsCapability";
const char *const node_xmppDetails_name = GRID_NAME("xmppDetails");
const char *const node_jid_name = GRID_NAME("jid");
const char *const node_error_name = GRID_NAME("error");
const char *const element_getallpubs_req_name = GRID_NAME("getAllPublishersRequest");
const char *const element_publisher_info = GRID_NAME("publisherInfo");
const char *const node_name_change = GRID_NAME("change");
const char *const node_name_pub_jid = GRID_NAME("publisherJID");
const char *const publish_update_notif_name = "publisherUpdateNotification";
const char *const cap_namespace_id = GRID_NS;
const char *const capability_tag_add = "add";
const char *const capability_tag_delete = "delete";
const char *const namespace_qn_tag = "qn";
const char *const namespace_xsi_tag = "xsi";
const char *const namespace_xsi_tag_value = XSI_NS;

namespace {

// How a capability is named in a request: a dynamic one by elements, a plain one by its type.
enum class Form { plain, dynamic };

// What differs between the two sides.
struct Role {
  qlk::Registry registry;
  const char *const *request_name;
  const char *context_failed;
  const char *build_failed;
  bool has_filter;
  const char *done;
  const char *done_again;
  const char *failed_again;
};

constexpr Role kSubscriber = {qlk::Registry::subscriptions,
                              &element_subreq_name,
                              "quillon_connection_subscribe_capability create dom",
                              "quillon_connection_subscribe_capability create dom",
                              true,
                              "successfully subscribed",
                              "successfully subscribed",
                              "WARNING - quillon_capability_subscribe failed"};
constexpr Role kPublisher = {qlk::Registry::publications,
                             &element_pubreq_name,
                             "quillon_capability_publish create dom",
                             "quillon_capability_publish set dom",
                             false,
                             "successfully published",
                             "Successfully published",
                             "WARNING - quillon_capability_publish failed"};

// Logs which of the two is missing.
bool check_arguments(const quillon_capability *capability, const quillon_connection *connection) {
  if (capability != nullptr && connection != nullptr) return true;
  wb_log(WB_LOG_ERROR, "%s", capability == nullptr ? "Invalid capability object" : "Invalid connection object");
  return false;
}

const char *text_or_null(const quillon_capability &capability, qlk::TextField field, std::string &copy) {
  return qlk::capability_copy_text(capability, field, copy) ? copy.c_str() : nullptr;
}

// Builds the request. The filter is the last child of the capability, although it is added after all else.
QUILLON_STATUS build_announcement(const quillon_capability &capability, Form form, const Role &role,
                                  qlk::ControllerRequest &request) {
  if (request.context() == nullptr) {
    request.build().log_failure(role.context_failed);
    return QUILLON_STATUS_XML_ERROR;
  }
  std::string namespace_copy, name_copy;
  const char *name = text_or_null(capability, &quillon_capability::name, name_copy);
  qlk::StanzaBuilder &build = request.build();
  build.declare(request.root(), "", text_or_null(capability, &quillon_capability::namespace_, namespace_copy));
  request.declare_prefixes(GRID_NS);
  wb_dom_node *element = build.element(element_cap_name, request.root());
  if (form == Form::dynamic) build.declare(element, namespace_qn_tag, element_base_events_capability_name);
  build.attribute(element, element_attr_type_name, form == Form::dynamic ? element_base_events_capability_name : name);
  build.text(element, capability_tag_id, "0");
  if (form == Form::dynamic) build.text(element, capability_name_tag, name);
  build.text(element, namespace_version_tag, "1.0");
  if (form == Form::dynamic) build.text(build.element(element_cap_reference, request.root()), capability_name_tag, name);
  if (!build.ok()) {
    build.log_failure(role.build_failed);
    return QUILLON_STATUS_XML_ERROR;
  }
  wb_dom_node *filter = nullptr;
  if (role.has_filter && !qlk::capability_copy_filter(capability, request.context(), &filter)) return QUILLON_STATUS_XML_ERROR;
  if (filter != nullptr) build.child(element, filter);
  return build.ok() ? QUILLON_STATUS_OK : QUILLON_STATUS_XML_ERROR;
}

// A text that is no JID, for its length, is passed over.
QUILLON_STATUS add_jid_of(const quillon_capability &capability, const wb_dom_node *node) {
  const char *text = wb_dom_get_first_text(node);
  quillon_string *made = nullptr;
  const QUILLON_STATUS status = text != nullptr ? quillon_string_create(&made, text, std::strlen(text)) : QUILLON_STATUS_OK;
  const qlk::StringPtr jid(made);
  if (jid != nullptr) return qlk::_add_jid(&capability, jid.get());
  return status == QUILLON_STATUS_MALLOC_ERROR ? status : QUILLON_STATUS_OK;
}

// The publishers that a subscribe reply lists; none when there is no reply.
QUILLON_STATUS add_listed_jids(const quillon_capability &capability, const wb_dom_node *reply) {
  const wb_dom_node *details = reply != nullptr ? wb_dom_get_first_element(reply, node_xmppDetails_name) : nullptr;
  wb_dom_node *jid = details != nullptr ? wb_dom_get_first_element(details, node_jid_name) : nullptr;
  while (jid != nullptr) {
    if (const QUILLON_STATUS status = add_jid_of(capability, jid); status != QUILLON_STATUS_OK) return status;
    wb_dom_node *next = nullptr;
    quillon_xml_get_sibling_of_name(jid, node_jid_name, &next);
    jid = next;
  }
  return QUILLON_STATUS_OK;
}

// Fails for want of memory only.
QUILLON_STATUS follow_publisher_updates(const quillon_capability &capability, quillon_connection *connection) {
  const QUILLON_STATUS status = quillon_connection_register_notification_handler(
      connection, cap_namespace_id, publish_update_notif_name, _publisher_update_notification,
      const_cast<quillon_capability *>(&capability));
  return status == QUILLON_STATUS_OK ? status : QUILLON_STATUS_MALLOC_ERROR;
}

QUILLON_STATUS query_subscriber(const quillon_capability *capability, quillon_connection *connection, Form form) {
  if (!check_arguments(capability, connection)) return QUILLON_STATUS_UNKNOWN;
  qlk::ControllerRequest request(element_subreq_name);
  QUILLON_STATUS status = build_announcement(*capability, form, kSubscriber, request);
  if (status != QUILLON_STATUS_OK) return status;
  qlk::NodePtr reply;
  status = request.send(connection, reply);
  if (qlk::no_answer(status)) return status;
  wb_dom_node *error = reply != nullptr ? wb_dom_get_first_element(reply.get(), node_error_name) : nullptr;
  if (error != nullptr) return quillon_status_get_from_error(error);
  const QUILLON_STATUS added = add_listed_jids(*capability, reply.get());
  const QUILLON_STATUS followed = follow_publisher_updates(*capability, connection);
  if (status != QUILLON_STATUS_OK) return status;
  return added != QUILLON_STATUS_OK ? added : followed;
}

QUILLON_STATUS query_publisher(const quillon_capability *capability, quillon_connection *connection, Form form) {
  if (!check_arguments(capability, connection)) return QUILLON_STATUS_UNKNOWN;
  qlk::ControllerRequest request(element_pubreq_name);
  const QUILLON_STATUS status = build_announcement(*capability, form, kPublisher, request);
  if (status != QUILLON_STATUS_OK) return status;
  qlk::NodePtr unread;
  return request.send(connection, unread);
}

QUILLON_STATUS announce(const quillon_capability *capability, quillon_connection *connection, const Role &role, Form form) {
  if (!check_arguments(capability, connection)) return QUILLON_STATUS_UNKNOWN;
  QUILLON_STATUS status = qlk::registry_add(role.registry, *capability);
  // While there is no connection it waits for the next connect.
  if (status != QUILLON_STATUS_OK || !quillon_connection_is_connected(connection)) return status;
  const auto query = role.registry == qlk::Registry::subscriptions ? query_subscriber : query_publisher;
  status = query(capability, connection, form);
  if (status == QUILLON_STATUS_OK) wb_log(WB_LOG_INFO, "%s", role.done);
  return status;
}

// A dynamic capability is announced in the plain form as well: the registries do not tell them apart. False when there was no
// answer.
bool announce_again(const quillon_capability &capability, quillon_connection *connection, const Role &role) {
  if (capability.destroyed) return true;
  const QUILLON_STATUS status =
      role.registry == qlk::Registry::subscriptions
          ? quillon_capability_create_and_query_subscriber(&capability, connection)
          : quillon_capability_create_and_query_publish(const_cast<quillon_capability *>(&capability), connection);
  wb_log(WB_LOG_INFO, "%s", status == QUILLON_STATUS_OK ? role.done_again : role.failed_again);
  return !qlk::no_answer(status) && status != QUILLON_STATUS_SEND_ERROR && status != QUILLON_STATUS_NO_CONNECTION;
}

// One that fails does not keep the others from being made, unless the session has ended: they would each wait for another in
// vain.
bool announce_all_again(quillon_connection *connection, const Role &role) {
  bool is_answered = true;
  for (const qlk::CapabilityPtr &capability : qlk::registry_snapshot(role.registry)) {
    const bool had_session = connection->is_xmpp_connected;
    is_answered = announce_again(*capability, connection, role) && is_answered;
    if (had_session && !connection->is_xmpp_connected) return false;
  }
  return is_answered;
}

// The registries are shared, and another connection that was destroyed may have taken the one core capability they list with it.
bool announce_core_again(quillon_connection *connection) {
  const quillon_capability *core = connection->core_capability;
  const bool is_listed = core == nullptr || qlk::registry_has_equal(qlk::Registry::subscriptions, *core);
  return is_listed || announce_again(*core, connection, kSubscriber);
}

// The publishers of one entry of the publisher list, from its first publisherJID on.
QUILLON_STATUS add_publishers(const quillon_capability &capability, const wb_dom_node *entry) {
  for (const wb_dom_node *node = wb_dom_get_first_element(entry, node_name_pub_jid); node != nullptr;
       node = wb_dom_get_sibling(node)) {
    const char *text = wb_dom_get_first_text(node);
    if (text == nullptr) return QUILLON_STATUS_XML_ERROR;
    const qlk::StringPtr jid = qlk::make_string(text);
    if (jid == nullptr) return QUILLON_STATUS_UNKNOWN;
    if (const QUILLON_STATUS status = qlk::_add_jid(&capability, jid.get()); status != QUILLON_STATUS_OK) return status;
  }
  return QUILLON_STATUS_OK;
}

bool names_capability(const wb_dom_node *entry, const char *name) {
  wb_dom_node *reference = wb_dom_get_first_element(entry, element_cap_reference);
  const char *text = reference != nullptr ? quillon_xml_get_text_of_first_child_of_name(reference, capability_name_tag) : nullptr;
  return text != nullptr && name != nullptr && std::strcmp(text, name) == 0;
}

QUILLON_STATUS read_publisher_list(const quillon_capability &capability, const wb_dom_node *reply) {
  std::string name_copy;
  const char *name = text_or_null(capability, &quillon_capability::name, name_copy);
  for (const wb_dom_node *entry = wb_dom_get_first_element(reply, element_publisher_info); entry != nullptr;
       entry = wb_dom_get_sibling(entry)) {
    if (!names_capability(entry, name)) continue;
    const QUILLON_STATUS status = add_publishers(capability, entry);
    if (status != QUILLON_STATUS_OK) return status;
  }
  return QUILLON_STATUS_OK;
}

QUILLON_STATUS refresh_publishers(const quillon_capability &capability, quillon_connection *connection) {
  if (const QUILLON_STATUS status = follow_publisher_updates(capability, connection); status != QUILLON_STATUS_OK) return status;
  qlk::ControllerRequest request(element_getallpubs_req_name);
  request.declare_prefixes(GRID_NS);
  if (!request.ok()) {
    request.build().log_failure("quillon_refresh_publisher_jids create dom");
    return QUILLON_STATUS_XML_ERROR;
  }
  qlk::NodePtr reply;
  request.send(connection, reply);  // without an answer the list stays as it is
  return reply != nullptr ? read_publisher_list(capability, reply.get()) : QUILLON_STATUS_OK;
}

bool begins_with(const char *text, const char *prefix) { return std::strncmp(text, prefix, std::strlen(prefix)) == 0; }

void apply_update(wb_dom_node *node, quillon_capability *capability) {
  const char *change = quillon_xml_get_text_of_first_child_of_name(node, node_name_change);
  const char *publisher = quillon_xml_get_text_of_first_child_of_name(node, node_name_pub_jid);
  if (change == nullptr || publisher == nullptr) return;
  const qlk::StringPtr jid = qlk::make_string(publisher);
  if (jid == nullptr) return;
  if (begins_with(change, capability_tag_add)) {
    qlk::_add_jid(capability, jid.get());
  } else if (begins_with(change, capability_tag_delete)) {
    qlk::_remove_jid(capability, jid.get());
  }
}

}  // namespace

QUILLON_STATUS quillon_capability_subscribe(const quillon_capability *capability, quillon_connection *connection) {
  qlk::trace(__func__);
  return qlk::guarded(__func__, [&] { return announce(capability, connection, kSubscriber, Form::plain); });
}

QUILLON_STATUS quillon_dynamic_capability_subscribe(const quillon_capability *capability, quillon_connection *connection) {
  qlk::trace(__func__);
  return qlk::guarded(__func__, [&] { return announce(capability, connection, kSubscriber, Form::dynamic); });
}

QUILLON_STATUS quillon_capability_publish(const quillon_capability *capability, quillon_connection *connection) {
  qlk::trace(__func__);
  return qlk::guarded(__func__, [&] { return announce(capability, connection, kPublisher, Form::plain); });
}

QUILLON_STATUS quillon_dynamic_capability_publish(const quillon_capability *capability, quillon_connection *connection) {
  qlk::trace(__func__);
  return qlk::guarded(__func__, [&] { return announce(capability, connection, kPublisher, Form::dynamic); });
}

QUILLON_STATUS quillon_capability_create_and_query_subscriber(const quillon_capability *capability,
                                                              quillon_connection *connection) {
  qlk::trace(__func__);
  return qlk::guarded(__func__, [&] { return query_subscriber(capability, connection, Form::plain); });
}

QUILLON_STATUS quillon_dynamic_capability_create_and_query_subscriber(const quillon_capability *capability,
                                                                      quillon_connection *connection) {
  qlk::trace(__func__);
  return qlk::guarded(__func__, [&] { return query_subscriber(capability, connection, Form::dynamic); });
}

QUILLON_STATUS quillon_capability_create_and_query_publish(quillon_capability *capability, quillon_connection *connection) {
  qlk::trace(__func__);
  return qlk::guarded(__func__, [&] { return query_publisher(capability, connection, Form::plain); });
}

QUILLON_STATUS quillon_dynamic_capability_create_and_query_publish(quillon_capability *capability,
                                                                   quillon_connection *connection) {
  qlk::trace(__func__);
  return qlk::guarded(__func__, [&] { return query_publisher(capability, connection, Form::dynamic); });
}

QUILLON_STATUS quillon_dynamic_capability_refresh_publisher_jids(quillon_capability *capability, quillon_connection *connection) {
  if (!check_arguments(capability, connection)) return QUILLON_STATUS_UNKNOWN;
  return qlk::guarded(__func__, [&] { return refresh_publishers(*capability, connection); });
}

void _publisher_update_notification(wb_dom_node *node, void *arg) {
  qlk::trace(__func__);
  if (node == nullptr || arg == nullptr) return;
  qlk::guarded_void(__func__, [&] { apply_update(node, static_cast<quillon_capability *>(arg)); });
}

bool qlk::announce_remembered(quillon_connection &connection) {
  const bool had_session = connection.is_xmpp_connected;
  const auto goes_on = [&] { return !had_session || connection.is_xmpp_connected; };
  bool is_answered = announce_core_again(&connection);
  if (goes_on()) is_answered = announce_all_again(&connection, kSubscriber) && is_answered;
  if (goes_on()) is_answered = announce_all_again(&connection, kPublisher) && is_answered;
  return is_answered;
}

void quillon_capability_on_connected(quillon_connection *connection) {
  qlk::trace(__func__);
  if (connection == nullptr) {
    wb_log(WB_LOG_ERROR, "Invalid connection object");
    return;
  }
  qlk::guarded_void(__func__, [&] { qlk::announce_remembered(*connection); });
}

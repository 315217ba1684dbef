// Stanzas of any shape reach the query and notification handlers of a connection, the library's own among them. The children of
// the document's root are the stanzas.
#include <cstring>

#include "fuzz.h"
#include "quillon_connection.h"
#include "quillon_notification.h"
#include "quillon_query.h"

namespace {

constexpr char kNamespace[] = "urn:fuzz";

void check_notification(wb_dom_node *notification, void *) {
  fuzz::require(std::strcmp(wb_dom_get_localname(notification), "news") == 0, "a handler gets what it registered for");
  fuzz::serialize(notification);
}

wb_dom_node *echo(wb_dom_node *request, void *) {
  fuzz::require(std::strcmp(wb_dom_get_localname(request), "ask") == 0, "a handler gets what it registered for");
  return request;
}

wb_dom_node *answer_nothing(wb_dom_node *, void *) { return nullptr; }

void ignore_account(quillon_connection *, QUILLON_STATUS, void *) {}

quillon_connection *make_connection() {
  quillon_log_set_level(QUILLON_LOG_NONE);
  quillon_connection *connection = nullptr;
  quillon_capability *capability = nullptr;
  const bool made =
      quillon_connection_create(&connection) == QUILLON_STATUS_OK &&
      quillon_connection_register_notification_handler(connection, kNamespace, "news", check_notification, nullptr) ==
          QUILLON_STATUS_OK &&
      quillon_connection_register_query_handler(connection, kNamespace, "ask", echo, nullptr) == QUILLON_STATUS_OK &&
      quillon_connection_register_query_handler(connection, "", "silent", answer_nothing, nullptr) == QUILLON_STATUS_OK &&
      quillon_capability_create(&capability) == QUILLON_STATUS_OK &&
      quillon_capability_set_namespace(capability, kNamespace) == QUILLON_STATUS_OK &&
      quillon_capability_set_name(capability, "Fuzzed") == QUILLON_STATUS_OK &&
      quillon_capability_subscribe(capability, connection) == QUILLON_STATUS_OK;  // follows the updates of publishers
  fuzz::require(made, "a connection can be set up");
  quillon_connection_set_account_cb(connection, ignore_account);
  return connection;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static quillon_connection *connection = make_connection();
  const fuzz::Tree tree = fuzz::parse(fuzz::text(data, size));
  if (tree == nullptr) return 0;
  // The stanzas are copied: a handler's answer is built into the request's context and takes the payload with it.
  for (const wb_dom_node *child = wb_dom_get_first_child(tree.get()); child != nullptr; child = wb_dom_get_sibling(child)) {
    const fuzz::Tree stanza = fuzz::parse(fuzz::serialize(child));
    fuzz::require(stanza != nullptr, "what was written parses");
    static_cast<void>(quillon_status_get_from_error(stanza.get()));
    if (std::string_view(wb_dom_get_localname(stanza.get())) == "message") {
      qlk::handle_notification(connection->notification, stanza.get());
    } else {
      qlk::handle_request(connection->query, stanza.get());
    }
  }
  return 0;
}

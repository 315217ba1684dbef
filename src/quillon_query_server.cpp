// The side of the queries that answers: every request runs on the request-handler thread, from its check to its reply.
#include <cstring>

#include "guard.h"
#include "quillon_connection.h"
#include "quillon_query.h"
#include "quillon_wb_client.h"
#include "stanza_builder.h"

namespace {

constexpr char kGrid[] = "{quillon}grid";
constexpr char kGet[] = "get";
constexpr char kRequest[] = "request";

bool begins_with(const char *text, const char *prefix) { return std::strncmp(text, prefix, std::strlen(prefix)) == 0; }

// The attribute "type", when it begins with the expected text; otherwise the reason is logged.
bool has_type(const wb_dom_node *node, const char *expected, const char *missing) {
  const char *type = wb_dom_get_attribute(node, "{}type");
  if (type == nullptr) {
    wb_log(WB_LOG_ERROR, "%s", missing);
    return false;
  }
  if (begins_with(type, expected)) return true;
  wb_log(WB_LOG_DEBUG, "Expected type as %s. But got %s", expected, type);
  return false;
}

// The payload of a request; null when the stanza is no request, which is logged.
wb_dom_node *_parse_for_request(const wb_dom_node *iq) {
  if (!has_type(iq, kGet, "Get attribute for type failed")) return nullptr;
  const wb_dom_node *grid = wb_dom_get_first_child(iq);
  if (grid == nullptr) {
    wb_log(WB_LOG_ERROR, "get_first_child for grid failed");
    return nullptr;
  }
  if (!begins_with(wb_dom_get_ename(grid), kGrid)) {
    wb_log(WB_LOG_DEBUG, "Expected {quillon}grid. But got %s", wb_dom_get_ename(grid));
    return nullptr;
  }
  if (!has_type(grid, kRequest, "Get attribute for grid type failed")) return nullptr;
  wb_dom_node *payload = wb_dom_get_first_child(grid);
  if (payload == nullptr) wb_log(WB_LOG_ERROR, "get_first_child on grid failed");
  return payload;
}

quillon_query_callback_info find_handler(_quillon_query &query, const wb_dom_node *payload) {
  const std::lock_guard lock(query.map_mutex);
  const auto *found = static_cast<const quillon_query_callback_info *>(
      wb_htable_get(query.map_of_name_to_callback.get(), wb_dom_get_ename(payload)));
  return found != nullptr ? *found : quillon_query_callback_info{};
}

// Sends the handler's answer to where the request came from.
void _query_response(const quillon_connection &connection, const wb_dom_node *request, qlk::NodePtr response) {
  qlk::StanzaBuilder builder(wb_dom_get_context(response.get()));
  wb_dom_node *iq = builder.element(qresp_iq);
  const auto copy = [&](const char *to, const char *from) {
    // What the request lacks the reply lacks too.
    if (const char *value = wb_dom_get_attribute(request, from)) builder.attribute(iq, to, value);
  };
  copy("{}id", "{}id");
  copy("{}to", "{}from");
  copy("{}from", "{}to");
  builder.attribute(iq, "{}type", qresp_result_tag);
  wb_dom_node *grid = builder.element(kGrid, iq);
  builder.attribute(grid, "{}type", qresp_response_tag);
  builder.child(grid, response.get());
  if (!builder.ok()) builder.log_failure("_query_response");
  if (iq == nullptr) return;
  wb_err err = {};
  static_cast<void>(response.release());  // the send consumes it
  if (!qlk::send_stanza(connection, iq, &err)) wb_log_err(WB_LOG_ERROR, &err, "send stanza failed");
}

// Takes the handler's answer over. It may be part of the request, as an echo is, and then needs a reference of its own.
qlk::NodePtr own_response(wb_dom_node *response, const wb_dom_node *request) {
  wb_dom_ctx *context = wb_dom_get_context(response);
  if (context != nullptr && context == wb_dom_get_context(request) && !wb_dom_context_retain(context, nullptr)) return nullptr;
  return qlk::NodePtr(response);
}

}  // namespace

void qlk::handle_request(void *owner, wb_dom_node *iq) {
  auto &query = *static_cast<_quillon_query *>(owner);
  wb_dom_node *payload = _parse_for_request(iq);
  if (payload == nullptr) return;
  const quillon_query_callback_info handler = find_handler(query, payload);
  if (handler.callback == nullptr) return;  // nobody answers: the requester's send time-out tells it
  qlk::NodePtr response = own_response(handler.callback(payload, handler.arg), iq);
  // Once the engine is stopped its connection may be gone, as when the handler destroyed it.
  const quillon_connection *connection = query.request_handler.keep_running() ? query.connection : nullptr;
  if (response != nullptr && connection != nullptr) {
    _query_response(*connection, iq, std::move(response));
  } else {
    wb_log(WB_LOG_WARN, "response && query->connection is null");
  }
}

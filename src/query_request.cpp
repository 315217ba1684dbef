#include "query_request.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "guard.h"
#include "quillon_connection.h"

namespace {

bool begins_with(const char *text, const char *prefix) { return std::strncmp(text, prefix, std::strlen(prefix)) == 0; }

void free_key(bool, bool, void *key, void *) { std::free(key); }

QUILLON_STATUS refuse_reply(const char *message, QUILLON_STATUS status) {
  wb_log(WB_LOG_ERROR, "%s", message);
  return status;
}

}  // namespace

wb_dom_node *qlk::build_request(const quillon_connection &connection, const quillon_string &jid, wb_dom_node *payload) {
  const std::string own = own_jid(connection);
  StanzaBuilder builder(wb_dom_get_context(payload));
  wb_dom_node *iq = builder.element(qresp_iq);
  builder.attribute(iq, "{}to", quillon_string_cstr(&jid));
  if (!own.empty()) builder.attribute(iq, "{}from", own.c_str());  // the server adds it otherwise
  builder.attribute(iq, "{}type", "get");
  wb_dom_node *grid = builder.element("{quillon}grid", iq);
  builder.attribute(grid, "{}type", "request");
  builder.child(grid, payload);
  if (builder.ok()) return iq;
  builder.log_failure("quillon_connection_query_with_jid");
  return nullptr;
}

qlk::NodePtr qlk::copy_payload(const wb_dom_node *payload) {
  wb_dom_ctx *created = nullptr;
  wb_err err = {};
  wb_dom_node *copy = nullptr;
  if (wb_dom_context_create(&created, &err)) {
    DomContextPtr context(created);
    if (wb_dom_import(created, payload, true, &copy, &err)) {
      static_cast<void>(context.release());  // the copy owns it
      return NodePtr(copy);
    }
  }
  wb_log_err(WB_LOG_ERROR, &err, "quillon_connection_query_with_jid");
  return nullptr;
}

QUILLON_STATUS qlk::read_reply(NodePtr reply, NodePtr &response) {
  const char *type = wb_dom_get_attribute(reply.get(), "type");
  if (type == nullptr) return refuse_reply("get attribute type failed", QUILLON_STATUS_XMPP_ERROR);
  if (!begins_with(type, qresp_result_tag)) {
    quillon_log_wb_dom(WB_LOG_DEBUG, reply.get(), "result");
    wb_log(WB_LOG_DEBUG, "response type=%s did not match qresp_result_tag=%s", type, qresp_result_tag);
    return QUILLON_STATUS_XMPP_ERROR;
  }
  const wb_dom_node *grid = wb_dom_get_first_child(reply.get());
  if (grid == nullptr) return refuse_reply("get first child failed", QUILLON_STATUS_XMPP_ERROR);
  const char *grid_type = wb_dom_get_attribute(grid, "type");
  if (grid_type == nullptr || !begins_with(grid_type, qresp_response_tag)) {
    quillon_log_wb_dom(WB_LOG_DEBUG, reply.get(), "result");
    wb_log(WB_LOG_DEBUG, "response type=%s did not match qresp_response_tag=%s", grid_type != nullptr ? grid_type : "(null)",
           qresp_response_tag);
    return QUILLON_STATUS_QUILLON_ERROR;
  }
  wb_dom_node *payload = wb_dom_get_first_child(grid);
  if (payload == nullptr) return refuse_reply("response is null", QUILLON_STATUS_QUILLON_ERROR);
  static_cast<void>(reply.release());  // of one context with the payload, which owns it now
  response.reset(payload);
  return QUILLON_STATUS_OK;
}

size_t qlk::StickyIndex::read() {
  const std::lock_guard lock(query_.map_mutex);
  const auto stored = reinterpret_cast<uintptr_t>(wb_htable_get(table(), key_.data()));
  if (stored != 0) return stored - 1;
  store_locked(0);
  return 0;
}

void qlk::StickyIndex::store(size_t index) {
  const std::lock_guard lock(query_.map_mutex);
  store_locked(index);
}

void qlk::StickyIndex::store_locked(size_t index) {
  char *key = strdup(key_.data());
  if (key != nullptr && wb_htable_put(table(), key, reinterpret_cast<void *>(index + 1), free_key, nullptr)) return;
  std::free(key);  // the choice is not remembered: the next query starts where it would have started
}

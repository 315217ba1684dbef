// The side of the queries that asks, and the engine's life. A query goes to one publisher after the other until one answers;
// which one did is remembered, so that the next query starts there.
#include "quillon_query.h"

#include <cstdlib>

#include "connection_private.h"
#include "expanded_name.h"
#include "guard.h"
#include "query_request.h"
#include "quillon_capability.h"
#include "quillon_grid.h"
#include "quillon_wb_client.h"
#include "stanza_builder.h"

const char *const generic_message = "{" GRID_NS "}genericMessage";
const char *const qresp_iq = "{jabber:client}iq";
const char *const qresp_result_tag = "result";
const char *const qresp_response_tag = "response";

namespace {

constexpr unsigned kTableBuckets = 7;

void free_key_and_value(bool, bool, void *key, void *value) {
  std::free(key);
  std::free(value);
}

bool create_table(qlk::TablePtr &out) {
  wb_htable *table = nullptr;
  wb_err err = {};
  if (!wb_htable_create(kTableBuckets, wb_strcase_hashcode, wb_strcase_compare, &table, &err))
    wb_log_err(WB_LOG_ERROR, &err, "quillon_query_create");
  out.reset(table);
  return out != nullptr;
}

// Sends the payload, which it consumes, and waits for the reply.
QUILLON_STATUS send_and_wait(quillon_connection &connection, const quillon_string &jid, qlk::NodePtr payload, qlk::NodePtr &reply,
                             qlk::SendFate &fate) {
  qlk::NodePtr iq(qlk::build_request(connection, jid, payload.get()));
  if (iq == nullptr) return QUILLON_STATUS_XML_ERROR;
  static_cast<void>(payload.release());  // of one context with the IQ, which owns it now
  const QUILLON_STATUS status = qlk::send_and_wait(connection, std::move(iq), reply, fate);
  if (status != QUILLON_STATUS_OK) wb_log(WB_LOG_ERROR, "send and wait failed");
  return status;
}

// One attempt; consumes the payload.
QUILLON_STATUS ask(const quillon_query &query, const quillon_string &jid, qlk::NodePtr payload, qlk::NodePtr &response,
                   qlk::CountedQuery &counted) {
  qlk::NodePtr reply;
  qlk::SendFate fate = qlk::SendFate::not_sent;
  QUILLON_STATUS status = send_and_wait(*query.connection, jid, std::move(payload), reply, fate);
  if (status == QUILLON_STATUS_OK) status = qlk::read_reply(std::move(reply), response);
  counted.end_attempt(status, fate);
  return status;
}

bool tries_next(QUILLON_STATUS status) { return status == QUILLON_STATUS_SEND_TIMEOUT || status == QUILLON_STATUS_XMPP_ERROR; }

// The connection is gone; or it was drained, and its session is over: no further publisher is asked by another one.
bool has_left(const _quillon_query &query) {
  const quillon_connection &connection = *query.connection;
  return connection.extra->destroyed || (query.calls.is_closed() && !connection.is_xmpp_connected);
}

// Asks the publishers in turn, each once, beginning with the sticky one. On CAPABILITY_NOT_FOUND the request is left to its
// owner.
QUILLON_STATUS ask_publishers(_quillon_query &query, const quillon_capability &capability, qlk::NodePtr &request,
                              qlk::NodePtr &response, qlk::CountedQuery &counted) {
  qlk::StickyIndex sticky(query, capability);
  const size_t start = sticky.read();
  const size_t count = qlk::capability_count_jids(capability);
  if (count == 0) return QUILLON_STATUS_CAPABILITY_NOT_FOUND;
  QUILLON_STATUS status = QUILLON_STATUS_UNKNOWN;
  size_t i = start < count ? start : 0;
  for (size_t attempt = 1;; ++attempt, ++i) {
    // The list may have changed since the last attempt, for example have lost the publisher that is gone. Beyond its end it goes
    // round.
    const qlk::StringPtr jid = qlk::capability_copy_jid(capability, i);
    if (jid == nullptr) return attempt == 1 ? QUILLON_STATUS_CAPABILITY_NOT_FOUND : status;
    const bool last = attempt == count;
    qlk::NodePtr payload = last ? std::move(request) : qlk::copy_payload(request.get());
    if (payload == nullptr) {
      counted.end_attempt(QUILLON_STATUS_XML_ERROR, qlk::SendFate::not_sent);
      return QUILLON_STATUS_XML_ERROR;
    }
    status = ask(query, *jid, std::move(payload), response, counted);
    if (!tries_next(status)) break;
    if (last || has_left(query)) return status;
  }
  if (i != start) sticky.store(i);
  return status;
}

// On success the table owns key and record.
bool put_handler(_quillon_query &query, char *key, quillon_query_callback_info *info) {
  const std::lock_guard lock(query.map_mutex);
  return wb_htable_put(query.map_of_name_to_callback.get(), key, info, free_key_and_value, nullptr);
}

// While the connection is drained nothing new is asked.
QUILLON_STATUS refuse_call(_quillon_query &query, wb_dom_node *request) {
  const qlk::NodePtr unsent(request);
  query.statistics.count_not_sent(qlk::QueryStatistics::Kind::synchronous);
  wb_log(WB_LOG_ERROR, "the connection is drained: no query is sent");
  return QUILLON_STATUS_NO_CONNECTION;
}

// Hands the response to the caller, who may not want it.
void hand_over(qlk::NodePtr response, wb_dom_node **out) {
  if (out != nullptr) *out = response.release();
}

}  // namespace

void qlk::query_stop(quillon_query *query) {
  if (query != nullptr) query->request_handler.stop();
}

QUILLON_STATUS quillon_query_create(quillon_query **query, quillon_connection *connection) {
  qlk::trace(__func__);
  if (query == nullptr) return qlk::refuse("query is null");
  *query = nullptr;
  if (connection == nullptr) return qlk::refuse("connection is null");
  return qlk::guarded(__func__, [&]() -> QUILLON_STATUS {
    auto created = std::make_shared<_quillon_query>();
    created->connection = connection;
    if (!create_table(created->map_of_capability_to_sticky_index) || !create_table(created->map_of_name_to_callback))
      return QUILLON_STATUS_WB_ERROR;
    const QUILLON_STATUS status = created->request_handler.start(created, qlk::handle_request);
    if (status != QUILLON_STATUS_OK) return status;
    created->self = created;
    *query = created.get();
    return QUILLON_STATUS_OK;
  });
}

QUILLON_STATUS quillon_query_destroy(quillon_query *query) {
  qlk::trace(__func__);
  if (query == nullptr) return QUILLON_STATUS_OK;
  qlk::query_stop(query);
  const std::shared_ptr<_quillon_query> last = std::move(query->self);
  return QUILLON_STATUS_OK;
}

QUILLON_STATUS quillon_query_register_handler(quillon_query *query, const quillon_string *ns, const quillon_string *name,
                                              quillon_query_cb callback, void *arg) {
  qlk::trace(__func__);
  if (query == nullptr) return qlk::refuse("query is null");
  if (ns == nullptr || callback == nullptr || qlk::text_of(name).empty()) return qlk::refuse("invalid query handler");
  qlk::MallocPtr<quillon_query_callback_info> info(
      static_cast<quillon_query_callback_info *>(std::malloc(sizeof(quillon_query_callback_info))));
  if (info == nullptr) {
    wb_log(WB_LOG_ERROR, "callback_info is null");
    return QUILLON_STATUS_MALLOC_ERROR;
  }
  *info = {callback, arg};
  const qlk::StringPtr key = qlk::make_expanded_name(*ns, *name);
  if (!quillon_string_validate(key.get())) {
    wb_log(WB_LOG_ERROR, "string validation failed");
    return QUILLON_STATUS_QUILLON_ERROR;
  }
  if (!put_handler(*query, key->buffer, info.get())) {
    wb_log(WB_LOG_ERROR, "htable put failed");
    return QUILLON_STATUS_QUILLON_ERROR;
  }
  quillon_string_set(key.get(), nullptr, 0, 0);  // the text is the table's now, and so is the record
  static_cast<void>(info.release());
  return QUILLON_STATUS_OK;
}

QUILLON_STATUS quillon_query_handle(quillon_query *query, wb_dom_node *iq) {
  if (query == nullptr) return qlk::refuse("query is null");
  const QUILLON_STATUS status = query->request_handler.push(iq);
  if (status == QUILLON_STATUS_WB_ERROR) wb_log(WB_LOG_ERROR, "quillon_query_handle retain failed");
  if (status == QUILLON_STATUS_MALLOC_ERROR) qlk::out_of_memory(__func__);
  return status;
}

QUILLON_STATUS quillon_query_call(quillon_query *query, quillon_capability *capability, wb_dom_node *request,
                                  wb_dom_node **response) {
  qlk::trace(__func__);
  if (response != nullptr) *response = nullptr;
  if (query == nullptr) return qlk::refuse("query is null");
  if (capability == nullptr) return qlk::refuse("capability is null");
  if (request == nullptr) return qlk::refuse("request is null");
  if (query->connection == nullptr) return qlk::refuse("invalid connection object");
  const qlk::ConnectionHold hold(*query->connection);  // a destroy that wakes this call does not wait for it
  const std::shared_ptr<_quillon_query> kept = query->self;
  const qlk::CallGate::Pass pass(query->calls);
  if (!pass) return refuse_call(*query, request);
  return qlk::guarded(__func__, [&]() -> QUILLON_STATUS {
    qlk::NodePtr owned(request);
    qlk::CountedQuery counted(query->statistics);
    qlk::NodePtr received;
    const QUILLON_STATUS status = ask_publishers(*query, *capability, owned, received, counted);
    if (status == QUILLON_STATUS_CAPABILITY_NOT_FOUND) static_cast<void>(owned.release());  // stays the caller's
    hand_over(std::move(received), response);
    return status;
  });
}

QUILLON_STATUS quillon_query_call_with_jid(quillon_query *query, const quillon_string *jid, wb_dom_node *request,
                                           wb_dom_node **response) {
  qlk::trace(__func__);
  if (response != nullptr) *response = nullptr;
  if (query == nullptr) return qlk::refuse("query is null");
  if (jid == nullptr) return qlk::refuse("jid is null");
  if (request == nullptr) return qlk::refuse("request is null");
  if (query->connection == nullptr) return qlk::refuse("invalid connection object");
  const qlk::ConnectionHold hold(*query->connection);  // a destroy that wakes this call does not wait for it
  const std::shared_ptr<_quillon_query> kept = query->self;
  const qlk::CallGate::Pass pass(query->calls);
  if (!pass) return refuse_call(*query, request);
  return qlk::guarded(__func__, [&]() -> QUILLON_STATUS {
    qlk::NodePtr owned(request);
    qlk::CountedQuery counted(query->statistics);
    qlk::NodePtr received;
    const QUILLON_STATUS status = ask(*query, *jid, std::move(owned), received, counted);
    hand_over(std::move(received), response);
    return status;
  });
}

// The authentication token. Its text appears in no log record.
#include "quillon_authentication_token.h"

#include <openssl/crypto.h>

#include <cstring>
#include <new>

#include "controller_request.h"
#include "guard.h"
#include "owners.h"
#include "quillon_grid.h"

const char *const element_tokenreq_name = "{" ADMIN_NS "}getTokenRequest";
const char *const element_tokenresp_name = "{" ADMIN_NS "}getTokenResponse";
const char *const element_tokenchild_name = "{" ADMIN_NS "}token";

namespace {

constexpr char kNoToken[] = "token is null";

void trace_token(const char *operation, const void *token) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(token='%p' \n)", operation, token);
}

void wipe_and_free(char *value) {
  if (value != nullptr) OPENSSL_cleanse(value, std::strlen(value));
  std::free(value);
}

// Keeps the first token: threads that asked at the same time all get this one.
void store_token(quillon_authentication_token &token, const char *text) {
  char *copy = text != nullptr && *text != '\0' ? strdup(text) : nullptr;
  char *expected = nullptr;
  if (copy != nullptr && !token.value.compare_exchange_strong(expected, copy)) wipe_and_free(copy);
}

}  // namespace

QUILLON_STATUS qlk::_populate_token(quillon_authentication_token *token) {
  trace_token(__func__, token);
  if (token == nullptr) return refuse(kNoToken);
  ControllerRequest request(element_tokenreq_name);
  if (!request.ok()) return QUILLON_STATUS_XML_ERROR;
  NodePtr reply;
  const QUILLON_STATUS status = request.send(token->connection, reply);
  if (status != QUILLON_STATUS_OK) return status;
  if (quillon_xml_is_ename(reply.get(), element_tokenresp_name))
    store_token(*token, quillon_xml_get_text_of_first_child_of_name(reply.get(), element_tokenchild_name));
  return QUILLON_STATUS_OK;
}

QUILLON_STATUS quillon_authentication_token_create(quillon_authentication_token **token, quillon_connection *connection) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(token='%p', connection='%p' \n)", __func__, static_cast<void *>(token),
         static_cast<void *>(connection));
  if (token == nullptr) return qlk::refuse(kNoToken);
  *token = new (std::nothrow) _quillon_authentication_token{connection, nullptr};
  return *token != nullptr ? QUILLON_STATUS_OK : qlk::out_of_memory(__func__);
}

const char *quillon_authentication_token_get(quillon_authentication_token *token) {
  trace_token(__func__, token);
  if (token == nullptr) return nullptr;
  if (const char *present = token->value) return present;
  const auto fetch = [&] { return qlk::_populate_token(token) == QUILLON_STATUS_OK ? token->value.load() : nullptr; };
  return qlk::guarded_or<const char *>(__func__, nullptr, fetch);
}

QUILLON_STATUS quillon_authentication_token_destroy(quillon_authentication_token *token) {
  trace_token(__func__, token);
  if (token == nullptr) return qlk::refuse(kNoToken);
  wipe_and_free(token->value);
  delete token;
  return QUILLON_STATUS_OK;
}

#include "quillon_status.h"

#include <cstring>
#include <mutex>

#include "guard.h"

namespace {

struct StatusMessage {
  QUILLON_STATUS status;
  const char *text;
};

// In the order in which the table is filled. QUILLON_STATUS_NO_CONNECTION has no text.
constexpr StatusMessage kMessages[] = {
    {QUILLON_STATUS_OK, "OK"},
    {QUILLON_STATUS_MALLOC_ERROR, "Malloc error"},
    {QUILLON_STATUS_XML_ERROR, "XML error"},
    {QUILLON_STATUS_WB_ERROR, "Warbler error"},
    {QUILLON_STATUS_EVENT_ERROR, "Libevent error"},
    {QUILLON_STATUS_XMPP_ERROR, "XMPP error"},
    {QUILLON_STATUS_REST_ERROR, "REST error"},
    {QUILLON_STATUS_QUILLON_ERROR, "Quillon error"},
    {QUILLON_STATUS_PTHREAD_ERROR, "Pthread error"},
    {QUILLON_STATUS_CONNECTION_ERROR, "Connection error"},
    {QUILLON_STATUS_CONNECTION_ERROR_HOST, "Host issue"},
    {QUILLON_STATUS_CONNECTION_ERROR_CLIENT, "Incorrect client credentials"},
    {QUILLON_STATUS_CONNECTION_ERROR_SERVER, "Incorrect server credentials"},
    {QUILLON_STATUS_CONNECTION_ERROR_AUTOREGOFF, "Registration not authorized"},
    {QUILLON_STATUS_CONNECTION_ERROR_REMOTE_CONNECTION_FAILURE, "Remote connection failure"},
    {QUILLON_STATUS_CONNECTION_ERROR_NOT_AUTHORIZED, "Not authorized for connection"},
    {QUILLON_STATUS_CONNECTION_ERROR_XMPP, "Unknown XMPP error during connection"},
    {QUILLON_STATUS_CONNECTION_TIMEOUT, "Connection timeout"},
    {QUILLON_STATUS_CONNECTION_DENIED, "Connection denied"},
    {QUILLON_STATUS_ACCOUNT_PENDING, "Account pending"},
    {QUILLON_STATUS_ACCOUNT_ENABLED, "Account enabled"},
    {QUILLON_STATUS_ACCOUNT_DISABLED, "Account disabled"},
    {QUILLON_STATUS_ACCOUNT_DELETED, "Account deleted"},
    {QUILLON_STATUS_ACCOUNT_AUTHORIZATION_CHANGED, "Account authorization changed"},
    {QUILLON_STATUS_SEND_ERROR, "Send error"},
    {QUILLON_STATUS_SEND_TIMEOUT, "Send timeout"},
    {QUILLON_STATUS_CAPABILITY_NOT_FOUND, "Capability not found"},
    {QUILLON_STATUS_NOT_AUTHORIZED, "Not authorized"},
    {QUILLON_STATUS_NOT_SUPPORTED, "Not supported"},
    {QUILLON_STATUS_UNKNOWN, "Unknown"},
    {QUILLON_STATUS_INVALID_ARGS, "incoming object is not valid"},
    {QUILLON_STATUS_REST_INIT_ERROR, "rest connection initialization failed"},
    {QUILLON_STATUS_PROPOSE_CAPABILITY_ERROR, "Propose capability error"},
    {QUILLON_STATUS_MODIFY_CAPABILITY_ERROR, "Modify capability error"},
};

constexpr unsigned kBuckets = 7;
constexpr char kNotAuthorized[] = "not authorized";

std::mutex table_mutex;

// The table's keys are the status values themselves.
const void *key_of(QUILLON_STATUS status) { return reinterpret_cast<const void *>(static_cast<uintptr_t>(status)); }

}  // namespace

wb_htable *qlk::map_of_status_to_message = nullptr;

bool qlk::_init(wb_err *err) {
  if (map_of_status_to_message != nullptr) return true;
  if (!wb_htable_create(kBuckets, wb_int_hashcode, wb_int_compare, &map_of_status_to_message, err)) return false;
  for (const StatusMessage &message : kMessages) {
    if (!wb_htable_put(map_of_status_to_message, key_of(message.status), const_cast<char *>(message.text), nullptr, err))
      return false;
  }
  return true;
}

const char *quillon_status_get_message(QUILLON_STATUS status) {
  qlk::trace(__func__);
  return qlk::guarded_or<const char *>(__func__, nullptr, [&] {
    wb_err err = {};
    bool built = true;
    const char *text = nullptr;
    {
      const std::lock_guard<std::mutex> lock(table_mutex);
      built = qlk::_init(&err);
      text = static_cast<const char *>(wb_htable_get(qlk::map_of_status_to_message, key_of(status)));
    }
    // Not under the lock: the application's log function may ask for a text.
    if (!built) wb_log_err(WB_LOG_ERROR, &err, "quillon_status_init");
    return text;
  });
}

QUILLON_STATUS quillon_status_get_from_error(wb_dom_node *error) {
  qlk::trace(__func__);
  const wb_dom_node *child = error != nullptr ? wb_dom_get_first_child(error) : nullptr;
  const char *text = child != nullptr ? wb_dom_get_first_text(child) : nullptr;
  if (text != nullptr && std::strncmp(text, kNotAuthorized, sizeof kNotAuthorized - 1) == 0) return QUILLON_STATUS_NOT_AUTHORIZED;
  return QUILLON_STATUS_QUILLON_ERROR;
}

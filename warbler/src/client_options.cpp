#include "client_options.h"

#include <algorithm>
#include <charconv>
#include <cstring>

#include "guard.h"
#include "jid.h"

namespace wb {

namespace {

const char *text_of(wb_htable *table, const char *key) { return static_cast<const char *>(wb_htable_get(table, key)); }

// Leaves the default when the key is absent.
template <typename Number>
bool read_number(wb_htable *table, const char *key, Number least, Number &number) {
  const char *text = text_of(table, key);
  if (text == nullptr) return true;
  Number value = 0;
  const char *end = text + std::strlen(text);
  const auto [stop, error] = std::from_chars(text, end, value);
  if (error != std::errc() || stop != end || value < least) return false;
  number = value;
  return true;
}

bool read_seconds(wb_htable *table, const char *key, std::chrono::seconds &duration) {
  unsigned seconds = static_cast<unsigned>(duration.count());
  if (!read_number(table, key, 1u, seconds)) return false;
  duration = std::chrono::seconds(seconds);
  return true;
}

bool read_milliseconds(wb_htable *table, const char *key, std::chrono::milliseconds &duration) {
  unsigned milliseconds = static_cast<unsigned>(duration.count());
  if (!read_number(table, key, 0u, milliseconds)) return false;
  duration = std::chrono::milliseconds(milliseconds);
  return true;
}

// A text of endpoints with blanks between them, or null.
bool read_endpoints(const char *text, std::vector<Endpoint> &endpoints) {
  std::string_view rest = text != nullptr ? text : "";
  while (!rest.empty()) {
    const size_t end = std::min(rest.find(' '), rest.size());
    Endpoint endpoint;
    if (end > 0 && !parse_endpoint(rest.substr(0, end), endpoint)) return false;
    if (end > 0) endpoints.push_back(std::move(endpoint));
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return true;
}

template <typename Function>
Function hook_of(wb_htable *table, const char *key) {
  const auto *variable = static_cast<const Function *>(wb_htable_get(table, key));
  return variable != nullptr ? *variable : nullptr;
}

}  // namespace

bool read_client_options(wb_htable *table, ClientOptions &options, wb_err *err) {
  if (table == nullptr) return WB_FAIL(err, WB_ERR_INVALID_ARG, "no configuration table");
  const char *domain = text_of(table, "domain"), *host = text_of(table, "host"), *user = text_of(table, "userjid");
  if (domain == nullptr || *domain == '\0') return WB_FAIL(err, WB_ERR_INVALID_ARG, "no \"domain\"");
  if (host == nullptr || *host == '\0') return WB_FAIL(err, WB_ERR_INVALID_ARG, "no \"host\"");
  if (user == nullptr || *user == '\0') return WB_FAIL(err, WB_ERR_INVALID_ARG, "no \"userjid\"");
  options.table = table;
  options.domain = domain;
  options.host_text = host;
  options.user_jid = user;
  if (!parse_endpoint(host, options.endpoint))
    return WB_FAIL(err, WB_ERR_BAD_FORMAT, "\"host\" is neither name, name:port nor an address");
  if (!read_endpoints(text_of(table, "other_hosts"), options.other_endpoints))
    return WB_FAIL(err, WB_ERR_BAD_FORMAT, "one of \"other_hosts\" is neither name, name:port nor an address");
  Jid jid;
  if (!parse_jid(options.user_jid, jid) || jid.local.empty())
    return WB_FAIL(err, WB_ERR_BAD_FORMAT, "\"userjid\" is no user's JID");
  options.resource = jid.resource;
  const char *type = text_of(table, "streamtype");
  if (type != nullptr && std::strcmp(type, "socket") != 0)
    return WB_FAIL(err, WB_ERR_INVALID_ARG, "\"streamtype\" is not \"socket\"");
  options.factory = static_cast<const wb_sasl_factory *>(wb_htable_get(table, "client_sasl_factory"));
  if (options.factory == nullptr || options.factory->mechs.empty()) {
    return WB_FAIL(err, WB_ERR_INVALID_ARG, "no mechanism under \"client_sasl_factory\"");
  }
  options.hooks.connect = hook_of<wb_tls_connect_func>(table, "tls-connect-cb");
  options.hooks.connect_arg = wb_htable_get(table, "tls-connect-cb-arg");
  options.hooks.accept = hook_of<wb_tls_accept_func>(table, "tls-accept-cb");
  options.hooks.accept_arg = wb_htable_get(table, "tls-accept-cb-arg");
  const bool numbers = read_number(table, "max_stanza_bytes", size_t{1024}, options.limits.max_stanza_bytes) &&
                       read_number(table, "max_depth", 4u, options.limits.max_depth) &&
                       read_number(table, "max_attributes", 4u, options.limits.max_attributes) &&
                       read_number(table, "max_queue_bytes", size_t{1024}, options.queue_bytes_max) &&
                       read_seconds(table, "connect_timeout_seconds", options.connect_timeout) &&
                       read_seconds(table, "idle_probe_seconds", options.idle_probe) &&
                       read_milliseconds(table, "race_milliseconds", options.race_gap) &&
                       read_number(table, "client_reconnect_countdown", 0u, options.reconnect_countdown_seconds);
  return numbers || WB_FAIL(err, WB_ERR_BAD_FORMAT, "a number in the configuration is no number, or too small");
}

}  // namespace wb

// Hosts to dial and XMPP addresses: the parts of what is taken make the text again, and comparing is symmetric.
#include <algorithm>

#include "endpoint.h"
#include "fuzz.h"
#include "jid.h"

namespace {

void check_endpoint(std::string_view text) {
  const wb::Endpoint untouched = {"untouched", 1};
  wb::Endpoint endpoint = untouched;
  if (!wb::parse_endpoint(text, endpoint)) {
    fuzz::require(endpoint.host == untouched.host && endpoint.port == untouched.port, "what is refused changes nothing");
    return;
  }
  fuzz::require(!endpoint.host.empty() && endpoint.port >= 1 && endpoint.port <= 65535, "an endpoint has a host and a port");
  const bool is_bracketed = endpoint.host.find(':') != std::string::npos;
  const std::string written = (is_bracketed ? "[" + endpoint.host + "]" : endpoint.host) + ":" + std::to_string(endpoint.port);
  wb::Endpoint again;
  fuzz::require(wb::parse_endpoint(written, again) && again.host == endpoint.host && again.port == endpoint.port,
                "an endpoint written out is the same endpoint");
}

void check_jid(std::string_view text) {
  wb::Jid jid;
  if (!wb::parse_jid(text, jid)) return;
  std::string written;
  if (!jid.local.empty()) written += std::string(jid.local) + "@";
  written += jid.domain;
  fuzz::require(wb::bare_jid(text) == written, "the bare address is the local part and the domain");
  if (!jid.resource.empty()) written += "/" + std::string(jid.resource);
  fuzz::require(written == text, "the parts make the address");
  fuzz::require(wb::jid_equal(text, text), "an address equals itself");
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string_view text = fuzz::text(data, size);
  const size_t line = std::min(text.find('\n'), text.size());
  const std::string_view first = text.substr(0, line), second = text.substr(std::min(line + 1, text.size()));
  for (const std::string_view part : {first, second}) {
    check_endpoint(part);
    check_jid(part);
  }
  fuzz::require(wb::jid_equal(first, second) == wb::jid_equal(second, first), "equality has no direction");
  return 0;
}

// Addresses of XMPP: local@domain/resource.
#pragma once

#include <string>
#include <string_view>

namespace wb {

struct Jid {
  std::string_view local, domain, resource;  // views into the text that was parsed
};

// Splits an address; false when a part that is announced is empty, or over 1023 bytes.
bool parse_jid(std::string_view text, Jid &jid);

// Local part and domain compare without regard to the case of ASCII letters, as servers fold them; the resource compares exactly.
bool jid_equal(std::string_view a, std::string_view b);

// The part before the resource.
std::string_view bare_jid(std::string_view text);

}  // namespace wb

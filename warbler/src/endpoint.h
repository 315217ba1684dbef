// Where to dial: name, name:port, 192.0.2.1:port or [2001:db8::1]:port.
#pragma once

#include <string>
#include <string_view>

namespace wb {

constexpr unsigned kDefaultPort = 5222;

struct Endpoint {
  std::string host;  // without brackets
  unsigned port = kDefaultPort;

  bool operator==(const Endpoint &) const = default;
};

// False, with endpoint as it was, when the text is none of the forms.
bool parse_endpoint(std::string_view text, Endpoint &endpoint);

// The endpoint in the form that parse_endpoint reads.
std::string text_of(const Endpoint &endpoint);

// True when the host is an address in numbers and no name.
bool is_address_literal(const std::string &host);

}  // namespace wb

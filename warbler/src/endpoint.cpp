#include "endpoint.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>

namespace wb {

namespace {

bool parse_port(std::string_view text, unsigned &port) {
  unsigned value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value == 0 || value > 65535) return false;
  port = value;
  return true;
}

bool is_host_byte(char c) { return static_cast<unsigned char>(c) > ' ' && c != '[' && c != ']' && c != '/' && c != 0x7f; }

bool is_ipv6(const std::string &text) {
  in6_addr address;
  // A zone ("fe80::1%eth0") is for the resolver to judge.
  return inet_pton(AF_INET6, text.substr(0, text.find('%')).c_str(), &address) == 1;
}

}  // namespace

bool parse_endpoint(std::string_view text, Endpoint &endpoint) {
  Endpoint parsed;
  std::string_view rest;
  if (!text.empty() && text.front() == '[') {
    const size_t close = text.find(']');
    if (close == std::string_view::npos) return false;
    parsed.host = text.substr(1, close - 1);
    if (!is_ipv6(parsed.host)) return false;
    rest = text.substr(close + 1);
  } else if (is_ipv6(std::string(text))) {
    parsed.host = text;  // without brackets there is no room for a port
  } else {
    const size_t colon = text.find(':');
    parsed.host = text.substr(0, colon);
    rest = colon == std::string_view::npos ? std::string_view() : text.substr(colon);
  }
  if (parsed.host.empty() || !std::all_of(parsed.host.begin(), parsed.host.end(), is_host_byte)) return false;
  if (!rest.empty() && (rest.front() != ':' || !parse_port(rest.substr(1), parsed.port))) return false;
  endpoint = std::move(parsed);
  return true;
}

std::string text_of(const Endpoint &endpoint) {
  const std::string host = is_ipv6(endpoint.host) ? "[" + endpoint.host + "]" : endpoint.host;
  return endpoint.port == kDefaultPort ? host : host + ":" + std::to_string(endpoint.port);
}

bool is_address_literal(const std::string &host) {
  in_addr address;
  return inet_pton(AF_INET, host.c_str(), &address) == 1 || is_ipv6(host);
}

}  // namespace wb

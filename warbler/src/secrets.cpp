#include "secrets.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <string_view>

#include "xmpp_names.h"

namespace wb {

namespace {

// By their local names, in whatever namespace.
constexpr std::string_view kSecretNames[] = {"token", "password"};

bool is_secret(std::string_view name) {
  if (const size_t colon = name.find(':'); colon != name.npos) name.remove_prefix(colon + 1);
  return std::find(std::begin(kSecretNames), std::end(kSecretNames), name) != std::end(kSecretNames);
}

bool is_declaration(std::string_view name) { return name == "xmlns" || name.substr(0, 6) == "xmlns:"; }

// Goes over the attributes of a tag, up to its '>', and hides those that are secret, or all. A value may hold a '>', too.
char *hide_in_tag(char *tag, bool hides_all) {
  char *at = tag + 1 + std::strcspn(tag + 1, " >");
  while (*at == ' ') {
    char *const name = ++at;
    at += std::strcspn(at, "=>");
    if (*at != '=') break;
    const std::string_view whole(name, static_cast<size_t>(at - name));
    const bool hides = !is_declaration(whole) && (hides_all || is_secret(whole));
    const char quote = *++at;
    if (quote == '\0') break;
    for (++at; *at != '\0' && *at != quote; ++at) {
      if (hides) *at = '*';
    }
    if (*at != '\0') ++at;
  }
  return at + std::strcspn(at, ">");
}

// Why it failed is told.
bool holds_sasl_payload(std::string_view name, std::string_view tag) {
  return name != "failure" && tag.find(ns::kSasl) != std::string_view::npos;
}

}  // namespace

void hide_secrets(char *xml) {
  size_t open = 0;  // elements, from the secret one inwards
  for (char *at = xml; *at != '\0';) {
    if (*at != '<') {
      if (open > 0) *at = '*';
      ++at;
      continue;
    }
    char *const tag = at;
    const std::string_view name(tag + 1, std::strcspn(tag + 1, " />"));
    const bool is_within = open > 0 || is_secret(name);
    char *const end = hide_in_tag(tag, is_within);
    at = *end != '\0' ? end + 1 : end;
    if (tag[1] == '/') {
      if (open > 0) --open;
    } else if (end[-1] != '/') {
      if (is_within || (tag == xml && holds_sasl_payload(name, {tag, end}))) ++open;
    }
  }
}

}  // namespace wb

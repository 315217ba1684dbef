// Addresses: user@domain/resource.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace controller {

// "user@domain" of "user@domain/resource".
inline std::string bare_of(const std::string &jid) { return jid.substr(0, jid.find('/')); }

// The user of a full JID of that domain; nothing for any other address, such as a service's.
inline std::optional<std::string> user_of(const std::string &jid, std::string_view domain) {
  const size_t at = jid.find('@'), slash = jid.find('/');
  if (at == std::string::npos || at == 0 || slash == std::string::npos || slash < at || slash + 1 == jid.size())
    return std::nullopt;
  if (std::string_view(jid).substr(at + 1, slash - at - 1) != domain) return std::nullopt;
  return jid.substr(0, at);
}

inline std::string lower_case(std::string text) {
  for (char &character : text) {
    if (character >= 'A' && character <= 'Z') character = static_cast<char>(character - 'A' + 'a');
  }
  return text;
}

// Users compare without regard to case. Takes a name, a bare or a full JID.
inline std::string user_name_of(const std::string &text) { return lower_case(text.substr(0, text.find_first_of("@/"))); }

}  // namespace controller

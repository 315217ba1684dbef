#include "jid.h"

#include <algorithm>

namespace wb {

namespace {

constexpr size_t kPartBytesMax = 1023;

bool is_part(std::string_view part) { return !part.empty() && part.size() <= kPartBytesMax; }

char fold(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool equal_folded(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return fold(x) == fold(y); });
}

}  // namespace

std::string_view bare_jid(std::string_view text) { return text.substr(0, text.find('/')); }

bool parse_jid(std::string_view text, Jid &jid) {
  const std::string_view bare = bare_jid(text);
  Jid parsed;
  if (bare.size() < text.size()) {
    parsed.resource = text.substr(bare.size() + 1);
    if (!is_part(parsed.resource)) return false;
  }
  const size_t at = bare.find('@');
  if (at != std::string_view::npos) {
    parsed.local = bare.substr(0, at);
    if (!is_part(parsed.local)) return false;
  }
  parsed.domain = at == std::string_view::npos ? bare : bare.substr(at + 1);
  if (!is_part(parsed.domain) || parsed.domain.find('@') != std::string_view::npos) return false;
  jid = parsed;
  return true;
}

bool jid_equal(std::string_view a, std::string_view b) {
  if (a == b) return true;
  const std::string_view bare_a = bare_jid(a), bare_b = bare_jid(b);
  return equal_folded(bare_a, bare_b) && a.substr(bare_a.size()) == b.substr(bare_b.size());
}

}  // namespace wb

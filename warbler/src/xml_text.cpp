#include "xml_text.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <iterator>

namespace {

struct Range {
  char32_t first, last;
};

// NameStartChar without the colon, sorted.
constexpr Range kNameStart[] = {
    {'A', 'Z'},       {'_', '_'},       {'a', 'z'},       {0xC0, 0xD6},     {0xD8, 0xF6},
    {0xF8, 0x2FF},    {0x370, 0x37D},   {0x37F, 0x1FFF},  {0x200C, 0x200D}, {0x2070, 0x218F},
    {0x2C00, 0x2FEF}, {0x3001, 0xD7FF}, {0xF900, 0xFDCF}, {0xFDF0, 0xFFFD}, {0x10000, 0xEFFFF},
};

// What a name may hold besides, after its first character.
constexpr Range kNameRest[] = {{'-', '.'}, {'0', '9'}, {0xB7, 0xB7}, {0x300, 0x36F}, {0x203F, 0x2040}};

// Nearly all names are ASCII, and every name that an application builds with is looked at.
using AsciiSet = std::array<bool, 128>;

template <size_t Count>
constexpr AsciiSet with_ranges(AsciiSet chars, const Range (&ranges)[Count]) {
  for (const Range &range : ranges) {
    for (char32_t c = range.first; c <= range.last && c < chars.size(); ++c) chars[c] = true;
  }
  return chars;
}

constexpr AsciiSet kAsciiNameStarts = with_ranges({}, kNameStart);
constexpr AsciiSet kAsciiNameChars = with_ranges(kAsciiNameStarts, kNameRest);

template <size_t Count>
bool is_in(const Range (&ranges)[Count], char32_t c) {
  const Range *range =
      std::lower_bound(std::begin(ranges), std::end(ranges), c, [](const Range &r, char32_t v) { return r.last < v; });
  return range != std::end(ranges) && c >= range->first;
}

unsigned char byte_at(const char *at) { return static_cast<unsigned char>(*at); }

// Passes over the bytes, eight at a time, that are ASCII and no control characters.
const char *skip_printable_words(const char *at, const char *end) {
  constexpr uint64_t kTops = 0x8080808080808080u, kSpaces = 0x2020202020202020u;
  for (; end - at >= 8; at += 8) {
    uint64_t word;
    std::memcpy(&word, at, sizeof word);
    if (((word | (word - kSpaces)) & kTops) != 0) break;
  }
  return at;
}

}  // namespace

unsigned wb::decode_utf8(const char *at, const char *end, char32_t &out) {
  if (at >= end) return 0;
  const unsigned char lead = byte_at(at);
  if (lead < 0x80) {
    out = lead;
    return 1;
  }
  const unsigned length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || end - at < static_cast<std::ptrdiff_t>(length)) return 0;
  char32_t c = lead & (0x7Fu >> length);
  for (unsigned i = 1; i < length; ++i) {
    const unsigned char next = byte_at(at + i);
    if ((next & 0xC0) != 0x80) return 0;
    c = (c << 6) | (next & 0x3Fu);
  }
  constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  if (c < kSmallest[length] || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) return 0;
  out = c;
  return length;
}

bool wb::is_xml_char(char32_t c) {
  if (c < 0x20) return c == '\t' || c == '\n' || c == '\r';
  return c <= 0xD7FF || (c >= 0xE000 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0x10FFFF);
}

bool wb::is_xml_text(std::string_view text) {
  const char *const end = text.data() + text.size();
  for (const char *at = text.data();;) {
    at = skip_printable_words(at, end);
    const char *const near = end - at > 8 ? at + 8 : end;
    while (at != near && byte_at(at) >= 0x20 && byte_at(at) < 0x80) ++at;
    if (at == end) return true;
    if (at == near) continue;
    char32_t c = 0;
    const unsigned length = decode_utf8(at, end, c);
    if (length == 0 || !is_xml_char(c)) return false;
    at += length;
  }
}

bool wb::begins_name(std::string_view text) {
  if (!text.empty() && byte_at(text.data()) < kAsciiNameStarts.size()) return kAsciiNameStarts[byte_at(text.data())];
  char32_t c = 0;
  return decode_utf8(text.data(), text.data() + text.size(), c) != 0 && is_in(kNameStart, c);
}

bool wb::is_ncname(std::string_view text) {
  if (!begins_name(text)) return false;
  const char *const end = text.data() + text.size();
  for (const char *at = text.data(); at != end;) {
    if (byte_at(at) < kAsciiNameChars.size() && kAsciiNameChars[byte_at(at)]) {
      ++at;
      continue;
    }
    char32_t c = 0;
    const unsigned length = decode_utf8(at, end, c);
    if (length == 0 || !(is_in(kNameStart, c) || is_in(kNameRest, c))) return false;
    at += length;
  }
  return true;
}

void wb::append_attribute(std::string &out, std::string_view name, std::string_view value) {
  out.append(" ").append(name).append("=\"");
  for (const char c : value) {
    switch (c) {
      case '&':
      case '<':
      case '"':
      case '\t':
      case '\n':
      case '\r':
        out.append("&#").append(std::to_string(static_cast<int>(c))).append(";");
        break;
      default:
        out.push_back(c);
    }
  }
  out.push_back('"');
}

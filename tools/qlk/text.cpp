#include "text.h"

#include <sstream>

namespace tool {

std::string joined(const std::vector<std::string> &texts) {
  std::string list;
  for (const std::string &text : texts) list.append(list.empty() ? "" : ", ").append(text);
  return list;
}

std::string wrapped(std::string_view text, size_t column, size_t indent, size_t width) {
  std::string out;
  std::istringstream words{std::string(text)};
  for (std::string word; words >> word;) {
    if (!out.empty() && column + 1 + word.size() > width) {
      out.append("\n").append(indent, ' ');
      column = indent;
    } else if (!out.empty()) {
      out += ' ';
      ++column;
    }
    out += word;
    column += word.size();
  }
  return out;
}

std::string printable(std::string_view text) {
  std::string clean(text);
  unsigned char before = 0;
  for (char &character : clean) {
    const auto code = static_cast<unsigned char>(character);
    const bool is_low = (code < 0x20 && character != '\n' && character != '\t') || code == 0x7f;
    const bool is_high = before == 0xc2 && code < 0xa0;  // in UTF-8 two bytes, of which the second tells
    if (is_low || is_high) character = '?';
    if (is_high) (&character)[-1] = '?';
    before = code;
  }
  return clean;
}

}  // namespace tool

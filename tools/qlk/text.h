// Texts for people.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tool {

// The texts with commas between them.
std::string joined(const std::vector<std::string> &texts);

// Broken between words so that no line is wider; the first begins in column, the others are indented. Blanks and line breaks of
// the text only part words.
std::string wrapped(std::string_view text, size_t column, size_t indent, size_t width);

// Control characters of text that came from elsewhere must not drive the terminal: each becomes a question mark.
std::string printable(std::string_view text);

}  // namespace tool

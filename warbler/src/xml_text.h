// What XML 1.0 and UTF-8 allow: characters, and names in the sense of Namespaces in XML.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace wb {

inline constexpr std::string_view kXmlUri = "http://www.w3.org/XML/1998/namespace";
inline constexpr std::string_view kXmlnsUri = "http://www.w3.org/2000/xmlns/";

// Beginnings of a document that expat takes for UTF-16 whatever encoding it was told; no document in UTF-8 begins like that.
// There is a first byte.
inline bool begins_as_utf16(const char *bytes, size_t length) {
  const unsigned char first = static_cast<unsigned char>(bytes[0]);
  return first == 0 || first >= 0xFE || (length > 1 && bytes[1] == 0);
}

// Reads one UTF-8 character. Returns its length in bytes, or 0 when the bytes are not UTF-8 (overlong forms and surrogates are
// not).
unsigned decode_utf8(const char *at, const char *end, char32_t &out);

// A character that an XML document may hold.
bool is_xml_char(char32_t c);

// UTF-8 of nothing but characters that XML allows.
bool is_xml_text(std::string_view text);

// Begins with a character that may begin a name.
bool begins_name(std::string_view text);

// A name without a colon, by the rules of XML 1.0, fifth edition.
bool is_ncname(std::string_view text);

// Appends a blank and name="value", the value written so that every parser reads it as it is here. Throws std::bad_alloc.
void append_attribute(std::string &out, std::string_view name, std::string_view value);

}  // namespace wb

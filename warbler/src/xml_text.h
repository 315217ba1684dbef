// What XML 1.0 and UTF-8 allow: characters, and names in the sense of Namespaces in XML.
#pragma once

#include <string>
#include <string_view>

namespace wb {

inline constexpr std::string_view kXmlUri = "http://www.w3.org/XML/1998/namespace";
inline constexpr std::string_view kXmlnsUri = "http://www.w3.org/2000/xmlns/";

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

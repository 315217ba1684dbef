// Base64 as SASL uses it.
#pragma once

#include <string>
#include <string_view>

namespace wb {

std::string encode_base64(std::string_view bytes);

// False when the text is not base64; white space is not passed over. "=" alone, or nothing, is the empty text.
bool decode_base64(std::string_view text, std::string &bytes);

}  // namespace wb

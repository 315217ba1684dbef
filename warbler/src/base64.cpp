#include "base64.h"

#include <openssl/evp.h>

namespace wb {

std::string encode_base64(std::string_view bytes) {
  std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');
  const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char *>(text.data()),
                                     reinterpret_cast<const unsigned char *>(bytes.data()), static_cast<int>(bytes.size()));
  text.resize(static_cast<size_t>(length));
  return text;
}

bool decode_base64(std::string_view text, std::string &bytes) {
  bytes.clear();
  if (text.empty() || text == "=") return true;
  const auto is_letter = [](char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '/';
  };
  size_t padding = 0;
  while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=') ++padding;
  if (text.size() % 4 != 0) return false;
  for (const char c : text.substr(0, text.size() - padding)) {
    if (!is_letter(c)) return false;
  }
  bytes.resize(text.size() / 4 * 3);
  const int length = EVP_DecodeBlock(reinterpret_cast<unsigned char *>(bytes.data()),
                                     reinterpret_cast<const unsigned char *>(text.data()), static_cast<int>(text.size()));
  if (length < 0) return false;
  bytes.resize(static_cast<size_t>(length) - padding);
  return padding == 0 || encode_base64(bytes) == text;  // bits that belong to no byte must be zero
}

}  // namespace wb

// A pass phrase, which leaves no copy in memory when it ends.
#pragma once

#include <openssl/crypto.h>

#include <string>
#include <utility>

namespace tool {

class Secret {
 public:
  Secret() = default;
  explicit Secret(std::string text) : text_(std::move(text)) { OPENSSL_cleanse(text.data(), text.capacity()); }
  Secret(Secret &&other) noexcept { *this = std::move(other); }
  Secret &operator=(Secret &&other) noexcept {
    std::swap(text_, other.text_);
    return *this;
  }
  ~Secret() { OPENSSL_cleanse(text_.data(), text_.capacity()); }

  bool empty() const { return text_.empty(); }
  const std::string &text() const { return text_; }

 private:
  std::string text_;
};

}  // namespace tool

// What every target is made of: it reads the bytes, checks what must hold, and ends the program where it does not.
#pragma once

#include <warbler/dom.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace fuzz {

inline void require(bool holds, const char *what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

inline std::string_view text(const uint8_t *data, size_t size) { return {reinterpret_cast<const char *>(data), size}; }

struct Release {
  void operator()(wb_dom_node *node) const { wb_dom_context_destroy(wb_dom_get_context(node)); }
};
using Tree = std::unique_ptr<wb_dom_node, Release>;

// The tree of a document, or null when it is none.
inline Tree parse(std::string_view xml) {
  wb_dom_node *root = nullptr;
  return Tree(wb_dom_parse(xml.data(), xml.size(), &root, nullptr) ? root : nullptr);
}

inline std::string serialize(const wb_dom_node *node) {
  char *xml = nullptr;
  size_t length = 0;
  require(wb_serialize_xml(node, &xml, &length, nullptr), "what was parsed can be written");
  std::string written(xml, length);
  std::free(xml);
  return written;
}

// Lengths of pieces, drawn from a number: the same number, the same pieces.
class Pieces {
 public:
  explicit Pieces(uint8_t seed) : state_(seed * 2654435761u + 1) {}
  size_t next(size_t at_most) {
    state_ = state_ * 1664525u + 1013904223u;
    const size_t length = (state_ >> 24) % 4 == 0 ? 1 + (state_ >> 8) % 200 : 1 + (state_ >> 8) % 7;
    return length < at_most ? length : at_most;
  }

 private:
  uint32_t state_;
};

}  // namespace fuzz

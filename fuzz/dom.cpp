// What is parsed can be written, and what is written parses to the same tree.
#include <cstring>

#include "fuzz.h"

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const fuzz::Tree tree = fuzz::parse(fuzz::text(data, size));
  if (tree == nullptr) return 0;
  const std::string written = fuzz::serialize(tree.get());
  const fuzz::Tree again = fuzz::parse(written);
  fuzz::require(again != nullptr, "what was written parses");
  fuzz::require(fuzz::serialize(again.get()) == written, "and is written as before");

  wb_dom_ctx *context = nullptr;
  wb_dom_node *copy = nullptr;
  fuzz::require(wb_dom_context_create(&context, nullptr), "a context can be had");
  fuzz::require(wb_dom_import(context, tree.get(), true, &copy, nullptr), "a tree can be copied");
  fuzz::require(std::strcmp(wb_dom_get_ename(copy), wb_dom_get_ename(tree.get())) == 0, "the copy has the same name");
  fuzz::require(fuzz::serialize(copy) == written, "the copy is written as the tree is");
  wb_dom_context_destroy(context);
  return 0;
}

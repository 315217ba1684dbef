#include "namespace_scope.h"

#include <algorithm>
#include <utility>

namespace {

constexpr size_t kFirstBindings = 8;
constexpr size_t kFirstSlots = 8;  // once there is a prefix; most documents have none

// So many bindings of a chain are looked at. A namespace that is declared again is right too, and a tree made to have endless
// chains of shadowed prefixes then costs no more than others.
constexpr unsigned kSearchMax = 16;

}  // namespace

wb::NamespaceScope::NamespaceScope(const Symbol *default_uri, std::pmr::memory_resource *memory)
    : default_{default_uri, false}, bindings_(memory), by_prefix_(memory), by_uri_(memory) {
  bindings_.reserve(kFirstBindings);
}

void wb::NamespaceScope::link(int32_t index) {
  Binding &binding = bindings_[static_cast<size_t>(index)];
  binding.next_of_prefix = std::exchange(by_prefix_[slot(binding.prefix)], index);
  binding.next_of_uri = std::exchange(by_uri_[slot(binding.uri)], index);
}

void wb::NamespaceScope::enlarge() {
  by_prefix_.assign(std::max(kFirstSlots, by_prefix_.size() * 2), -1);
  by_uri_.assign(by_prefix_.size(), -1);
  for (size_t i = 0; i < bindings_.size(); ++i) {
    if (bindings_[i].prefix->length != 0) link(static_cast<int32_t>(i));
  }
}

void wb::NamespaceScope::declare(const Symbol *prefix, const Symbol *uri, bool is_explicit, uint32_t depth) {
  if (prefix->length == 0) {
    bindings_.push_back(Binding{prefix, default_.uri, default_.is_explicit, depth, -1, -1});
    default_ = Default{uri, is_explicit};
    return;
  }
  if (bindings_.size() >= by_prefix_.size() * 2) enlarge();
  bindings_.push_back(Binding{prefix, uri, is_explicit, depth, -1, -1});
  link(static_cast<int32_t>(bindings_.size() - 1));
}

void wb::NamespaceScope::undo(uint32_t depth) {
  while (!bindings_.empty() && bindings_.back().depth == depth) {
    const Binding &binding = bindings_.back();
    if (binding.prefix->length == 0) {
      default_ = Default{binding.uri, binding.is_explicit};
    } else {
      by_prefix_[slot(binding.prefix)] = binding.next_of_prefix;
      by_uri_[slot(binding.uri)] = binding.next_of_uri;
    }
    bindings_.pop_back();
  }
}

int32_t wb::NamespaceScope::find_binding(const Symbol *prefix) const {
  if (by_prefix_.empty()) return -1;
  int32_t index = by_prefix_[slot(prefix)];
  while (index >= 0 && !same(bindings_[static_cast<size_t>(index)].prefix, prefix)) {
    index = bindings_[static_cast<size_t>(index)].next_of_prefix;
  }
  return index;
}

const wb::Symbol *wb::NamespaceScope::find_prefix(const Symbol *uri) const {
  if (by_uri_.empty()) return nullptr;
  int32_t index = by_uri_[slot(uri)];
  for (unsigned seen = 0; index >= 0 && seen < kSearchMax; ++seen) {
    const Binding &binding = bindings_[static_cast<size_t>(index)];
    if (same(binding.uri, uri) && find_binding(binding.prefix) == index) return binding.prefix;
    index = binding.next_of_uri;
  }
  return nullptr;
}

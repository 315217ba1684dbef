// The namespace declarations in force at one place of a document that is being written.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory_resource>
#include <vector>

#include "names.h"

namespace wb {

class NamespaceScope {
 public:
  // default_uri is in force from the start without having been declared; it may be the empty symbol.
  NamespaceScope(const Symbol *default_uri, std::pmr::memory_resource *memory);

  // A declaration by an element at that depth (1: the outermost). The symbols must live as long as it. is_explicit: somebody
  // asked for it, so that names in texts may rely on it. Throws std::bad_alloc.
  void declare(const Symbol *prefix, const Symbol *uri, bool is_explicit, uint32_t depth);

  // The element at that depth ends.
  void leave(uint32_t depth) {
    if (!bindings_.empty() && bindings_.back().depth == depth) undo(depth);
  }

  // Whether a name without a prefix is in that namespace.
  bool is_default(const Symbol *uri) {
    if (uri == default_.uri) return true;
    if (!same(uri, default_.uri)) return false;
    default_.uri = uri;  // an equal record, but the one that more names will ask for
    return true;
  }
  bool has_default() const { return default_.uri->length != 0; }
  bool is_default_explicit() const { return default_.is_explicit; }

  // A prefix that stands for the namespace here; null when none is found.
  const Symbol *find_prefix(const Symbol *uri) const;

  // Whether the prefix stands for anything here.
  bool is_bound(const Symbol *prefix) const { return find_binding(prefix) >= 0; }

 private:
  struct Default {
    const Symbol *uri;
    bool is_explicit;
  };
  // A prefix and its namespace, or, without a prefix, the default namespace that was in force before.
  struct Binding {
    const Symbol *prefix;
    const Symbol *uri;
    bool is_explicit;
    uint32_t depth;
    int32_t next_of_prefix;
    int32_t next_of_uri;
  };

  int32_t find_binding(const Symbol *prefix) const;
  void link(int32_t index);
  void enlarge();
  void undo(uint32_t depth);
  size_t slot(const Symbol *symbol) const { return symbol->hash & (by_prefix_.size() - 1); }

  Default default_;
  std::pmr::vector<Binding> bindings_;
  // The latest binding of each chain; older ones follow. Bindings leave in the order opposite to that in which they came.
  std::pmr::vector<int32_t> by_prefix_;
  std::pmr::vector<int32_t> by_uri_;
};

}  // namespace wb

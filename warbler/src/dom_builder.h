// Turns the events of a parser without namespace support (expat's plain one, which costs far less than its other) into trees, and
// enforces Namespaces in XML 1.0 on the way.
//
// Elements are nested by open and enter, left by close. open builds the element: as a child of the one being built, or as the
// root of a tree in a context of its own. enter only takes note of its namespace declarations; it is for elements around the
// trees.
#pragma once

#include <cstdint>
#include <vector>

#include "dom_node.h"

namespace wb {

enum class BuildResult : uint8_t { ok, bad_namespace, too_many_attributes, too_many_names };

struct BuildOptions {
  size_t attributes_max = SIZE_MAX;   // of one element, declarations among them
  size_t names_bytes_max = SIZE_MAX;  // what the names take that the builder has met
  // The trees carry the declarations that they were read with.
  bool keeps_declarations = true;
  // Text goes to the element whose end tag comes next, all in one: what stands before a child becomes the beginning of the
  // child's text.
  bool text_waits = false;
};

class DomBuilder {
 public:
  // Throws std::bad_alloc, as do open, enter and text.
  explicit DomBuilder(const BuildOptions &options);
  ~DomBuilder();
  DomBuilder(const DomBuilder &) = delete;
  DomBuilder &operator=(const DomBuilder &) = delete;

  // name and attributes as expat hands them out. What did not go well leaves the builder of no use.
  BuildResult open(const char *name, const char **attributes);
  // Not inside a tree.
  BuildResult enter(const char *name, const char **attributes);

  // Character data of the element being built; it joins the text before it. Outside a tree it is dropped.
  void text(const char *bytes, size_t length);

  // Leaves the innermost element. When that ends a tree, true is returned and root() and take() tell of it until the next open.
  bool close();

  // The root of the tree last begun, and the reference to its context.
  Element *root() const { return root_; }
  ContextRef take() { return std::move(context_); }

  // Ends the tree being built as it stands; its open elements stay around what follows, like entered ones.
  void detach() { current_ = nullptr; }

  // Text waits for an end tag.
  bool has_waiting_text() const { return waiting_ != nullptr; }

  // What the tree being built, and all names so far, take beyond their first block, in bytes.
  size_t tree_bytes() const { return context_ != nullptr ? context_->arena.reserved() : 0; }
  size_t names_bytes() const { return table_->reserved(); }

  // The names of the peer take so much memory that the parser and this builder should be replaced by fresh ones.
  bool is_full() const { return table_->is_full(); }
  // Fresh ones would meet the names that there are now again.
  void take_names_as_known() { table_->take_as_known(); }

 private:
  // What a prefix was bound to outside the element that bound it anew.
  struct Undo {
    Prefix *prefix;
    const Symbol *bound;
    size_t depth;
  };

  // An attribute whose name has a prefix; none was made for an element that is not kept.
  struct Prefixed {
    QName *name;
    Attribute *attribute;
  };

  BuildResult read_attributes(const char **attributes, Element *element);
  BuildResult name_prefixed();
  BuildResult unnamed() const { return table_->is_exhausted() ? BuildResult::too_many_names : BuildResult::bad_namespace; }

  const BuildOptions options_;
  NameTable *table_;
  std::vector<Undo> undo_;
  std::vector<Prefixed> prefixed_;  // of the element at hand
  size_t depth_ = 0;
  uint64_t elements_ = 0;
  ContextRef context_;
  Element *root_ = nullptr;
  Element *current_ = nullptr;
  Text *waiting_ = nullptr;
};

}  // namespace wb

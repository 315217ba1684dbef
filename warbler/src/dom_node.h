// What the nodes and contexts of wb_dom are made of.
#pragma once

#include <warbler/dom.h>

#include <atomic>
#include <memory>

#include "arena.h"
#include "byte_buffer.h"
#include "name_table.h"
#include "names.h"

// The context's own record and its first stretch of memory are one block: from the table of names, or of a size that the
// allocator keeps at hand per thread.
struct wb_dom_ctx {
  wb_dom_ctx(char *begin, char *end, wb::NameTable *table) : arena(begin, end), shared(table) {}

  std::atomic<unsigned> references{1};
  wb::Arena arena;
  wb::NameStore names;  // those that were not read by a parser
  wb::NameTable *const shared;
};

struct wb_dom_node {
  wb_dom_ctx *context;
  wb_dom_node *parent;
  wb_dom_node *previous;
  wb_dom_node *next;
  bool is_text;
};

namespace wb {

struct Attribute {
  Attribute *next;
  const Name *name;
  const char *value;
  size_t length;
};

// prefix is the empty symbol for the default namespace.
struct Declaration {
  Declaration *next;
  const Symbol *prefix;
  const Symbol *uri;
};

struct Element : wb_dom_node {
  const Name *name;
  wb_dom_node *first_child;
  wb_dom_node *last_child;
  Attribute *attributes;
  Declaration *declarations;
};

struct Text : wb_dom_node {
  char *value;
  size_t length;
  size_t capacity;  // of value, with the zero at its end
};

inline Element *as_element(wb_dom_node *node) { return static_cast<Element *>(node); }
inline const Element *as_element(const wb_dom_node *node) { return static_cast<const Element *>(node); }
inline Text *as_text(wb_dom_node *node) { return static_cast<Text *>(node); }
inline const Text *as_text(const wb_dom_node *node) { return static_cast<const Text *>(node); }

// A reference to a context.
struct ContextRelease {
  void operator()(wb_dom_ctx *context) const { wb_dom_context_destroy(context); }
};
using ContextRef = std::unique_ptr<wb_dom_ctx, ContextRelease>;

// A context with one reference; it takes one of its own on the table of names, if there is one. Throws std::bad_alloc, as all
// below.
ContextRef make_context(NameTable *table);

inline Element *make_element(wb_dom_ctx &context, const Name *name) {
  return new (context.arena.allocate(sizeof(Element)))
      Element{{&context, nullptr, nullptr, nullptr, false}, name, nullptr, nullptr, nullptr, nullptr};
}
Text *make_text(wb_dom_ctx &context, const char *bytes, size_t length);
void append_text(Text &text, const char *bytes, size_t length);

inline void append_child(Element &parent, wb_dom_node &child) {
  child.parent = &parent;
  child.previous = parent.last_child;
  (parent.last_child != nullptr ? parent.last_child->next : parent.first_child) = &child;
  parent.last_child = &child;
}

inline Attribute *make_attribute(wb_dom_ctx &context, const Name *name, const char *value, size_t length) {
  auto *const memory = static_cast<char *>(context.arena.allocate(sizeof(Attribute) + length + 1));
  char *const copy = memory + sizeof(Attribute);
  *ByteBuffer::put(copy, value, length) = 0;
  return new (memory) Attribute{nullptr, name, copy, length};
}

// The attribute of that name in no namespace; null when the element has none.
inline const Attribute *find_plain_attribute(const wb_dom_node *element, std::string_view name) {
  const Attribute *attribute = as_element(element)->attributes;
  while (attribute != nullptr && (attribute->name->uri->length != 0 || attribute->name->local_length != name.size() ||
                                  std::memcmp(attribute->name->local, name.data(), name.size()) != 0)) {
    attribute = attribute->next;
  }
  return attribute;
}
inline std::string_view value_of(const Attribute *attribute) {
  return attribute != nullptr ? std::string_view(attribute->value, attribute->length) : std::string_view();
}

inline Declaration *make_declaration(wb_dom_ctx &context, const Symbol *prefix, const Symbol *uri) {
  return new (context.arena.allocate(sizeof(Declaration))) Declaration{nullptr, prefix, uri};
}

}  // namespace wb

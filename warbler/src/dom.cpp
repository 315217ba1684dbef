#include <warbler/dom.h>

#include <cstdlib>
#include <cstring>
#include <string_view>

#include "dom_node.h"
#include "guard.h"
#include "known_names.h"
#include "xml_text.h"

namespace {

using wb::as_element;
using wb::as_text;
using wb::Attribute;
using wb::Declaration;
using wb::Element;
using wb::Name;
using wb::NameParts;

// Together with the allocator's own few bytes this is the largest size that glibc keeps in its cache per thread.
constexpr size_t kContextBlock = 1032;

// Up to this size a text stands behind its node.
constexpr size_t kShortText = 1024;

bool is_element(const wb_dom_node *node) { return node != nullptr && !node->is_text; }

// From node on, the first sibling that is an element.
wb_dom_node *element_from(wb_dom_node *node) {
  while (node != nullptr && node->is_text) node = node->next;
  return node;
}

void unlink(wb_dom_node &node) {
  Element &parent = *as_element(node.parent);
  (node.previous != nullptr ? node.previous->next : parent.first_child) = node.next;
  (node.next != nullptr ? node.next->previous : parent.last_child) = node.previous;
  node.parent = node.previous = node.next = nullptr;
}

// A node without children cannot be above another, so that building a tree downwards costs no climb.
bool is_at_or_above(const wb_dom_node *node, const wb_dom_node *below) {
  if (node == below) return true;
  if (node->is_text || as_element(node)->first_child == nullptr) return false;
  while (below != nullptr && below != node) below = below->parent;
  return below != nullptr;
}

// The record of a name that the application passes; null when it is no XML name.
const Name *name_of(wb_dom_ctx &context, const char *text) {
  if (const Name *const known = wb::known_name(text)) return known;
  NameParts parts;
  return wb::split_name(text, parts) ? context.names.checked_name(context.arena, parts) : nullptr;
}

// The link that holds the attribute of that name, or the null link at the end.
Attribute **find_attribute(Element &element, const Name *name) {
  Attribute **link = &element.attributes;
  while (*link != nullptr && !same((*link)->name, name)) link = &(*link)->next;
  return link;
}

Declaration **find_declaration(Element &element, std::string_view prefix) {
  Declaration **link = &element.declarations;
  while (*link != nullptr && (*link)->prefix->view() != prefix) link = &(*link)->next;
  return link;
}

// The node without its children.
wb_dom_node *copy_node(wb_dom_ctx &context, const wb_dom_node &node) {
  if (node.is_text) return wb::make_text(context, as_text(&node)->value, as_text(&node)->length);
  const Element &source = *as_element(&node);
  wb::Arena &arena = context.arena;
  Element *const copy = wb::make_element(context, context.names.imported(arena, *source.name));
  Attribute **attribute_link = &copy->attributes;
  for (const Attribute *attribute = source.attributes; attribute != nullptr; attribute = attribute->next) {
    const Name *const name = context.names.imported(arena, *attribute->name);
    *attribute_link = wb::make_attribute(context, name, attribute->value, attribute->length);
    attribute_link = &(*attribute_link)->next;
  }
  Declaration **declaration_link = &copy->declarations;
  for (const Declaration *declaration = source.declarations; declaration != nullptr; declaration = declaration->next) {
    const wb::Symbol *const prefix = context.names.symbol(arena, declaration->prefix->view(), declaration->prefix->hash);
    const wb::Symbol *const uri = context.names.symbol(arena, declaration->uri->view(), declaration->uri->hash);
    *declaration_link = wb::make_declaration(context, prefix, uri);
    declaration_link = &(*declaration_link)->next;
  }
  return copy;
}

wb_dom_node *copy_tree(wb_dom_ctx &context, const wb_dom_node &root) {
  wb_dom_node *const copy = copy_node(context, root);
  const wb_dom_node *source = &root;
  wb_dom_node *target = copy;
  for (;;) {
    if (!source->is_text && as_element(source)->first_child != nullptr) {
      source = as_element(source)->first_child;
      wb_dom_node *const child = copy_node(context, *source);
      wb::append_child(*as_element(target), *child);
      target = child;
      continue;
    }
    while (source != &root && source->next == nullptr) {
      source = source->parent;
      target = target->parent;
    }
    if (source == &root) return copy;
    source = source->next;
    wb_dom_node *const sibling = copy_node(context, *source);
    wb::append_child(*as_element(target->parent), *sibling);
    target = sibling;
  }
}

}  // namespace

wb::ContextRef wb::make_context(NameTable *table) {
  auto *const memory = static_cast<char *>(table != nullptr ? table->take_block() : std::malloc(kContextBlock));
  if (memory == nullptr) throw std::bad_alloc();
  if (table != nullptr) table->retain();
  char *const end = memory + (table != nullptr ? NameTable::kBlockBytes : kContextBlock);
  return ContextRef(new (memory) wb_dom_ctx(memory + Arena::round_up(sizeof(wb_dom_ctx)), end, table));
}

size_t wb_dom_context_get_memory(const wb_dom_ctx *context) {
  if (context == nullptr) return 0;
  return (context->shared != nullptr ? wb::NameTable::kBlockBytes : kContextBlock) + context->arena.reserved();
}

wb::Text *wb::make_text(wb_dom_ctx &context, const char *bytes, size_t length) {
  const size_t capacity = Arena::round_up(length + 1);
  const bool is_short = capacity <= kShortText;
  auto *const memory = static_cast<char *>(context.arena.allocate(sizeof(Text) + (is_short ? capacity : 0)));
  char *const value = is_short ? memory + sizeof(Text) : context.arena.allocate_bytes(capacity);
  *ByteBuffer::put(value, bytes, length) = 0;
  return new (memory) Text{{&context, nullptr, nullptr, nullptr, true}, value, length, capacity};
}

void wb::append_text(Text &text, const char *bytes, size_t length) {
  const size_t wanted = text.length + length + 1;
  if (wanted > text.capacity) text.value = text.context->arena.grow(text.value, text.length, text.capacity, wanted);
  std::memcpy(text.value + text.length, bytes, length);
  text.length += length;
  text.value[text.length] = 0;
}

bool wb_dom_context_create(wb_dom_ctx **out, wb_err *err) {
  return wb::guarded(err, __func__, [&] {
    if (out == nullptr) return WB_FAIL(err, WB_ERR_INVALID_ARG, "no place for the context");
    *out = nullptr;
    *out = wb::make_context(nullptr).release();
    return true;
  });
}

bool wb_dom_context_retain(wb_dom_ctx *context, wb_err *err) {
  if (context == nullptr) return WB_FAIL(err, WB_ERR_INVALID_ARG, "no context");
  context->references.fetch_add(1, std::memory_order_relaxed);
  return true;
}

void wb_dom_context_destroy(wb_dom_ctx *context) {
  if (context == nullptr || context->references.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  wb::NameTable *const table = context->shared;
  context->~wb_dom_ctx();
  if (table == nullptr) return std::free(context);
  table->give_back_block(context);
  table->release();
}

wb_dom_ctx *wb_dom_get_context(const wb_dom_node *node) { return node != nullptr ? node->context : nullptr; }

bool wb_dom_element_create(wb_dom_ctx *context, const char *ename, wb_dom_node **out, wb_err *err) {
  return wb::guarded(err, __func__, [&] {
    if (out == nullptr) return WB_FAIL(err, WB_ERR_INVALID_ARG, "no place for the element");
    *out = nullptr;
    if (context == nullptr || ename == nullptr) return WB_FAIL(err, WB_ERR_INVALID_ARG, "no context or name");
    const Name *const name = name_of(*context, ename);
    if (name == nullptr) return WB_FAIL(err, WB_ERR_BAD_FORMAT, "not the name of an XML element");
    *out = wb::make_element(*context, name);
    return true;
  });
}

bool wb_dom_text_create(wb_dom_ctx *context, const char *text, wb_dom_node **out, wb_err *err) {
  return wb::guarded(err, __func__, [&] {
    if (out == nullptr) return WB_FAIL(err, WB_ERR_INVALID_ARG, "no place for the text");
    *out = nullptr;
    if (context == nullptr || text == nullptr) return WB_FAIL(err, WB_ERR_INVALID_ARG, "no context or text");
    *out = wb::make_text(*context, text, std::strlen(text));
    return true;
  });
}

bool wb_dom_add_child(wb_dom_node *parent, wb_dom_node *child, wb_err *err) {
  if (parent == nullptr || child == nullptr) return WB_FAIL(err, WB_ERR_INVALID_ARG, "no parent or child");
  if (parent->is_text) return WB_FAIL(err, WB_ERR_INVALID_ARG, "a text has no children");
  if (parent->context != child->context) return WB_FAIL(err, WB_ERR_INVALID_ARG, "the child is of another context");
  if (is_at_or_above(child, parent)) return WB_FAIL(err, WB_ERR_INVALID_ARG, "the child is the parent or above it");
  if (child->parent != nullptr) unlink(*child);
  wb::append_child(*as_element(parent), *child);
  return true;
}

bool wb_dom_remove_child(wb_dom_node *parent, wb_dom_node *child, wb_err *err) {
  if (parent == nullptr || child == nullptr) return WB_FAIL(err, WB_ERR_INVALID_ARG, "no parent or child");
  if (child->parent != parent) return WB_FAIL(err, WB_ERR_INVALID_ARG, "not a child of this parent");
  unlink(*child);
  return true;
}

bool wb_dom_set_attribute(wb_dom_node *element, const char *name, const char *value, wb_err *err) {
  return wb::guarded(err, __func__, [&] {
    if (!is_element(element) || name == nullptr) return WB_FAIL(err, WB_ERR_INVALID_ARG, "no element or name");
    wb_dom_ctx &context = *element->context;
    const Name *const known = name_of(context, name);
    // An attribute called xmlns would read as a declaration.
    const bool reserved =
        known != nullptr && known->local_length == 5 && known->uri->length == 0 && std::strcmp(known->local, "xmlns") == 0;
    if (known == nullptr || reserved) return WB_FAIL(err, WB_ERR_BAD_FORMAT, "not the name of an XML attribute");
    Attribute **const link = find_attribute(*as_element(element), known);
    if (value == nullptr) {
      if (*link != nullptr) *link = (*link)->next;
      return true;
    }
    Attribute *const made = wb::make_attribute(context, known, value, std::strlen(value));
    if (*link != nullptr) made->next = (*link)->next;
    *link = made;
    return true;
  });
}

const char *wb_dom_get_attribute(const wb_dom_node *element, const char *name) {
  NameParts parts;
  if (!is_element(element) || name == nullptr || !wb::split_name(name, parts)) return nullptr;
  for (const Attribute *attribute = as_element(element)->attributes; attribute != nullptr; attribute = attribute->next) {
    if (equals(*attribute->name, parts)) return attribute->value;
  }
  return nullptr;
}

bool wb_dom_put_namespace(wb_dom_node *element, const char *prefix, const char *uri, wb_err *err) {
  return wb::guarded(err, __func__, [&] {
    if (!is_element(element) || prefix == nullptr || uri == nullptr) {
      return WB_FAIL(err, WB_ERR_INVALID_ARG, "no element, prefix or namespace");
    }
    Element &target = *as_element(element);
    const std::string_view prefix_text(prefix);
    const std::string_view uri_text(uri);
    if (!prefix_text.empty() && uri_text.empty())
      return WB_FAIL(err, WB_ERR_INVALID_ARG, "a prefix cannot stand for no namespace");
    if (prefix_text.empty() && !uri_text.empty() && target.name->uri->length == 0) {
      return WB_FAIL(err, WB_ERR_INVALID_ARG, "a default namespace on an element that has none");
    }
    if (prefix_text == "xml" || prefix_text == "xmlns" || uri_text == wb::kXmlUri || uri_text == wb::kXmlnsUri) {
      return WB_FAIL(err, WB_ERR_BAD_FORMAT, "the prefix or the namespace is reserved");
    }
    if (!prefix_text.empty() && !wb::is_ncname(prefix_text)) return WB_FAIL(err, WB_ERR_BAD_FORMAT, "not a namespace prefix");
    if (uri_text.size() > UINT32_MAX / 2 || !wb::is_xml_text(uri_text)) return WB_FAIL(err, WB_ERR_BAD_FORMAT, "not a namespace");
    wb_dom_ctx &context = *element->context;
    const wb::Symbol *const known_uri = context.names.symbol(context.arena, uri_text);
    Declaration **const link = find_declaration(target, prefix_text);
    if (*link != nullptr) {
      (*link)->uri = known_uri;
      return true;
    }
    *link = wb::make_declaration(context, context.names.symbol(context.arena, prefix_text), known_uri);
    return true;
  });
}

bool wb_dom_import(wb_dom_ctx *context, const wb_dom_node *node, bool deep, wb_dom_node **out, wb_err *err) {
  return wb::guarded(err, __func__, [&] {
    if (out == nullptr) return WB_FAIL(err, WB_ERR_INVALID_ARG, "no place for the copy");
    *out = nullptr;
    if (context == nullptr || node == nullptr) return WB_FAIL(err, WB_ERR_INVALID_ARG, "no context or node");
    *out = deep ? copy_tree(*context, *node) : copy_node(*context, *node);
    return true;
  });
}

wb_dom_node *wb_dom_get_parent(const wb_dom_node *node) { return node != nullptr ? node->parent : nullptr; }

wb_dom_node *wb_dom_get_first_child(const wb_dom_node *node) { return element_from(wb_dom_get_first_node(node)); }

wb_dom_node *wb_dom_get_sibling(const wb_dom_node *node) { return element_from(wb_dom_get_next_node(node)); }

wb_dom_node *wb_dom_get_first_node(const wb_dom_node *node) { return is_element(node) ? as_element(node)->first_child : nullptr; }

wb_dom_node *wb_dom_get_next_node(const wb_dom_node *node) { return node != nullptr ? node->next : nullptr; }

wb_dom_node *wb_dom_get_first_element(const wb_dom_node *node, const char *ename) {
  wb_dom_node *child = wb_dom_get_first_child(node);
  NameParts parts;
  if (child == nullptr || ename == nullptr) return child;
  if (!wb::split_name(ename, parts)) return nullptr;
  while (child != nullptr && !equals(*as_element(child)->name, parts)) child = element_from(child->next);
  return child;
}

const char *wb_dom_get_ename(const wb_dom_node *element) {
  return is_element(element) ? as_element(element)->name->ename : nullptr;
}

const char *wb_dom_get_localname(const wb_dom_node *element) {
  return is_element(element) ? as_element(element)->name->local : nullptr;
}

const char *wb_dom_get_namespace_uri(const wb_dom_node *element) {
  return is_element(element) ? as_element(element)->name->uri->text : nullptr;
}

const char *wb_dom_get_first_text(const wb_dom_node *element) {
  const wb_dom_node *child = wb_dom_get_first_node(element);
  while (child != nullptr && !child->is_text) child = child->next;
  return child != nullptr ? as_text(child)->value : nullptr;
}

const char *wb_dom_get_value(const wb_dom_node *text) {
  return text != nullptr && text->is_text ? as_text(text)->value : nullptr;
}

#include "dom_builder.h"

#include <cstring>
#include <utility>

wb::DomBuilder::DomBuilder(const BuildOptions &options) : options_(options), table_(NameTable::create(options.names_bytes_max)) {}

wb::DomBuilder::~DomBuilder() { table_->release(); }

// Binds what the attributes declare, since that holds for the element's own name and all its attributes, and makes the others,
// unless there is no element. What has a prefix gets its name when all declarations are known.
wb::BuildResult wb::DomBuilder::read_attributes(const char **attributes, Element *element) {
  prefixed_.clear();
  Declaration **declaration_link = element != nullptr && options_.keeps_declarations ? &element->declarations : nullptr;
  Attribute **attribute_link = element != nullptr ? &element->attributes : nullptr;
  for (size_t count = 0; *attributes != nullptr; attributes += 2) {
    QName *const name = table_->qname(*attributes);
    if (name == nullptr) return BuildResult::bad_namespace;
    if (++count > options_.attributes_max) return BuildResult::too_many_attributes;
    Prefix *const prefix = name->declares;
    if (prefix != nullptr) {
      const Symbol *const uri = table_->uri(attributes[1]);
      if (!table_->may_bind(*prefix, *uri)) return BuildResult::bad_namespace;
      undo_.push_back(Undo{prefix, prefix->bound, depth_});
      prefix->bound = uri;
      if (declaration_link == nullptr) continue;
      *declaration_link = make_declaration(*context_, prefix->symbol, uri);
      declaration_link = &(*declaration_link)->next;
      continue;
    }
    Attribute *made = nullptr;
    if (attribute_link != nullptr) {
      made = make_attribute(*context_, nullptr, attributes[1], std::strlen(attributes[1]));
      *attribute_link = made;
      attribute_link = &made->next;
    }
    if (name->prefix != nullptr) {
      prefixed_.push_back(Prefixed{name, made});
    } else if (made != nullptr) {
      made->name = table_->attribute_name(*name);
      if (made->name == nullptr) return unnamed();
    }
  }
  return BuildResult::ok;
}

// Only names with a prefix can be equal when they are written differently, so only they are compared.
wb::BuildResult wb::DomBuilder::name_prefixed() {
  for (const Prefixed &prefixed : prefixed_) {
    Name *const name = table_->attribute_name(*prefixed.name);
    if (name == nullptr) return unnamed();
    if (name->mark == elements_) return BuildResult::bad_namespace;
    name->mark = elements_;
    if (prefixed.attribute != nullptr) prefixed.attribute->name = name;
  }
  return BuildResult::ok;
}

wb::BuildResult wb::DomBuilder::open(const char *name, const char **attributes) {
  if (current_ == nullptr) context_ = make_context(table_);
  ++depth_;
  ++elements_;
  QName *const written = table_->qname(name);
  if (written == nullptr) return BuildResult::bad_namespace;
  Element *const element = make_element(*context_, nullptr);
  const bool has_attributes = *attributes != nullptr;
  if (has_attributes) {
    if (const BuildResult result = read_attributes(attributes, element); result != BuildResult::ok) return result;
  }
  element->name = table_->element_name(*written);
  if (element->name == nullptr) return unnamed();
  if (has_attributes) {
    if (const BuildResult result = name_prefixed(); result != BuildResult::ok) return result;
  }
  if (current_ != nullptr) {
    append_child(*current_, *element);
  } else {
    root_ = element;
  }
  current_ = element;
  return BuildResult::ok;
}

wb::BuildResult wb::DomBuilder::enter(const char *name, const char **attributes) {
  ++depth_;
  ++elements_;
  QName *const written = table_->qname(name);
  if (written == nullptr) return BuildResult::bad_namespace;
  if (const BuildResult result = read_attributes(attributes, nullptr); result != BuildResult::ok) return result;
  return table_->element_name(*written) != nullptr ? name_prefixed() : unnamed();
}

void wb::DomBuilder::text(const char *bytes, size_t length) {
  if (current_ == nullptr) return;
  if (options_.text_waits) {
    if (waiting_ != nullptr) {
      append_text(*waiting_, bytes, length);
    } else {
      waiting_ = make_text(*context_, bytes, length);
    }
    return;
  }
  wb_dom_node *const last = current_->last_child;
  if (last != nullptr && last->is_text) {
    append_text(*as_text(last), bytes, length);
  } else {
    append_child(*current_, *make_text(*context_, bytes, length));
  }
}

bool wb::DomBuilder::close() {
  while (!undo_.empty() && undo_.back().depth == depth_) {
    undo_.back().prefix->bound = undo_.back().bound;
    undo_.pop_back();
  }
  --depth_;
  if (current_ == nullptr) return false;
  if (waiting_ != nullptr) append_child(*current_, *std::exchange(waiting_, nullptr));
  current_ = static_cast<Element *>(current_->parent);
  return current_ == nullptr;
}

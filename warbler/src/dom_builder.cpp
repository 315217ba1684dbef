#include "dom_builder.h"

#include <cstring>
#include <utility>

wb::DomBuilder::DomBuilder(const BuildOptions &options) : options_(options), table_(NameTable::create()) {}

wb::DomBuilder::~DomBuilder() { table_->release(); }

// Binds what the attributes declare, since that holds for the element's own name and all its attributes. The declarations are
// noted at the link, unless it is null; what is no declaration is set aside.
wb::BuildResult wb::DomBuilder::declare(const char **attributes, Declaration **link) {
  written_.clear();
  size_t count = 0;
  for (; *attributes != nullptr; attributes += 2) {
    QName *const name = table_->qname(*attributes);
    if (name == nullptr) return BuildResult::bad_namespace;
    if (++count > options_.attributes_max) return BuildResult::too_many_attributes;
    Prefix *const prefix = name->declares;
    if (prefix == nullptr) {
      written_.push_back(Written{name, attributes[1]});
      continue;
    }
    const Symbol *const uri = table_->uri(attributes[1]);
    if (!table_->may_bind(*prefix, *uri)) return BuildResult::bad_namespace;
    undo_.push_back(Undo{prefix, prefix->bound, depth_});
    prefix->bound = uri;
    if (link == nullptr) continue;
    *link = make_declaration(*context_, prefix->symbol, uri);
    link = &(*link)->next;
  }
  return BuildResult::ok;
}

// Only names with a prefix can be equal when they are written differently, so only they are compared.
wb::BuildResult wb::DomBuilder::put_attributes(Attribute **link) {
  for (const Written &written : written_) {
    Name *const name = table_->attribute_name(*written.name);
    if (name == nullptr) return BuildResult::bad_namespace;
    if (written.name->prefix != nullptr) {
      if (name->mark == elements_) return BuildResult::bad_namespace;
      name->mark = elements_;
    }
    if (link == nullptr) continue;
    *link = make_attribute(*context_, name, written.value, std::strlen(written.value));
    link = &(*link)->next;
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
    Declaration **const link = options_.keeps_declarations ? &element->declarations : nullptr;
    if (const BuildResult result = declare(attributes, link); result != BuildResult::ok) return result;
  }
  element->name = table_->element_name(*written);
  if (element->name == nullptr) return BuildResult::bad_namespace;
  if (has_attributes) {
    if (const BuildResult result = put_attributes(&element->attributes); result != BuildResult::ok) return result;
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
  if (const BuildResult result = declare(attributes, nullptr); result != BuildResult::ok) return result;
  return table_->element_name(*written) != nullptr ? put_attributes(nullptr) : BuildResult::bad_namespace;
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

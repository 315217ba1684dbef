#include "dom_builder.h"

#include <cstring>

#include "xml_text.h"

namespace {

// The prefix that an attribute declares, the empty text for the default namespace; null when it is no declaration.
const char *declared_prefix(const char *attribute) {
  if (attribute[0] != 'x' || std::strncmp(attribute, "xmlns", 5) != 0) return nullptr;
  if (attribute[5] == 0) return attribute + 5;
  return attribute[5] == ':' ? attribute + 6 : nullptr;
}

}  // namespace

wb::DomBuilder::DomBuilder(size_t attributes_max) : attributes_max_(attributes_max), table_(NameTable::create()) {}

wb::DomBuilder::~DomBuilder() { table_->release(); }

bool wb::DomBuilder::bind(Prefix &prefix, const Symbol &uri) {
  const bool is_xml = prefix.symbol->view() == "xml";
  if (is_xml != (uri.view() == kXmlUri) || uri.view() == kXmlnsUri) return false;
  if (uri.length == 0 && prefix.symbol->length != 0) return false;
  undo_.push_back(Undo{&prefix, prefix.bound, depth_});
  prefix.bound = &uri;
  return true;
}

// The declarations are bound; they are noted at the link too, unless it is null.
wb::BuildResult wb::DomBuilder::declare(const char **attributes, Declaration **link) {
  size_t count = 0;
  for (; *attributes != nullptr; attributes += 2, ++count) {
    const char *const text = declared_prefix(*attributes);
    if (text == nullptr) continue;
    const bool is_default = text[-1] != ':';
    if (!is_default && (!begins_name(text) || std::strchr(text, ':') != nullptr || std::strcmp(text, "xmlns") == 0)) {
      return BuildResult::bad_namespace;
    }
    Prefix &prefix = *table_->prefix(text);
    const Symbol &uri = *table_->uri(attributes[1]);
    if (!bind(prefix, uri)) return BuildResult::bad_namespace;
    if (link == nullptr) continue;
    *link = make_declaration(*context_, prefix.symbol, &uri);
    link = &(*link)->next;
  }
  return count > attributes_max_ ? BuildResult::too_many_attributes : BuildResult::ok;
}

// Only names with a prefix can be equal when they are written differently, so only they are compared.
wb::BuildResult wb::DomBuilder::put_attributes(const char **attributes, Element *element) {
  Attribute **link = element != nullptr ? &element->attributes : nullptr;
  for (; *attributes != nullptr; attributes += 2) {
    if (declared_prefix(*attributes) != nullptr) continue;
    QName *const written = table_->qname(*attributes);
    Name *const name = written != nullptr ? table_->attribute_name(*written) : nullptr;
    if (name == nullptr) return BuildResult::bad_namespace;
    if (written->prefix != nullptr) {
      if (name->mark == elements_) return BuildResult::bad_namespace;
      name->mark = elements_;
    }
    if (link == nullptr) continue;
    *link = make_attribute(*context_, name, attributes[1], std::strlen(attributes[1]));
    link = &(*link)->next;
  }
  return BuildResult::ok;
}

wb::BuildResult wb::DomBuilder::open(const char *name, const char **attributes) {
  if (current_ == nullptr) context_ = make_context(table_);
  ++depth_;
  ++elements_;
  Element *const element = make_element(*context_, nullptr);
  if (*attributes != nullptr) {
    if (const BuildResult result = declare(attributes, &element->declarations); result != BuildResult::ok) return result;
  }
  QName *const written = table_->qname(name);
  element->name = written != nullptr ? table_->element_name(*written) : nullptr;
  if (element->name == nullptr) return BuildResult::bad_namespace;
  if (*attributes != nullptr) {
    if (const BuildResult result = put_attributes(attributes, element); result != BuildResult::ok) return result;
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
  if (const BuildResult result = declare(attributes, nullptr); result != BuildResult::ok) return result;
  QName *const written = table_->qname(name);
  if (written == nullptr || table_->element_name(*written) == nullptr) return BuildResult::bad_namespace;
  return put_attributes(attributes, nullptr);
}

void wb::DomBuilder::text(const char *bytes, size_t length) {
  if (current_ == nullptr) return;
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
  current_ = static_cast<Element *>(current_->parent);
  return current_ == nullptr;
}

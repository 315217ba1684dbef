// Trees as text, for comparing them: expanded names, attributes in the order of their names, adjacent texts joined.
#pragma once

#include <map>
#include <string>

#include "dom_node.h"

namespace dom_text {

inline std::string attributes(const wb::Element &element) {
  std::map<std::string, std::string> sorted;
  for (const wb::Attribute *a = element.attributes; a != nullptr; a = a->next) sorted[a->name->ename] = a->value;
  std::string out;
  for (const auto &[name, value] : sorted) out += " " + name + "='" + value + "'";
  return out;
}

inline std::string declarations(const wb::Element &element) {
  std::string out;
  for (const wb::Declaration *d = element.declarations; d != nullptr; d = d->next) {
    out += std::string(" ") + d->prefix->text + ":=" + d->uri->text;
  }
  return out;
}

inline std::string describe(const wb_dom_node *root, bool with_declarations = false) {
  std::string out;
  const wb_dom_node *node = root;
  while (node != nullptr) {
    const wb_dom_node *next = nullptr;
    if (node->is_text) {
      out += std::string(wb::as_text(node)->value, wb::as_text(node)->length);
    } else {
      const wb::Element &element = *wb::as_element(node);
      out +=
          "<" + std::string(element.name->ename) + attributes(element) + (with_declarations ? declarations(element) : "") + ">";
      next = element.first_child;
      if (next == nullptr) out += "</>";
    }
    while (next == nullptr && node != root) {
      next = node->next;
      if (next != nullptr) break;
      node = node->parent;
      out += "</>";
    }
    node = next;
  }
  return out;
}

inline std::string serialized(const wb_dom_node *node) {
  char *xml = nullptr;
  size_t length = 0;
  wb_err err{};
  if (!wb_serialize_xml(node, &xml, &length, &err)) return std::string("error: ") + wb_err_message(err.code);
  std::string out(xml, length);
  std::free(xml);
  return out;
}

// A parsed document and its context; root is null when it was refused.
struct Document {
  explicit Document(const std::string &xml) { wb_dom_parse(xml.data(), xml.size(), &root, &err); }
  ~Document() { wb_dom_context_destroy(wb_dom_get_context(root)); }
  Document(const Document &) = delete;
  Document &operator=(const Document &) = delete;
  wb_dom_node *root = nullptr;
  wb_err err{};
};

}  // namespace dom_text

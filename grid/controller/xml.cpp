#include "xml.h"

namespace controller {

namespace {

void require(bool done, const wb_err &err) {
  if (!done) throw XmlError(err.message != nullptr ? err.message : "XML error");
}

Element create(wb_dom_ctx *context, std::string_view ns, std::string_view local) {
  wb_err err = {};
  wb_dom_node *node = nullptr;
  require(wb_dom_element_create(context, ename(ns, local).c_str(), &node, &err), err);
  return Element(node);
}

}  // namespace

std::string ename(std::string_view ns, std::string_view local) {
  std::string name = "{";
  name.append(ns).append("}").append(local);
  return name;
}

Element Element::add(std::string_view local) { return add_in(wb_dom_get_namespace_uri(node_), local); }

Element Element::add(std::string_view local, const std::string &text) {
  const Element child = add(local);
  if (text.empty()) return child;
  wb_err err = {};
  wb_dom_node *node = nullptr;
  require(wb_dom_text_create(wb_dom_get_context(node_), text.c_str(), &node, &err), err);
  require(wb_dom_add_child(child.node_, node, &err), err);
  return child;
}

Element Element::add_in(std::string_view ns, std::string_view local) {
  const Element child = create(wb_dom_get_context(node_), ns, local);
  wb_err err = {};
  require(wb_dom_add_child(node_, child.node_, &err), err);
  return child;
}

Element Element::set(const char *attribute, const std::string &value) {
  wb_err err = {};
  require(wb_dom_set_attribute(node_, attribute, value.c_str(), &err), err);
  return *this;
}

Stanza::Stanza(std::string_view ns, std::string_view local) {
  wb_err err = {};
  wb_dom_ctx *context = nullptr;
  require(wb_dom_context_create(&context, &err), err);
  context_.reset(context);
  root_ = create(context, ns, local);
}

wb_dom_node *Stanza::release() {
  static_cast<void>(context_.release());  // whoever sends the stanza takes over its reference
  return root_.node();
}

Stanza make_iq(const std::string &type, const std::string &to) {
  Stanza iq(kClientNs, "iq");
  iq.root().set("type", type).set("to", to);
  return iq;
}

std::string attribute_of(const wb_dom_node *element, const char *name) {
  const char *value = element != nullptr ? wb_dom_get_attribute(element, name) : nullptr;
  return value != nullptr ? value : "";
}

std::string text_of(const wb_dom_node *element) {
  const char *text = element != nullptr ? wb_dom_get_first_text(element) : nullptr;
  return text != nullptr ? text : "";
}

std::string child_text(const wb_dom_node *element, std::string_view ns, std::string_view local) {
  return text_of(find_child(element, ns, local));
}

bool is_named(const wb_dom_node *element, std::string_view ns, std::string_view local) {
  const char *name = element != nullptr ? wb_dom_get_ename(element) : nullptr;
  return name != nullptr && ename(ns, local) == name;
}

wb_dom_node *find_child(const wb_dom_node *element, std::string_view ns, std::string_view local) {
  return element != nullptr ? wb_dom_get_first_element(element, ename(ns, local).c_str()) : nullptr;
}

}  // namespace controller

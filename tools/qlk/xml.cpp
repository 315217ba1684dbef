#include "xml.h"

#include <cstdlib>

#include "failure.h"

namespace tool {

const char kGridNamespace[] = "http://quillon.internal/quillon";

namespace {

using Text = std::unique_ptr<char, decltype(&std::free)>;

Element parse(std::string_view xml, wb_err &err) {
  wb_dom_node *root = nullptr;
  wb_dom_parse(xml.data(), xml.size(), &root, &err);
  return Element(root);
}

}  // namespace

Element parse_payload(std::string_view xml, const std::string &origin) {
  wb_err err = {};
  Element element = parse(xml, err);
  if (element != nullptr) return element;
  throw Failure(ExitCode::usage, origin + " is no XML element: " + (err.message != nullptr ? err.message : "it cannot be read"),
                "A payload is one element, such as <reading>21</reading>.");
}

Element parse_or_null(std::string_view xml) {
  wb_err err = {};
  return parse(xml, err);
}

Element copy_of(const wb_dom_node *node) {
  wb_dom_ctx *context = nullptr;
  wb_dom_node *copy = nullptr;
  if (!wb_dom_context_create(&context, nullptr)) throw std::bad_alloc();
  if (!wb_dom_import(context, node, true, &copy, nullptr)) {
    wb_dom_context_destroy(context);
    throw std::bad_alloc();
  }
  return Element(copy);
}

std::string to_xml(const wb_dom_node *node) {
  char *xml = nullptr;
  size_t length = 0;
  wb_err err = {};
  if (!wb_serialize_xml(node, &xml, &length, &err)) throw Failure(ExitCode::bad_data, "a payload cannot be written as XML");
  const Text owned(xml, &std::free);
  std::string text(xml, length);
  // What was cut out of a stanza still denies the stanza's namespace.
  const std::string denial = std::string("<") + wb_dom_get_localname(node) + " xmlns=\"\"";
  if (text.starts_with(denial)) text.erase(denial.size() - sizeof " xmlns=\"\"" + 1, sizeof " xmlns=\"\"" - 1);
  return text;
}

std::string to_xml_line(const wb_dom_node *node) {
  std::string xml = to_xml(node);
  for (size_t at = xml.find('\n'); at != std::string::npos; at = xml.find('\n', at)) xml.replace(at, 1, "&#10;");
  return xml;
}

std::string expanded_name(const std::string &ns, const std::string &name) {
  return name.starts_with('{') ? name : "{" + ns + "}" + name;
}

void split_name(const std::string &name, std::string &ns, std::string &local) {
  const size_t end = name.starts_with('{') ? name.rfind('}') : std::string::npos;
  if (end == std::string::npos) {
    local = name;
    return;
  }
  ns = name.substr(1, end - 1);
  local = name.substr(end + 1);
}

const wb_dom_node *child_of(const wb_dom_node *parent, const char *local) {
  return wb_dom_get_first_element(parent, expanded_name(kGridNamespace, local).c_str());
}

std::string child_text(const wb_dom_node *parent, const char *local) {
  const char *text = wb_dom_get_first_text(child_of(parent, local));
  return text != nullptr ? text : "";
}

std::string attribute(const wb_dom_node *element, const char *name) {
  const char *value = element != nullptr ? wb_dom_get_attribute(element, name) : nullptr;
  return value != nullptr ? value : "";
}

}  // namespace tool

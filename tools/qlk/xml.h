// Payloads as XML text and as trees.
#pragma once

#include <quillon.h>

#include <memory>
#include <string>
#include <string_view>

namespace tool {

// Ends the context of an element that owns it.
struct ContextEnd {
  void operator()(wb_dom_node *node) const { wb_dom_context_destroy(wb_dom_get_context(node)); }
};
// An element with a context of its own.
using Element = std::unique_ptr<wb_dom_node, ContextEnd>;

// Reads one element; origin names where the text came from, for the Failure that is thrown when it is none.
Element parse_payload(std::string_view xml, const std::string &origin);
// The same without a Failure: null when the text is none.
Element parse_or_null(std::string_view xml);

// A copy in a context of its own.
Element copy_of(const wb_dom_node *node);

// The element as XML.
std::string to_xml(const wb_dom_node *node);
// The same on one line: line breaks of the text become character references.
std::string to_xml_line(const wb_dom_node *node);

// The element as JSON on one line: {"name", "namespace", "attributes", "children", "text"}, each only where there is something to
// say: the namespace where it is another than the parent's, the text of elements with children where it is not blank.
std::string to_json(const wb_dom_node *node);

// A text as a JSON string; what is no UTF-8 in it is replaced.
std::string json_string(std::string_view text);

// "{namespace}local" of the two; a name that is in that form already stays.
std::string expanded_name(const std::string &ns, const std::string &name);
// The parts of such a name.
void split_name(const std::string &name, std::string &ns, std::string &local);

// The text of the first child with that local name in the grid's namespace; empty when there is none.
std::string child_text(const wb_dom_node *parent, const char *local);
// The first child with that local name in the grid's namespace, or NULL.
const wb_dom_node *child_of(const wb_dom_node *parent, const char *local);
// The attribute's value; empty when there is none.
std::string attribute(const wb_dom_node *element, const char *name);

// The namespace of the grid's own payloads.
extern const char kGridNamespace[];

}  // namespace tool

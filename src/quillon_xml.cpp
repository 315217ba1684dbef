#include <cstring>

#include "guard.h"

namespace {

constexpr size_t kSenderBytes = 2048;

// True when the text begins with the prefix.
bool begins_with(const char *text, const char *prefix) { return std::strncmp(text, prefix, std::strlen(prefix)) == 0; }

bool add_child_and_text(wb_dom_node *parent, const char *child_name, const char *text, wb_err *err) {
  wb_dom_ctx *context = wb_dom_get_context(parent);
  wb_dom_node *child = nullptr;
  wb_dom_node *content = nullptr;
  return wb_dom_element_create(context, child_name, &child, err) && wb_dom_text_create(context, text, &content, err) &&
         wb_dom_add_child(child, content, err) && wb_dom_add_child(parent, child, err);
}

const wb_dom_node *root_of(const wb_dom_node *node) {
  while (const wb_dom_node *parent = wb_dom_get_parent(node)) node = parent;
  return node;
}

}  // namespace

QUILLON_STATUS quillon_xml_add_child_and_text(wb_dom_node *parent, const char *child_name, const char *text) {
  qlk::trace(__func__);
  if (parent == nullptr) return qlk::refuse("parent is null");
  if (child_name == nullptr) return qlk::refuse("child name is null");
  if (text == nullptr) return qlk::refuse("text is null");
  wb_err err = {};
  if (add_child_and_text(parent, child_name, text, &err)) return QUILLON_STATUS_OK;
  wb_log_err(WB_LOG_ERROR, &err, "_dom_add_child_and_text");
  return QUILLON_STATUS_XML_ERROR;
}

QUILLON_STATUS quillon_xml_get_sibling_of_name(wb_dom_node *current_node, const char *sibling_ename, wb_dom_node **sibling) {
  qlk::trace(__func__);
  if (sibling == nullptr) return qlk::refuse("sibling is null");
  *sibling = nullptr;
  if (current_node == nullptr) return qlk::refuse("current node is null");
  if (sibling_ename == nullptr) return qlk::refuse("sibling name is null");
  wb_dom_node *candidate = wb_dom_get_sibling(current_node);
  // The candidate's name decides the length: a name that the wanted one begins with is a match as well.
  while (candidate != nullptr && !begins_with(sibling_ename, wb_dom_get_ename(candidate)))
    candidate = wb_dom_get_sibling(candidate);
  *sibling = candidate;
  return QUILLON_STATUS_OK;
}

bool quillon_xml_is_ename(wb_dom_node *node, const char *ename) {
  qlk::trace(__func__);
  const char *name = node != nullptr ? wb_dom_get_ename(node) : nullptr;
  return ename != nullptr && name != nullptr && begins_with(name, ename);
}

const char *quillon_xml_get_text_of_first_child_of_name(wb_dom_node *parent, const char *child_ename) {
  qlk::trace(__func__);
  if (parent == nullptr || child_ename == nullptr) return nullptr;
  const wb_dom_node *child = wb_dom_get_first_element(parent, child_ename);
  return child != nullptr ? wb_dom_get_first_text(child) : nullptr;
}

QUILLON_STATUS quillon_xml_get_sender(wb_dom_node *node, char *sender) {
  if (sender == nullptr) return QUILLON_STATUS_OK;
  const char *from = node != nullptr ? wb_dom_get_attribute(root_of(node), "from") : nullptr;
  size_t length = from != nullptr ? std::strcspn(from, "/") : 0;
  if (length >= kSenderBytes) length = 0;  // it is no JID
  if (length != 0) std::memcpy(sender, from, length);
  sender[length] = '\0';
  return QUILLON_STATUS_OK;
}

#include "stanza_builder.h"

namespace qlk {

wb_dom_node *StanzaBuilder::element(const char *ename, wb_dom_node *parent) {
  wb_dom_node *created = nullptr;
  ok_ = ok_ && wb_dom_element_create(context_, ename, &created, &err_) &&
        (parent == nullptr || wb_dom_add_child(parent, created, &err_));
  return ok_ ? created : nullptr;
}

void StanzaBuilder::child(wb_dom_node *parent, wb_dom_node *child) { ok_ = ok_ && wb_dom_add_child(parent, child, &err_); }

void StanzaBuilder::attribute(wb_dom_node *element, const char *name, const char *value) {
  // The DOM would take null as the wish to remove the attribute.
  ok_ = ok_ && value != nullptr && wb_dom_set_attribute(element, name, value, &err_);
}

void StanzaBuilder::declare(wb_dom_node *element, const char *prefix, const char *uri) {
  ok_ = ok_ && uri != nullptr && wb_dom_put_namespace(element, prefix, uri, &err_);
}

void StanzaBuilder::text(wb_dom_node *parent, const char *ename, const char *text) {
  ok_ = ok_ && quillon_xml_add_child_and_text(parent, ename, text) == QUILLON_STATUS_OK;
}

void StanzaBuilder::log_failure(const char *caption) const {
  wb_log_err(WB_LOG_ERROR, err_.code != WB_ERR_NONE ? &err_ : nullptr, caption);
}

}  // namespace qlk

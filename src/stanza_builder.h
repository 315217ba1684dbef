// Building stanzas: a node that owns its context, and a builder that is asked once, at the end, whether all went well.
#pragma once

#include <memory>

#include "quillon.h"

namespace qlk {

struct NodeDelete {
  void operator()(wb_dom_node *node) const { wb_dom_context_destroy(wb_dom_get_context(node)); }
};

// A node together with one reference of its context.
using NodePtr = std::unique_ptr<wb_dom_node, NodeDelete>;

// Adds nodes to a context. After the first step that fails the others do nothing, so that a sequence of steps is checked at its
// end.
class StanzaBuilder {
 public:
  explicit StanzaBuilder(wb_dom_ctx *context) : context_(context) {}

  // A new element, the last child of parent unless that is null. Null after a failure.
  wb_dom_node *element(const char *ename, wb_dom_node *parent = nullptr);
  void child(wb_dom_node *parent, wb_dom_node *child);
  // A null value is a failure.
  void attribute(wb_dom_node *element, const char *name, const char *value);
  // A null uri is a failure.
  void declare(wb_dom_node *element, const char *prefix, const char *uri);
  // An element that holds a text, the last child of parent; a null text is a failure.
  void text(wb_dom_node *parent, const char *ename, const char *text);

  bool ok() const { return ok_; }
  // Logs the XMPP layer's error, if the failure came with one, under the caption.
  void log_failure(const char *caption) const;

 private:
  wb_dom_ctx *context_;
  bool ok_ = true;
  wb_err err_ = {};
};

}  // namespace qlk

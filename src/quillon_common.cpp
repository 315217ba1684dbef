#include "quillon.h"

void quillon_log_wb_dom(wb_log_level level, const wb_dom_node *node, const char *caption) {
  const void *context = node != nullptr ? wb_dom_get_context(node) : nullptr;
  wb_log_dom(level, node, "%s(context: %p, ref: %p)", caption != nullptr ? caption : "", context,
             static_cast<const void *>(node));
}

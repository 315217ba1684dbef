// A question to the controller: its payload is built in a context of its own, sent, and answered by another payload.
#pragma once

#include "owners.h"
#include "quillon.h"
#include "stanza_builder.h"

namespace qlk {

// The payload while it is built. Nothing is sent unless ok().
class ControllerRequest {
 public:
  // An element in a new context.
  explicit ControllerRequest(const char *ename);

  // Declares the prefixes qn and xsi on the root, as most requests do after their default namespace.
  void declare_prefixes(const char *qn);

  wb_dom_ctx *context() const { return context_.get(); }  // null when none could be made
  wb_dom_node *root() const { return root_; }
  StanzaBuilder &build() { return builder_; }
  bool ok() const { return builder_.ok(); }

  // Sends the payload, which is gone then whatever happens, and waits for the answer, which is null unless the result is OK.
  // Blocks: at most the send time-out. Thread: not-loop.
  QUILLON_STATUS send(quillon_connection *connection, NodePtr &reply);

 private:
  DomContextPtr context_;
  StanzaBuilder builder_;
  wb_dom_node *root_;
};

// The statuses after which no answer is looked for.
inline bool no_answer(QUILLON_STATUS status) { return status == QUILLON_STATUS_SEND_TIMEOUT || status == QUILLON_STATUS_UNKNOWN; }

}  // namespace qlk

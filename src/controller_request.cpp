#include "controller_request.h"

#include "quillon_grid.h"

namespace {

qlk::DomContextPtr create_context() {
  wb_dom_ctx *context = nullptr;
  wb_dom_context_create(&context, nullptr);
  return qlk::DomContextPtr(context);
}

}  // namespace

namespace qlk {

ControllerRequest::ControllerRequest(const char *ename)
    : context_(create_context()), builder_(context_.get()), root_(builder_.element(ename)) {}

void ControllerRequest::declare_prefixes(const char *qn) {
  builder_.declare(root_, namespace_qn_tag, qn);
  builder_.declare(root_, namespace_xsi_tag, namespace_xsi_tag_value);
}

QUILLON_STATUS ControllerRequest::send(quillon_connection *connection, NodePtr &reply) {
  wb_dom_node *received = nullptr;
  static_cast<void>(context_.release());  // the query consumes it
  const QUILLON_STATUS status = quillon_connection_query_controller(connection, root_, &received);
  if (status == QUILLON_STATUS_INVALID_ARGS) NodePtr unsent(root_);  // all but this, which leaves the request with the caller
  reply.reset(received);
  return status;
}

}  // namespace qlk

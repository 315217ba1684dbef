#include <cstring>

#include "controller_request.h"
#include "guard.h"
#include "quillon_grid.h"

#define ADMIN_NAME(local) "{" ADMIN_NS "}" local

const char *const auth_request_name = ADMIN_NAME("getAuthorizedByUserRequest");
const char *const auth_capability_name = ADMIN_NAME("capabilityName");
const char *const auth_operation_name = ADMIN_NAME("operationName");
const char *const auth_user_name = ADMIN_NAME("user");
const char *const auth_node_name = ADMIN_NAME("authorized");

namespace {

bool deny(const char *message) {
  wb_log(WB_LOG_ERROR, "%s", message);
  return false;
}

bool ask_controller(quillon_connection *connection, const char *capability_name, const char *operation_name, const char *user) {
  qlk::ControllerRequest request(auth_request_name);
  request.build().declare(request.root(), "", GRID_NS);
  request.declare_prefixes(ADMIN_NS);
  request.build().text(request.root(), auth_capability_name, capability_name);
  request.build().text(request.root(), auth_operation_name, operation_name);
  request.build().text(request.root(), auth_user_name, user);
  if (!request.ok()) {
    request.build().log_failure("quillon auth request create dom");
    return false;
  }
  qlk::NodePtr reply;
  if (qlk::no_answer(request.send(connection, reply)) || reply == nullptr) return false;
  const char *answer = quillon_xml_get_text_of_first_child_of_name(reply.get(), auth_node_name);
  return answer != nullptr && std::strcmp(answer, "true") == 0;
}

}  // namespace

bool quillon_connection_is_authorized(quillon_connection *connection, const char *capability_name, const char *operation_name,
                                      const char *user) {
  qlk::trace(__func__);
  if (connection == nullptr) {
    wb_log_err(WB_LOG_ERROR, nullptr, "Invalid connection object");
    return false;
  }
  if (capability_name == nullptr) return deny("Invalid capability name");
  if (operation_name == nullptr) return deny("Invalid operation name");
  if (user == nullptr) return deny("Invalid user");
  return qlk::guarded_or(__func__, false, [&] { return ask_controller(connection, capability_name, operation_name, user); });
}

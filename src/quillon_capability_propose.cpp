// Proposing a capability to the controller and changing one: the same request and reply under different names.
#include <span>
#include <string>

#include "controller_request.h"
#include "guard.h"
#include "quillon_capability.h"
#include "quillon_grid.h"

#define GRID_NAME(local) "{" GRID_NS "}" local

const char *const element_propose_cap = GRID_NAME("proposeCapabilityRequest");
const char *const element_modify_cap = GRID_NAME("updateCapabilityRequest");
const char *const propose_modify_cap_name = GRID_NAME("name");
const char *const propose_modify_cap_version = GRID_NAME("version");
const char *const propose_modify_cap_querymethods = GRID_NAME("queryMethods");
const char *const propose_modify_cap_operation = GRID_NAME("operation");
const char *const propose_modify_cap_methodName = GRID_NAME("methodName");
const char *const propose_modify_cap_methodPermissions = GRID_NAME("methodPermissions");
const char *const propose_modify_cap_description = GRID_NAME("description");
const char *const propose_modify_cap_vplatform = GRID_NAME("vendorPlatform");
const char *const propose_modify_cap_err = GRID_NAME("error");
const char *const propose_modify_cap_errcode = GRID_NAME("code");
const char *const propose_modify_cap_errdescription = GRID_NAME("description");

namespace {

struct Twin {
  const char *const *request_name;
  const char *build_failed;
  QUILLON_STATUS refused;
  const char *response_name;
};

constexpr Twin kPropose = {&element_propose_cap, "quillon_connection_propose_capability create dom",
                           QUILLON_STATUS_PROPOSE_CAPABILITY_ERROR, "proposeCapabilityResponse"};
constexpr Twin kModify = {&element_modify_cap, "quillon_connection_modify_capability create dom",
                          QUILLON_STATUS_MODIFY_CAPABILITY_ERROR, "updateCapabilityResponse"};

// Names as the application gives them.
struct Names {
  const char **items;
  int count;

  std::span<const char *> list() const {
    return count > 0 ? std::span<const char *>(items, static_cast<size_t>(count)) : std::span<const char *>();
  }
  bool is_missing() const { return count > 0 && items == nullptr; }
};

// What a capability is to be.
struct Definition {
  const char *name;
  const char *version;
  Names queries;
  Names actions;
  const char *description;
  const char *vendor_platform;
};

bool check_arguments(const quillon_capability *capability, const quillon_connection *connection, const Definition &definition) {
  const struct {
    bool is_missing;
    const char *message;
  } checks[] = {{capability == nullptr, "Invalid capability object"},
                {connection == nullptr, "Invalid connection object"},
                {definition.name == nullptr, "Invalid capability name"},
                {definition.version == nullptr, "Invalid capability version"},
                {definition.description == nullptr, "Invalid capability description"},
                {definition.vendor_platform == nullptr, "Invalid capability vendor platform"},
                {definition.queries.is_missing(), "Invalid list of queries"},
                {definition.actions.is_missing(), "Invalid list of actions"}};
  for (const auto &check : checks) {
    if (!check.is_missing) continue;
    wb_log(WB_LOG_ERROR, "%s", check.message);
    return false;
  }
  return true;
}

void add_operations(qlk::StanzaBuilder &build, wb_dom_node *methods, std::span<const char *> names, const char *permissions) {
  for (const char *name : names) {
    wb_dom_node *operation = build.element(propose_modify_cap_operation, methods);
    build.text(operation, propose_modify_cap_methodName, name);
    build.text(operation, propose_modify_cap_methodPermissions, permissions);
  }
}

void build_definition(const quillon_capability &capability, const Definition &definition, qlk::ControllerRequest &request) {
  qlk::StanzaBuilder &build = request.build();
  wb_dom_node *root = request.root();
  std::string default_namespace;
  const bool has_namespace = qlk::capability_copy_text(capability, &quillon_capability::namespace_, default_namespace);
  build.declare(root, "", has_namespace ? default_namespace.c_str() : nullptr);
  request.declare_prefixes(GRID_NS);
  build.text(root, propose_modify_cap_name, definition.name);
  build.text(root, propose_modify_cap_version, definition.version);
  wb_dom_node *methods = build.element(propose_modify_cap_querymethods, root);
  add_operations(build, methods, definition.queries.list(), "readOnly");
  add_operations(build, methods, definition.actions.list(), "writeOnly");
  build.text(root, propose_modify_cap_description, definition.description);
  build.text(root, propose_modify_cap_vplatform, definition.vendor_platform);
}

void log_refusal(const Twin &twin, wb_dom_node *error) {
  const char *code = quillon_xml_get_text_of_first_child_of_name(error, propose_modify_cap_errcode);
  if (code != nullptr) wb_log(WB_LOG_ERROR, "%s error code: %s", twin.response_name, code);
  const char *description = quillon_xml_get_text_of_first_child_of_name(error, propose_modify_cap_errdescription);
  if (description != nullptr) wb_log(WB_LOG_ERROR, "%s error description: %s", twin.response_name, description);
}

QUILLON_STATUS define(const Twin &twin, const quillon_capability *capability, quillon_connection *connection,
                      const Definition &definition) {
  if (!check_arguments(capability, connection, definition)) return QUILLON_STATUS_UNKNOWN;
  if (!quillon_connection_is_connected(connection)) {
    wb_log(WB_LOG_ERROR, "Connection has not been established");
    return QUILLON_STATUS_NO_CONNECTION;
  }
  qlk::ControllerRequest request(*twin.request_name);
  build_definition(*capability, definition, request);
  if (!request.ok()) {
    request.build().log_failure(twin.build_failed);
    return QUILLON_STATUS_XML_ERROR;
  }
  qlk::NodePtr reply;
  const QUILLON_STATUS status = request.send(connection, reply);
  if (qlk::no_answer(status) || reply == nullptr) return status;
  if (wb_dom_node *error = wb_dom_get_first_element(reply.get(), propose_modify_cap_err)) {
    log_refusal(twin, error);
    return twin.refused;
  }
  wb_log(WB_LOG_INFO, "%s success: %s", twin.response_name, definition.name);
  return status;
}

}  // namespace

QUILLON_STATUS quillon_capability_propose(const quillon_capability *capability, quillon_connection *connection, const char *name,
                                          const char *version, const char **querylist, const int num_queries,
                                          const char **actionlist, const int num_actions, const char *description,
                                          const char *vendor_platform) {
  qlk::trace(__func__);
  return qlk::guarded(__func__, [&] {
    return define(kPropose, capability, connection,
                  {name, version, {querylist, num_queries}, {actionlist, num_actions}, description, vendor_platform});
  });
}

QUILLON_STATUS quillon_capability_modify(const quillon_capability *capability, quillon_connection *connection, const char *name,
                                         const char *version, const char **querylist, const int num_queries,
                                         const char **actionlist, const int num_actions, const char *description,
                                         const char *vendor_platform) {
  qlk::trace(__func__);
  return qlk::guarded(__func__, [&] {
    return define(kModify, capability, connection,
                  {name, version, {querylist, num_queries}, {actionlist, num_actions}, description, vendor_platform});
  });
}

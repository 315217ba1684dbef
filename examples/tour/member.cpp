#include "member.h"

#include <cstdio>
#include <cstdlib>

namespace tour {

Member::Member(const Grid &grid, const std::string &user) : user_(user) {
  expect_ok(quillon_config_create(&config_), "create a configuration");
  quillon_log_set_level(QUILLON_LOG_NONE);  // the tour tells itself what happens
  expect_ok(quillon_config_set_host(config_, grid.host().c_str()), "set the host");
  expect_ok(quillon_config_set_user_name(config_, user.c_str()), "set the user name");
  expect_ok(quillon_config_set_description(config_, "a member of the tour"), "set the description");
  expect_ok(quillon_config_set_client_cert_chain_filename(config_, grid.certificate(user).c_str()), "set the certificate");
  expect_ok(quillon_config_set_client_cert_key_filename(config_, grid.key(user).c_str()), "set the key");
  expect_ok(quillon_config_set_server_cert_chain_filename(config_, grid.ca().c_str()), "set the CA");
  expect_ok(quillon_config_set_bulk_server_cert_chain_filename(config_, grid.ca().c_str()), "set the CA of downloads");
  expect_ok(quillon_config_set_send_timeout_seconds(config_, 3), "set the time-out");
  expect_ok(quillon_connection_create(&connection_), "create a connection");
  expect_ok(quillon_connection_set_config(connection_, config_), "give the connection its configuration");
  expect_ok(quillon_capability_create(&capability_), "create a capability");
  expect_ok(quillon_capability_set_namespace(capability_, kNamespace), "set the capability's namespace");
  expect_ok(quillon_capability_set_name(capability_, kCapability), "set the capability's name");
}

Member::~Member() {
  quillon_connection_disconnect(connection_);
  quillon_connection_destroy(connection_);
  quillon_capability_destroy(capability_);
  quillon_config_destroy(config_);
}

void Member::expect_ok(QUILLON_STATUS status, const std::string &what) {
  if (status == QUILLON_STATUS_OK) return;
  const char *text = quillon_status_get_message(status);
  std::fprintf(stderr, "cannot %s: %s (%d)\n", what.c_str(), text != nullptr ? text : "no text", static_cast<int>(status));
  std::exit(1);
}

wb_dom_node *Member::payload(const char *name, const std::string &text) {
  wb_dom_ctx *context = nullptr;
  wb_dom_node *element = nullptr, *node = nullptr;
  const std::string ename = std::string("{") + kNamespace + "}" + name;
  const bool built = wb_dom_context_create(&context, nullptr) &&
                     wb_dom_element_create(context, ename.c_str(), &element, nullptr) &&
                     wb_dom_text_create(context, text.c_str(), &node, nullptr) && wb_dom_add_child(element, node, nullptr);
  if (!built) std::abort();
  return element;
}

std::string Member::text_of(const wb_dom_node *payload) {
  const char *text = wb_dom_get_first_text(payload);
  return text != nullptr ? text : "";
}

void Member::say(const std::string &who, const std::string &what) {
  std::printf("%-12s %s\n", who.c_str(), what.c_str());
  std::fflush(stdout);
}

}  // namespace tour

#include "grid_client.h"

#include <gtest/gtest.h>

#include <thread>

namespace grid_test {

namespace {

void record_account(quillon_connection *, QUILLON_STATUS status, void *client) {
  static_cast<Client *>(client)->account.add(status);
}
void record_disconnect(quillon_connection *, QUILLON_STATUS status, void *client) {
  static_cast<Client *>(client)->disconnected.add(status);
}
void record_connect(quillon_connection *, void *client) { static_cast<Client *>(client)->connected.add(1); }
void record_told(wb_dom_node *notification, void *client) { static_cast<Client *>(client)->told.add(text_of(notification)); }

wb_dom_node *answer(wb_dom_node *request, void *arg) {
  auto &client = *static_cast<Client *>(arg);
  ++client.asked;
  return payload("answer", client.user + ": " + text_of(request));
}

}  // namespace

bool eventually(const std::function<bool()> &condition, std::chrono::milliseconds patience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

wb_dom_node *payload(const char *name, const std::string &text) {
  wb_dom_ctx *context = nullptr;
  wb_dom_node *element = nullptr, *node = nullptr;
  std::string ename = "{";
  ename.append(kNamespace).append("}").append(name);
  EXPECT_TRUE(wb_dom_context_create(&context, nullptr));
  EXPECT_TRUE(wb_dom_element_create(context, ename.c_str(), &element, nullptr));
  EXPECT_TRUE(wb_dom_text_create(context, text.c_str(), &node, nullptr));
  EXPECT_TRUE(wb_dom_add_child(element, node, nullptr));
  return element;
}

std::string text_of(const wb_dom_node *node) {
  const char *text = node != nullptr ? wb_dom_get_first_text(node) : nullptr;
  return text != nullptr ? text : "";
}

Client::Client(test_support::LocalGrid &grid, const std::string &name) : user(name) {
  const auto credentials = grid.enroll(name);
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_config_create(&config));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_config_set_host(config, grid.host().c_str()));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_config_set_user_name(config, name.c_str()));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_config_set_client_cert_chain_filename(config, credentials.certificate.c_str()));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_config_set_client_cert_key_filename(config, credentials.key.c_str()));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_config_set_server_cert_chain_filename(config, grid.ca_path().c_str()));
  const QUILLON_SASL_RESPONSE response = grid.wants_bare_jid() ? QUILLON_SASL_RESPONSE_BARE_JID : QUILLON_SASL_RESPONSE_USER_NAME;
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_config_set_sasl_response(config, response));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_create(&connection));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_set_config(connection, config));
  quillon_connection_set_account_cb(connection, record_account);
  quillon_connection_set_account_cb_user_data(connection, this);
  quillon_connection_set_disconnect_cb(connection, record_disconnect);
  quillon_connection_set_disconnect_cb_user_data(connection, this);
  quillon_connection_set_connect_cb(connection, record_connect);
  quillon_connection_set_connect_cb_user_data(connection, this);
}

Client::~Client() {
  destroy_connection();
  for (quillon_capability *capability : capabilities_) quillon_capability_destroy(capability);
  quillon_config_destroy(config);
}

void Client::destroy_connection() {
  if (connection == nullptr) return;
  disconnect();
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_destroy(connection));
  connection = nullptr;
}

quillon_capability *Client::add_capability(const std::string &name) {
  quillon_capability *capability = nullptr;
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_capability_create(&capability));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_capability_set_namespace(capability, kNamespace));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_capability_set_name(capability, name.c_str()));
  capabilities_.push_back(capability);
  return capability;
}

QUILLON_STATUS Client::ask(quillon_capability *capability, const std::string &text, std::string &reply) {
  wb_dom_node *response = nullptr, *request = payload("ask", text);
  const QUILLON_STATUS status = quillon_connection_query(connection, capability, request, &response);
  if (status == QUILLON_STATUS_CAPABILITY_NOT_FOUND || status == QUILLON_STATUS_INVALID_ARGS) {
    wb_dom_context_destroy(wb_dom_get_context(request));
  }
  if (status == QUILLON_STATUS_OK) reply = text_of(response);
  wb_dom_context_destroy(wb_dom_get_context(response));
  return status;
}

void Client::serve() {
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_register_query_handler(connection, kNamespace, "ask", answer, this));
}

void Client::listen() {
  EXPECT_EQ(QUILLON_STATUS_OK,
            quillon_connection_register_notification_handler(connection, kNamespace, "told", record_told, this));
}

int32_t publishers(quillon_capability *capability) {
  quillon_array *jids = quillon_capability_copy_jids(capability);
  const int32_t count = quillon_array_size(jids);
  quillon_array_destroy(jids);
  return count;
}

}  // namespace grid_test

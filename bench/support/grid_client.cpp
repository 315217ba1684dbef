#include "grid_client.h"

#include "measure.h"

namespace bench {

namespace {

void check(QUILLON_STATUS status, const char *what) {
  if (status == QUILLON_STATUS_OK) return;
  const char *text = quillon_status_get_message(status);
  fail(std::string(what) + " failed: " + (text != nullptr ? text : std::to_string(status)));
}

}  // namespace

GridClient::GridClient(const Target &target) {
  check(quillon_config_create(&config_), "quillon_config_create");
  quillon_log_set_level(QUILLON_LOG_ERROR);
  check(quillon_config_set_host(config_, target.host().c_str()), "quillon_config_set_host");
  check(quillon_config_set_user_name(config_, target.user.c_str()), "quillon_config_set_user_name");
  check(quillon_config_set_client_cert_chain_filename(config_, target.certificate.c_str()), "the certificate");
  check(quillon_config_set_client_cert_key_filename(config_, target.key.c_str()), "the key");
  check(quillon_config_set_server_cert_chain_filename(config_, target.ca.c_str()), "the CA");
  check(quillon_connection_create(&connection_), "quillon_connection_create");
  check(quillon_connection_set_config(connection_, config_), "quillon_connection_set_config");
  check(quillon_capability_create(&capability_), "quillon_capability_create");
  check(quillon_capability_set_namespace(capability_, "urn:example:sensor"), "quillon_capability_set_namespace");
  check(quillon_capability_set_name(capability_, "SensorCapability"), "quillon_capability_set_name");
}

GridClient::~GridClient() {
  quillon_connection_destroy(connection_);
  quillon_capability_destroy(capability_);
  quillon_config_destroy(config_);
}

void GridClient::connect() { check(quillon_connection_connect(connection_), "quillon_connection_connect"); }

void GridClient::disconnect() { check(quillon_connection_disconnect(connection_), "quillon_connection_disconnect"); }

void GridClient::subscribe() { check(quillon_capability_subscribe(capability_, connection_), "quillon_capability_subscribe"); }

void GridClient::ask(wb_dom_node *payload) {
  wb_dom_node *response = nullptr;
  check(quillon_connection_query(connection_, capability_, payload, &response), "quillon_connection_query");
  wb_dom_context_destroy(wb_dom_get_context(response));
}

}  // namespace bench

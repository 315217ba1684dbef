#include "warbler_client.h"

#include <event2/thread.h>

#include "measure.h"
#include "stanzas.h"

namespace bench {

namespace {

void check(bool done, const char *what) {
  if (!done) fail(std::string(what) + " failed");
}

wb_dom_node *add_element(wb_dom_node *parent, wb_dom_ctx *context, const char *ename, const char *text = nullptr) {
  wb_dom_node *element = nullptr, *node = nullptr;
  check(wb_dom_element_create(context, ename, &element, nullptr), "wb_dom_element_create");
  if (text != nullptr) {
    check(wb_dom_text_create(context, text, &node, nullptr) && wb_dom_add_child(element, node, nullptr), "wb_dom_text_create");
  }
  if (parent != nullptr) check(wb_dom_add_child(parent, element, nullptr), "wb_dom_add_child");
  return element;
}

}  // namespace

void WarblerClient::Events::fail_down() { fail("the session has ended"); }

WarblerClient::WarblerClient(const Target &target, Events &events)
    : events_(events), host_(target.host()), domain_(target.domain), jid_(target.jid()), user_(target.user) {
  quillon_config_create(&config_);
  quillon_log_set_level(QUILLON_LOG_ERROR);
  quillon_config_set_client_cert_chain_filename(config_, target.certificate.c_str());
  quillon_config_set_client_cert_key_filename(config_, target.key.c_str());
  quillon_config_set_server_cert_chain_filename(config_, target.ca.c_str());
  fill_tls_ = [](void *context, void *config) {
    quillon_config_fill_ssl_ctx(static_cast<quillon_config *>(config), context, false);
  };
  evthread_use_pthreads();
  base_ = event_base_new();
  check(base_ != nullptr && evthread_make_base_notifiable(base_) == 0, "event_base_new");
  check(wb_htable_create(0, wb_strcase_hashcode, wb_strcase_compare, &table_, nullptr), "wb_htable_create");
  wb_sasl_mech *mech = nullptr;
  check(quillon_sasl_mech_external_create(nullptr, &mech, nullptr) && wb_sasl_factory_create(nullptr, &factory_, nullptr) &&
            wb_sasl_factory_add_mech(factory_, mech, nullptr),
        "the SASL mechanism");
  put("selector", base_);
  put("domain", domain_.c_str());
  put("host", host_.c_str());
  put("userjid", jid_.c_str());
  put("quillon.user_name", user_.c_str());
  put("streamtype", "socket");
  put("client_sasl_factory", factory_);
  put("client_reconnect_countdown", "0");
  put("tls-connect-cb", &fill_tls_);
  put("tls-connect-cb-arg", config_);
  check(wb_workq_create(table_, &queue_, nullptr) && wb_client_create(queue_, &client_, nullptr), "wb_client_create");
  wb_event_bind(
      wb_client_event(client_, "clientConnected"), [](wb_event_data *, void *self) { static_cast<Events *>(self)->on_up(); },
      &events_, nullptr);
  wb_event_bind(
      wb_client_event(client_, "clientDisconnected"), [](wb_event_data *, void *self) { static_cast<Events *>(self)->on_down(); },
      &events_, nullptr);
}

WarblerClient::~WarblerClient() {
  wb_client_destroy(client_);
  wb_workq_destroy(queue_);
  wb_sasl_factory_destroy(factory_);
  wb_htable_destroy(table_);
  event_base_free(base_);
  quillon_config_destroy(config_);
}

void WarblerClient::put(const char *key, const void *value) {
  check(wb_htable_put(table_, key, const_cast<void *>(value), nullptr, nullptr), "wb_htable_put");
}

void WarblerClient::connect() { check(wb_client_connect(client_, table_, nullptr), "wb_client_connect"); }

RequestMaker::RequestMaker(std::string to, size_t payload_bytes) : to_(std::move(to)) {
  if (payload_bytes == 0) return;
  const std::string xml = make_request_payload(payload_bytes);
  check(wb_dom_parse(xml.data(), xml.size(), &large_, nullptr), "wb_dom_parse");
}

RequestMaker::~RequestMaker() {
  if (large_ != nullptr) wb_dom_context_destroy(wb_dom_get_context(large_));
}

wb_dom_node *RequestMaker::make_payload(wb_dom_ctx *context) const {
  wb_dom_node *payload = nullptr;
  if (large_ != nullptr) {
    check(wb_dom_import(context, large_, true, &payload, nullptr), "wb_dom_import");
    return payload;
  }
  payload = add_element(nullptr, context, "{urn:example:sensor}readValues");
  add_element(payload, context, "{urn:example:sensor}name", "boiler-3");
  add_element(payload, context, "{urn:example:sensor}count", "25");
  add_element(payload, context, "{urn:example:sensor}unit", "celsius");
  return payload;
}

wb_dom_node *RequestMaker::make_payload() const {
  wb_dom_ctx *context = nullptr;
  check(wb_dom_context_create(&context, nullptr), "wb_dom_context_create");
  return make_payload(context);
}

wb_dom_node *RequestMaker::make_iq() const {
  wb_dom_ctx *context = nullptr;
  check(wb_dom_context_create(&context, nullptr), "wb_dom_context_create");
  wb_dom_node *iq = add_element(nullptr, context, "{jabber:client}iq");
  wb_dom_node *grid = add_element(iq, context, "{quillon}grid");
  check(wb_dom_set_attribute(iq, "type", "get", nullptr) && wb_dom_set_attribute(iq, "to", to_.c_str(), nullptr) &&
            wb_dom_set_attribute(grid, "type", "request", nullptr) && wb_dom_add_child(grid, make_payload(context), nullptr),
        "the request");
  return iq;
}

}  // namespace bench

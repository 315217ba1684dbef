#include "client_fake.h"

#include <atomic>
#include <cstdlib>

namespace {

std::atomic<test_support::ClientFake *> the_fake = nullptr;

std::string take_xml(wb_dom_node *stanza) {
  char *xml = nullptr;
  std::string text = wb_serialize_xml(stanza, &xml, nullptr, nullptr) ? xml : "";
  std::free(xml);
  wb_dom_context_destroy(wb_dom_get_context(stanza));
  return text;
}

wb_dom_node *parse(const std::string &xml) {
  wb_dom_node *root = nullptr;
  if (!xml.empty()) wb_dom_parse(xml.data(), xml.size(), &root, nullptr);
  return root;
}

}  // namespace

extern "C" {

bool __real_wb_client_track_iq(wb_client *client, wb_dom_node *iq, wb_client_iq_callback callback, void *arg,
                               unsigned timeout_seconds, wb_err *err);
bool __real_wb_client_send_stanza(wb_client *client, wb_dom_node *stanza, wb_err *err);

bool __wrap_wb_client_track_iq(wb_client *client, wb_dom_node *iq, wb_client_iq_callback callback, void *arg,
                               unsigned timeout_seconds, wb_err *err);
bool __wrap_wb_client_send_stanza(wb_client *client, wb_dom_node *stanza, wb_err *err);

bool __wrap_wb_client_track_iq(wb_client *client, wb_dom_node *iq, wb_client_iq_callback callback, void *arg,
                               unsigned timeout_seconds, wb_err *err) {
  test_support::ClientFake *fake = the_fake;
  if (fake == nullptr) return __real_wb_client_track_iq(client, iq, callback, arg, timeout_seconds, err);
  fake->track(iq, callback, arg);
  return true;
}

bool __wrap_wb_client_send_stanza(wb_client *client, wb_dom_node *stanza, wb_err *err) {
  test_support::ClientFake *fake = the_fake;
  if (fake == nullptr) return __real_wb_client_send_stanza(client, stanza, err);
  fake->send(stanza);
  return true;
}

}  // extern "C"

namespace test_support {

ClientFake::ClientFake() { the_fake = this; }

ClientFake::~ClientFake() { the_fake = nullptr; }

void ClientFake::respond(Responder responder) {
  const std::lock_guard lock(mutex_);
  responder_ = std::move(responder);
}

std::vector<std::string> ClientFake::asked() const {
  const std::lock_guard lock(mutex_);
  return asked_;
}

std::vector<std::string> ClientFake::sent() const {
  const std::lock_guard lock(mutex_);
  return sent_;
}

void ClientFake::clear() {
  const std::lock_guard lock(mutex_);
  asked_.clear();
  sent_.clear();
}

void ClientFake::track(wb_dom_node *iq, wb_client_iq_callback callback, void *arg) {
  Responder responder;
  {
    const std::lock_guard lock(mutex_);
    responder = responder_;
  }
  wb_dom_node *reply = parse(responder ? responder(iq) : "");
  {
    const std::lock_guard lock(mutex_);
    asked_.push_back(take_xml(iq));
  }
  callback(reply, arg);
  wb_dom_context_destroy(wb_dom_get_context(reply));
}

void ClientFake::send(wb_dom_node *stanza) {
  const std::lock_guard lock(mutex_);
  sent_.push_back(take_xml(stanza));
}

}  // namespace test_support

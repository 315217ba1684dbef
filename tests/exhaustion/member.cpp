#include "member.h"

#include <cstring>
#include <qlk/testpeer/wait.hpp>

#include "servers.h"
#include "sweep.h"

namespace exhaustion {

namespace {

constexpr int kAnswerSeconds = 5;

std::atomic<bool> left_as_it_was = false;

int write_nowhere(const char *format, va_list args) __attribute__((format(printf, 1, 0)));

int write_nowhere(const char *format, va_list args) {
  if (std::strstr(format, "%s") == format) {
    va_list copy;
    va_copy(copy, args);
    const char *text = va_arg(copy, const char *);
    if (text != nullptr && std::strcmp(text, "_quillon_init failed") == 0) left_as_it_was = true;
    va_end(copy);
  }
  char record[1024];
  return std::vsnprintf(record, sizeof record, format, args);
}

Member &member(void *self) { return *static_cast<Member *>(self); }

}  // namespace

bool was_left_as_it_was() { return left_as_it_was.exchange(false); }

void log_nowhere() {
  quillon_log_set_callback(write_nowhere);
  quillon_log_set_level(QUILLON_LOG_VERBOSE);
  quillon_log_initialize();
}

Member::Member() {
  log_nowhere();
  quillon_config *config = nullptr;
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_config_create(&config));
  config_ = config;
  const Servers &there = servers();
  quillon_config_set_host(config, there.host.c_str());
  quillon_config_set_user_name(config, "alice");
  quillon_config_set_client_cert_chain_filename(config, there.certificate.c_str());
  quillon_config_set_client_cert_key_filename(config, there.key.c_str());
  quillon_config_set_server_cert_chain_filename(config, there.authority.c_str());
  quillon_config_set_bulk_server_cert_chain_filename(config, there.authority.c_str());
  quillon_config_set_send_timeout_seconds(config, kAnswerSeconds);
  capability_ = test_support::make_capability(kNamespace, kCapability);
  make_connection();
}

Member::~Member() {
  if (request_ != nullptr) test_support::NodeRelease()(request_);
  quillon_connection_destroy(connection_);
  quillon_config_destroy(config_);
}

void Member::make_connection() {
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_connection_create(&connection_));
  quillon_connection_set_config(connection_, config_);
  ASSERT_TRUE(wb_htable_put(connection_->wb_config, "connect_timeout_seconds", opening_, nullptr, nullptr));
  quillon_connection_set_connect_cb(connection_, [](quillon_connection *, void *self) { ++member(self).connected_; });
  quillon_connection_set_connect_cb_user_data(connection_, this);
  quillon_connection_set_disconnect_cb(connection_,
                                       [](quillon_connection *, QUILLON_STATUS, void *self) { ++member(self).disconnected_; });
  quillon_connection_set_disconnect_cb_user_data(connection_, this);
  EXPECT_EQ(QUILLON_STATUS_OK,
            quillon_connection_register_notification_handler(
                connection_, kNamespace, kNews, [](wb_dom_node *, void *self) { ++member(self).heard_; }, this));
  const auto answer = [](wb_dom_node *request, void *self) -> wb_dom_node * {
    ++member(self).answered_;
    wb_dom_ctx *context = nullptr;
    wb_dom_node *copy = nullptr;
    if (!wb_dom_context_create(&context, nullptr)) return nullptr;
    if (!wb_dom_import(context, request, true, &copy, nullptr)) wb_dom_context_destroy(context);
    return copy;
  };
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_register_query_handler(connection_, kNamespace, kQuestion, answer, this));
  forget_calls();
}

QUILLON_STATUS Member::destroy_connection() {
  const QUILLON_STATUS status = quillon_connection_destroy(connection_);
  connection_ = nullptr;
  return status;
}

void Member::write_request(const char *name) {
  if (request_ != nullptr) test_support::NodeRelease()(request_);
  request_ = test_support::parse("<" + std::string(name) + " xmlns='urn:test'>text &amp; more</" + name + ">").release();
}

QUILLON_STATUS Member::ask_controller() {
  return quillon_connection_query_controller(connection_, std::exchange(request_, nullptr), &response_);
}

QUILLON_STATUS Member::ask_publisher() {
  const QUILLON_STATUS status = quillon_connection_query(connection_, capability_.get(), request_, &response_);
  if (status != QUILLON_STATUS_CAPABILITY_NOT_FOUND) request_ = nullptr;
  return status;
}

void Member::expect_response(QUILLON_STATUS status, const char *name) {
  const test_support::Node response(std::exchange(response_, nullptr));
  ASSERT_EQ(status == QUILLON_STATUS_OK, response != nullptr) << status;
  if (response != nullptr) {
    EXPECT_STREQ(name, wb_dom_get_localname(response.get()));
  }
}

QUILLON_STATUS Member::notify() {
  return quillon_connection_notify(connection_, capability_.get(), std::exchange(request_, nullptr));
}

void Member::expect_works_again(const std::function<QUILLON_STATUS()> &what) {
  QUILLON_STATUS status = QUILLON_STATUS_OK;
  const bool works = testpeer::eventually(kDeadline, [&] {
    if (!is_connected() && connect() != QUILLON_STATUS_OK) return false;
    return (status = what()) == QUILLON_STATUS_OK;
  });
  EXPECT_TRUE(works) << "status " << status;
}

void Member::expect_up() {
  // The end of a session that was lost may still be on its way: a question finds out.
  expect_works_again([this] {
    write_request(kQuestion);
    const QUILLON_STATUS status = ask_controller();
    expect_response(status, kQuestion);
    return status;
  });
}

}  // namespace exhaustion

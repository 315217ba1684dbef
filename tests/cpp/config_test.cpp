#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <quillon.hpp>
#include <string>
#include <utility>

#include "owners.h"
#include "quillon_config.h"

namespace {

using quillon::config;
using quillon::result;
using namespace std::chrono_literals;

std::string text(const quillon_string *string) { return std::string(qlk::text_of(string)); }

TEST(CppConfig, TakesItsSettingsInOneExpression) {
  const config made = config::create({.hosts = {"a:1", "b:2"},
                                      .user = "Alice",
                                      .certificate = "alice.pem",
                                      .key = "alice.key",
                                      .key_password = "secret",
                                      .server_ca = "ca.pem",
                                      .bulk_server_ca = "bulk.pem",
                                      .description = "a test",
                                      .groups = {"G", "H"},
                                      .send_timeout = 2500ms})
                          .value();
  const quillon_config &held = *made.handle();
  EXPECT_EQ(2U, quillon_list_size(held.hosts));
  EXPECT_EQ("alice", text(held.user_name));
  EXPECT_EQ("alice.pem", text(held.client_cert_chain_filename));
  EXPECT_EQ("alice.key", text(held.client_cert_key_filename));
  EXPECT_EQ("secret", text(held.client_cert_key_password));
  EXPECT_EQ("ca.pem", text(held.server_cert_chain_filename));
  EXPECT_EQ("bulk.pem", text(held.bulk_server_cert_chain_filename));
  EXPECT_EQ("a test", text(held.description));
  EXPECT_EQ("G", text(held.user_group));
  EXPECT_EQ(3, held.send_timeout_seconds);
}

TEST(CppConfig, ATimeOutIsRoundedUpAndStaysInItsRange) {
  config made = config::create().value();
  EXPECT_EQ(15, made.handle()->send_timeout_seconds);
  const std::pair<std::chrono::milliseconds, int> cases[] = {
      {0ms, 0}, {1ms, 1}, {1000ms, 1}, {2min, 120}, {-1500ms, -1}, {std::chrono::milliseconds::max(), INT_MAX}};
  for (const auto &[timeout, seconds] : cases) {
    EXPECT_TRUE(made.set_send_timeout(timeout));
    EXPECT_EQ(seconds, made.handle()->send_timeout_seconds);
  }
}

TEST(CppConfig, LimitsTheHandlerQueues) {
  config made = config::create().value();
  EXPECT_EQ(1000, made.handle()->handler_queue_warning);
  EXPECT_EQ(0, made.handle()->handler_queue_bound);
  EXPECT_TRUE(made.set_handler_queue_warning(10));
  EXPECT_TRUE(made.set_handler_queue_bound(20, QUILLON_HANDLER_QUEUE_OVERFLOW_CLOSE));
  EXPECT_EQ(10, made.handle()->handler_queue_warning);
  EXPECT_EQ(20, made.handle()->handler_queue_bound);
  EXPECT_EQ(QUILLON_HANDLER_QUEUE_OVERFLOW_CLOSE, made.handle()->handler_queue_overflow);
  EXPECT_TRUE(made.set_handler_queue_bytes(30, 40));
  EXPECT_EQ(30U, made.handle()->handler_queue_warning_bytes);
  EXPECT_EQ(40U, made.handle()->handler_queue_bound_bytes);
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, made.set_handler_queue_bound(-1, QUILLON_HANDLER_QUEUE_OVERFLOW_DROP).status());
}

TEST(CppConfig, TellsWhichCredentialsAreInForce) {
  config made = config::create().value();
  EXPECT_TRUE(made.set_crl("revoked.pem"));
  EXPECT_EQ("revoked.pem", text(made.handle()->crl_filename));
  EXPECT_TRUE(made.set_crl(""));
  EXPECT_EQ(nullptr, made.handle()->crl_filename);
  EXPECT_TRUE(made.set_live_credentials(true));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, made.set_expiry_warning_days(-1).status());
  EXPECT_EQ(QUILLON_STATUS_CONNECTION_ERROR_CLIENT, made.reload_credentials().status());
  EXPECT_STREQ("no client certificate and key files are set", made.credentials().value().failure);
  EXPECT_EQ(QUILLON_STATUS_NO_CONNECTION, quillon::connection::create(made).value().renew(1s).status());
}

TEST(CppConfig, RefusesATextThatCannotBeOneAndKeepsTheOldOne) {
  config made = config::create({.hosts = {"a"}, .user = "alice", .groups = {"G"}}).value();
  using setter = result<> (config::*)(std::string_view);
  const setter setters[] = {&config::set_host,        &config::set_user, &config::set_user_group,  &config::set_description,
                            &config::set_certificate, &config::set_key,  &config::set_key_password};
  for (const setter set : setters) {
    EXPECT_EQ(QUILLON_STATUS_OK, (made.*set)("old").status());
    for (const std::string &refused : {std::string(), std::string("a\0b", 3), std::string(65537, 'x')})
      EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, (made.*set)(refused).status()) << refused.size();
  }
  EXPECT_EQ("old", text(made.handle()->user_name));
  for (const auto &refused : {std::vector<std::string>{}, {"a", ""}, {"a", std::string("b\0c", 3)}}) {
    EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, made.set_hosts(refused).status());
    EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, made.set_groups(refused).status());
  }
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, config::create({.user = std::string_view("a\0b", 3)}).status());
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, config::create({.hosts = {""}}).status());
}

TEST(CppConfig, AnEmptyTextClearsTheAuthorities) {
  config made = config::create({.server_ca = "ca.pem", .bulk_server_ca = "bulk.pem"}).value();
  EXPECT_TRUE(made.set_server_ca({}));
  EXPECT_TRUE(made.set_bulk_server_ca({}));
  EXPECT_EQ(nullptr, made.handle()->server_cert_chain_filename);
  EXPECT_EQ(nullptr, made.handle()->bulk_server_cert_chain_filename);
}

TEST(CppConfig, ACloneGoesItsOwnWay) {
  auto original = std::make_unique<config>(config::create({.user = "alice"}).value());
  config cloned = original->clone().value();
  EXPECT_TRUE(cloned.set_user("bob"));
  EXPECT_EQ("alice", text(original->handle()->user_name));
  original.reset();
  EXPECT_EQ("bob", text(cloned.handle()->user_name));
}

TEST(CppConfig, OneThatWasMovedRefuses) {
  config made = config::create({.user = "alice"}).value();
  const config moved = std::move(made);
  EXPECT_EQ("alice", text(moved.handle()->user_name));
  EXPECT_EQ(nullptr, made.handle());  // NOLINT(bugprone-use-after-move): that is what it is about
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, made.set_user("bob").status());
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, made.set_send_timeout(1s).status());
  EXPECT_FALSE(made.clone());
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon::connection::create(made).status());
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon::bulk_download::create(made).status());
}

TEST(CppConfig, LivesAsLongAsWhatUsesIt) {
  std::optional<config> made = config::create({.hosts = {"[nonsense"}, .user = "alice"}).value();
  quillon::connection connection = quillon::connection::create(*made).value();
  quillon::bulk_download download = quillon::bulk_download::create(*made).value();
  made.reset();
  EXPECT_EQ(QUILLON_STATUS_WB_ERROR, connection.connect().status()) << "it still knows the host";
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, download.open().status()) << "there is no request";
}

}  // namespace

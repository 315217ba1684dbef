// What of connections and capabilities needs no server.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <quillon.hpp>
#include <string>
#include <string_view>
#include <utility>

#include "quillon_capability.h"

namespace {

using quillon::capability;
using quillon::connection;
using quillon::dynamic_capability;
using quillon::xml::element;
using quillon::xml::view;

connection make_connection() {
  return connection::create(
             quillon::config::create({.hosts = {"127.0.0.1:1"}, .user = "alice", .send_timeout = std::chrono::seconds(0)})
                 .value())
      .value();
}

capability make_weather() { return capability::create("urn:weather", "Weather").value(); }

TEST(CppConnection, AnEmptyHandlerIsRefused) {
  connection made = make_connection();
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, made.on_connect({}).status());
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, made.on_disconnect({}).status());
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, made.on_account({}).status());
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, made.on_tls_context({}).status());
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, made.on_catalogue_update({}).status());
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, made.on_query("{urn:w}day", {}).status());
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, made.on_notification("{urn:w}day", {}).status());
}

TEST(CppReconnection, WaitsAndTellsAsItIsTold) {
  using namespace std::chrono_literals;
  std::promise<quillon_reconnection_report> told;  // outlives the handler
  const connection kept_up = make_connection();
  quillon::reconnection reconnection = quillon::reconnection::create(kept_up).value();
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, reconnection.set_delays(0ms, 200, 1min).status());
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, reconnection.on_report({}).status());
  EXPECT_TRUE(reconnection.set_delays(1h, 200, 2h));
  EXPECT_TRUE(reconnection.set_jitter(false));
  EXPECT_TRUE(reconnection.set_next_host_at_once(true));
  EXPECT_TRUE(reconnection.on_report([&](const quillon_reconnection_report &report) { told.set_value(report); }));
  ASSERT_TRUE(reconnection.start());
  auto report = told.get_future();
  ASSERT_EQ(std::future_status::ready, report.wait_for(20s));
  EXPECT_EQ(3600000u, report.get().next_milliseconds);
}

TEST(CppConnection, TellsHowItsHandlerQueuesAreUsed) {
  const connection made = make_connection();
  EXPECT_EQ(0U, made.handler_queue_usage(QUILLON_HANDLER_QUEUE_QUERIES).value().depth);
  EXPECT_EQ(0U, made.handler_queue_usage(QUILLON_HANDLER_QUEUE_NOTIFICATIONS).value().dropped);
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, made.handler_queue_usage(QUILLON_HANDLER_QUEUE_MAX).status());
}

TEST(CppConnection, TellsWhatItHasCounted) {
  connection made = make_connection();
  EXPECT_TRUE(made.on_stanza([](QUILLON_TRACE_DIRECTION, std::string_view) {}));
  EXPECT_TRUE(made.on_stanza({}));
  EXPECT_FALSE(made.connect());  // nobody listens there
  const quillon::connection_statistics counted = made.statistics().value();
  EXPECT_EQ(1U, counted.session_attempts);
  EXPECT_EQ(0U, counted.sessions);
  EXPECT_EQ(0U, counted.bytes_sent);
  EXPECT_EQ(std::nullopt, counted.latency_within(0.5));
  EXPECT_EQ(counted.phase_milliseconds[QUILLON_CONNECTION_PHASE_DOWN], counted.time_in(QUILLON_CONNECTION_PHASE_DOWN).count());
  EXPECT_EQ(0, counted.time_in(QUILLON_CONNECTION_PHASE_MAX).count());
  const connection moved = std::move(made);
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, made.statistics().status());  // NOLINT(bugprone-use-after-move)
}

// What a handler captured lives as long as the connection, and no longer when its name was refused.
TEST(CppConnection, KeepsItsHandlersAndNoOthers) {
  auto captured = std::make_shared<int>();
  {
    connection made = make_connection();
    const auto handler = [captured](view) {};
    for (const char *name : {"{urn:w}day", "day", "{}day"}) EXPECT_TRUE(made.on_notification(name, handler)) << name;
    EXPECT_EQ(5, captured.use_count());
    for (const std::string &name : {std::string("{urn:w}"), std::string(), std::string("a\0b", 3), std::string(65537, 'x')})
      EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, made.on_notification(name, handler).status());
    EXPECT_EQ(5, captured.use_count());
    EXPECT_TRUE(made.on_query("{urn:w}day", [captured](view) { return element(); }));
    connection target = make_connection();
    EXPECT_TRUE(target.on_notification("{urn:w}day", handler));
    EXPECT_EQ(7, captured.use_count());
    target = std::move(made);
    EXPECT_EQ(6, captured.use_count()) << "the old connection of the target is gone";
  }
  EXPECT_EQ(1, captured.use_count());
}

TEST(CppConnection, OneThatWasMovedRefuses) {
  connection made = make_connection();
  quillon_connection *const handle = made.handle();
  connection moved = std::move(made);
  EXPECT_EQ(handle, moved.handle());
  const capability weather = make_weather();
  // NOLINTBEGIN(bugprone-use-after-move): that is what it is about
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, made.connect().status());
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, made.query(weather, element("a")).status());
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, made.query_controller(element("a")).status());
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, made.notify(weather, element("a")).status());
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, made.capabilities().status());
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, made.capability_status("Weather").status());
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, made.on_connect([] {}).status());
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, made.on_tls_context([](void *) {}).status());
  EXPECT_FALSE(made.is_connected());
  EXPECT_FALSE(made.is_authorized("Weather", "read", "alice"));
  EXPECT_FALSE(quillon::reconnection::create(made));
  EXPECT_FALSE(quillon::token::create(made));
  EXPECT_FALSE(weather.subscribe(made));
  // NOLINTEND(bugprone-use-after-move)
}

TEST(CppConnection, WithoutASessionNothingIsSent) {
  connection made = make_connection();
  const capability weather = make_weather();
  EXPECT_EQ(QUILLON_STATUS_CAPABILITY_NOT_FOUND, made.query(weather, element("{urn:weather}day")).status());
  EXPECT_EQ(QUILLON_STATUS_NO_CONNECTION, made.capabilities().status());
  EXPECT_EQ(QUILLON_STATUS_NO_CONNECTION, made.capability_status("Weather").status());
  EXPECT_EQ(QUILLON_STATUS_UNKNOWN, made.notify(weather, element("{urn:weather}day")).status());
  EXPECT_EQ(QUILLON_STATUS_NO_CONNECTION, weather.propose(made, {.name = "Weather", .version = "1.0"}).status());
  EXPECT_FALSE(quillon::token::create(made).value().text());
}

TEST(CppConnection, APayloadThatCouldNotBeBuiltIsTold) {
  connection made = make_connection();
  const capability weather = make_weather();
  EXPECT_EQ(QUILLON_STATUS_XML_ERROR, made.query(weather, element("no name")).status());
  EXPECT_EQ(QUILLON_STATUS_XML_ERROR, made.query_controller(element("no name")).status());
  EXPECT_EQ(QUILLON_STATUS_XML_ERROR, made.notify(weather, element("no name")).status());
}

TEST(CppCapability, HasTheTopicOfItsKind) {
  EXPECT_STREQ("Weather-1.0", quillon_string_cstr(make_weather().handle()->topic));
  const dynamic_capability dynamic = dynamic_capability::create("urn:weather", "Weather").value();
  EXPECT_STREQ("Weather", quillon_string_cstr(dynamic.handle()->topic));
  for (const std::string &refused : {std::string(), std::string("a\0b", 3), std::string(65537, 'x')}) {
    EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, capability::create(refused, "Weather").status());
    EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, capability::create("urn:weather", refused).status());
    EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, dynamic_capability::create("urn:weather", refused).status());
  }
}

TEST(CppCapability, OwnsItsFilter) {
  capability made = make_weather();
  element filter("{urn:weather}only", "north");
  wb_dom_node *const node = filter.handle();
  EXPECT_TRUE(made.set_filter(std::move(filter)));
  EXPECT_EQ(node, made.handle()->filter);
  capability moved = make_weather();
  EXPECT_TRUE(moved.set_filter(element("{urn:weather}old")));
  moved = std::move(made);
  EXPECT_EQ(node, moved.handle()->filter);
  EXPECT_EQ("north", view(moved.handle()->filter).text());
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS,
            made.set_filter(element("a")).status());  // NOLINT(bugprone-use-after-move): that is what it is about
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, made.publishers().status());
  capability &itself = moved;
  moved = std::move(itself);
  EXPECT_EQ("north", view(moved.handle()->filter).text());
  EXPECT_TRUE(moved.set_filter({}));
  EXPECT_EQ(nullptr, moved.handle()->filter);
}

}  // namespace

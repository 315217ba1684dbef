// Connections of the C++ layer on a real grid.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <optional>
#include <quillon.hpp>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "grid_member.h"
#include "local_grid.h"
#include "wait_for.h"

namespace {

using quillon::capability;
using quillon::connection;
using quillon::xml::element;
using quillon::xml::view;
using test_support::config_of;
using test_support::connection_of;
using test_support::LocalGrid;
using test_support::wait_for;
using test_support::weather;
using namespace std::chrono_literals;

constexpr std::chrono::seconds kPatience{60};

TEST(CppGrid, QueriesAreAnsweredByFunctions) {
  LocalGrid grid;
  const capability served = weather(), asked = weather();
  connection made = connection_of(grid, "server");
  std::string sender;
  ASSERT_TRUE(made.on_query("{urn:weather}day", [&](view request) {
    sender = request.sender();
    return element("{urn:weather}forecast").attribute("day", request.text()).child("sky", "sunny");
  }));
  ASSERT_TRUE(made.on_query("{urn:weather}echo", [](view request) { return request.copy(); }));
  ASSERT_TRUE(made.on_query("{urn:weather}nothing", [](view) { return element(); }));
  ASSERT_TRUE(made.on_query("{urn:weather}throw", [](view) -> element { throw std::runtime_error("no forecast today"); }));
  connection server = std::move(made);  // takes its handlers along
  ASSERT_TRUE(server.connect());
  ASSERT_TRUE(served.publish(server));

  connection client = connection_of(grid, "client");
  ASSERT_TRUE(client.connect());
  ASSERT_TRUE(asked.subscribe(client));
  const std::vector<std::string> publishers = asked.publishers().value();
  EXPECT_EQ(1, std::count(publishers.begin(), publishers.end(), "server@" + grid.domain() + "/qlk"));
  const element answer = client.query(asked, element("{urn:weather}day", "Monday")).value();
  EXPECT_EQ("{urn:weather}forecast", answer.name());
  EXPECT_EQ("Monday", answer.attribute("day"));
  EXPECT_EQ("sunny", answer.find("sky").text());
  EXPECT_EQ("client@" + grid.domain(), sender);
  EXPECT_EQ("server@" + grid.domain(), answer.sender());
  EXPECT_EQ("x", client.query(asked, element("{urn:weather}echo", "x")).value().text());

  connection hasty = connection_of(grid, "hasty", 1s);
  ASSERT_TRUE(hasty.connect());
  ASSERT_TRUE(asked.subscribe(hasty));
  for (const char *silent : {"{urn:weather}nothing", "{urn:weather}throw"})
    EXPECT_EQ(QUILLON_STATUS_SEND_TIMEOUT, hasty.query(asked, element(silent)).status()) << silent;
  EXPECT_EQ("still here", client.query(asked, element("{urn:weather}echo", "still here")).value().text());
}

TEST(CppGrid, NotificationsReachAllHandlersInOrder) {
  LocalGrid grid;
  const capability topic = weather();
  std::mutex mutex;
  std::vector<std::string> received;
  const auto note = [&](const char *handler) {
    return [&, handler](view report) {
      const std::lock_guard lock(mutex);
      received.push_back(handler + std::string(report.find("t").text()));
      throw 1;  // stops neither the other handler nor the next notification
    };
  };
  connection subscriber = connection_of(grid, "subscriber");
  ASSERT_TRUE(subscriber.on_notification("{urn:weather}report", note("first ")));
  ASSERT_TRUE(subscriber.on_notification("{urn:weather}report", note("second ")));
  ASSERT_TRUE(subscriber.connect());
  ASSERT_TRUE(topic.subscribe(subscriber));

  connection publisher = connection_of(grid, "publisher");
  const capability published = weather();
  ASSERT_TRUE(publisher.connect());
  ASSERT_TRUE(published.publish(publisher));
  for (const char *t : {"1", "2"}) ASSERT_TRUE(publisher.notify(published, element("{urn:weather}report").child("t", t)));
  EXPECT_TRUE(wait_for(
      [&] {
        const std::lock_guard lock(mutex);
        return received.size() == 4;
      },
      kPatience));
  const std::lock_guard lock(mutex);
  EXPECT_EQ((std::vector<std::string>{"first 1", "second 1", "first 2", "second 2"}), received);
}

// The handler, and what it captured, stays until it returns.
TEST(CppGrid, AHandlerMayDestroyItsConnection) {
  LocalGrid grid;
  const capability topic = weather();
  std::optional<connection> own = connection_of(grid, "alice");
  std::atomic<bool> done = false;
  const auto leave = [&, note = std::string("a text that is too long to be kept within the object itself")](view) {
    own.reset();
    done = note.size() > 40;
  };
  ASSERT_TRUE(own->on_notification("{urn:weather}report", leave));
  ASSERT_TRUE(own->connect());
  ASSERT_TRUE(topic.publish(*own));
  ASSERT_TRUE(topic.subscribe(*own));
  ASSERT_TRUE(own->notify(topic, element("{urn:weather}report")));
  EXPECT_TRUE(wait_for([&] { return done.load(); }, kPatience));

  std::optional<connection> hasty = connection_of(grid, "alice");
  ASSERT_TRUE(hasty->on_connect([&] { hasty.reset(); }));
  static_cast<void>(hasty->connect());
  EXPECT_FALSE(hasty);
}

TEST(CppGrid, TellsWhatBecomesOfTheConnection) {
  LocalGrid grid;
  std::atomic<int> connects = 0, disconnects = 0;
  std::atomic<QUILLON_STATUS> reason = QUILLON_STATUS_OK, account = QUILLON_STATUS_OK;
  connection alice = connection_of(grid, "alice");
  ASSERT_TRUE(alice.on_connect([&] { ++connects; }));
  ASSERT_TRUE(alice.on_disconnect([&](QUILLON_STATUS status) {
    reason = status;
    ++disconnects;
  }));
  ASSERT_TRUE(alice.on_account([&](QUILLON_STATUS status) { account = status; }));
  ASSERT_TRUE(alice.connect());
  EXPECT_EQ(1, connects);
  EXPECT_TRUE(alice.is_connected());
  grid.disable("alice");
  EXPECT_TRUE(wait_for([&] { return account == QUILLON_STATUS_ACCOUNT_DISABLED && disconnects == 1; }, kPatience));
  EXPECT_EQ(QUILLON_STATUS_CONNECTION_DENIED, alice.connect().status());
  EXPECT_EQ(QUILLON_STATUS_CONNECTION_DENIED, account);
  EXPECT_TRUE(alice.disconnect());
  grid.approve("alice");
  ASSERT_TRUE(alice.connect());
  grid.server_stop();
  EXPECT_TRUE(wait_for([&] { return !alice.is_connected(); }, kPatience));
  EXPECT_EQ(QUILLON_STATUS_CONNECTION_ERROR_XMPP, reason) << "the server says that it shuts down";
  EXPECT_EQ(2, connects);
}

TEST(CppGrid, AFunctionMayFillTheTlsContext) {
  LocalGrid grid;
  const quillon::config config = config_of(grid, "alice");
  int calls = 0;
  {
    connection own = connection::create(config).value();
    ASSERT_TRUE(own.on_tls_context([&](void *ssl_ctx) {
      ++calls;
      config.fill_tls_context(ssl_ctx);
    }));
    EXPECT_TRUE(own.connect());
  }
  connection empty = connection::create(config).value();
  ASSERT_TRUE(empty.on_tls_context([&](void *) { ++calls; }));
  EXPECT_FALSE(empty.connect()) << "without a certificate the server lets nobody in";
  connection failing = connection::create(config).value();
  ASSERT_TRUE(failing.on_tls_context([&](void *) {
    ++calls;
    throw std::runtime_error("no key in the safe");
  }));
  EXPECT_TRUE(failing.connect()) << "the configuration has stepped in";
  EXPECT_LE(3, calls);
}

TEST(CppGrid, AsksTheController) {
  LocalGrid grid;
  connection alice = connection_of(grid, "alice");
  ASSERT_TRUE(alice.connect());
  const capability tides = capability::create("urn:tides", "Tides").value();
  ASSERT_TRUE(tides.propose(alice, {.name = "Tides",
                                    .version = "1.0",
                                    .reading = {"high", "low"},
                                    .writing = {"correct"},
                                    .description = "high and low water",
                                    .platform = "harbour"}));
  EXPECT_EQ(QUILLON_STATUS_PROPOSE_CAPABILITY_ERROR,
            tides.propose(alice, {.name = "Tides", .version = "1.0", .description = "again"}).status());
  ASSERT_TRUE(tides.modify(alice, {.name = "Tides", .version = "1.1", .reading = {"high"}, .description = "high water"}));
  const element catalogue = alice.capabilities().value();
  const auto entries = catalogue.children();
  EXPECT_TRUE(std::any_of(entries.begin(), entries.end(), [](view entry) { return entry.find("name").text() == "Tides"; }))
      << catalogue.to_string().value();
  const element status = alice.capability_status("Tides").value();
  EXPECT_EQ("1.1", status.find("version").text());
  EXPECT_EQ("high water", status.find("description").text());
  EXPECT_FALSE(alice.is_authorized("Tides", "correct", "alice"));
  grid.allow("alice", "Tides", "correct");
  EXPECT_TRUE(alice.is_authorized("Tides", "correct", "alice"));
  const quillon::token token = quillon::token::create(alice).value();
  EXPECT_EQ("alice", grid.token_owner(std::string(token.text().value())));
}

TEST(CppGrid, AReconnectionKeepsItUp) {
  LocalGrid grid;
  std::atomic<int> connects = 0;
  connection alice = connection_of(grid, "alice");
  ASSERT_TRUE(alice.on_connect([&] { ++connects; }));
  quillon::reconnection kept = quillon::reconnection::create(alice).value();
  ASSERT_TRUE(kept.start());
  EXPECT_TRUE(wait_for([&] { return connects == 1; }, kPatience));
  ASSERT_TRUE(kept.stop());
  EXPECT_FALSE(alice.is_connected());
  connection elsewhere = std::move(alice);
  quillon::reconnection moved = std::move(kept);  // after the connection, which has to outlive it
  ASSERT_TRUE(moved.start());
  EXPECT_TRUE(wait_for([&] { return connects == 2; }, kPatience));
  EXPECT_TRUE(elsewhere.is_connected());
}

}  // namespace

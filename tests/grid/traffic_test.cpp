// Notifications and queries between clients of the real server.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "grid_client.h"

namespace {

using grid_test::Client;
using grid_test::eventually;
using grid_test::publishers;

class TrafficTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    grid_ = std::make_unique<test_support::LocalGrid>(test_support::LocalGrid::Approval::automatic);
  }
  static void TearDownTestSuite() { grid_.reset(); }
  static std::unique_ptr<test_support::LocalGrid> grid_;
};
std::unique_ptr<test_support::LocalGrid> TrafficTest::grid_;

// A connected client that serves and has announced itself as a publisher. The library announces what is published to every grid
// that a connection of the process joins, so the others of a test connect before.
std::unique_ptr<Client> connect_server(test_support::LocalGrid &grid, const std::string &user) {
  auto client = std::make_unique<Client>(grid, user);
  client->serve();
  EXPECT_EQ(QUILLON_STATUS_OK, client->connect());
  return client;
}

void publish(Client &client, const std::string &capability) {
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_capability_publish(client.add_capability(capability), client.connection));
}

}  // namespace

TEST_F(TrafficTest, NotificationsArriveInOrder) {
  Client publisher(*grid_, "notify-publisher"), subscriber(*grid_, "notify-subscriber");
  subscriber.listen();
  ASSERT_EQ(QUILLON_STATUS_OK, publisher.connect());
  ASSERT_EQ(QUILLON_STATUS_OK, subscriber.connect());
  quillon_capability *published = publisher.add_capability("Notify"), *subscribed = subscriber.add_capability("Notify");
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_publish(published, publisher.connection));
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_subscribe(subscribed, subscriber.connection));
  constexpr size_t kCount = 200;
  std::vector<std::string> sent;
  for (size_t i = 0; i < kCount; ++i) {
    sent.push_back("n" + std::to_string(i));
    ASSERT_EQ(QUILLON_STATUS_OK,
              quillon_connection_notify(publisher.connection, published, grid_test::payload("told", sent.back())));
  }
  EXPECT_EQ(sent, subscriber.told.wait_for(kCount));
}

TEST_F(TrafficTest, OnlyAPublisherMayPublish) {
  Client publisher(*grid_, "guard-publisher"), subscriber(*grid_, "guard-subscriber"), stranger(*grid_, "guard-stranger");
  subscriber.listen();
  for (Client *client : {&publisher, &subscriber, &stranger}) ASSERT_EQ(QUILLON_STATUS_OK, client->connect());
  quillon_capability *published = publisher.add_capability("Guard"), *subscribed = subscriber.add_capability("Guard");
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_publish(published, publisher.connection));
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_subscribe(subscribed, subscriber.connection));
  // Sending succeeds, since nobody waits for the service's answer, which is a refusal.
  quillon_connection_notify(stranger.connection, stranger.add_capability("Guard"), grid_test::payload("told", "forged"));
  ASSERT_TRUE(eventually([&] {
    return quillon_connection_notify(publisher.connection, published, grid_test::payload("told", "true")) == QUILLON_STATUS_OK &&
           subscriber.told.all().size() >= 2;
  }));
  for (const std::string &text : subscriber.told.all()) EXPECT_EQ("true", text);
}

TEST_F(TrafficTest, QueriesFindTheirPublisherAndFailOverWhenItGoes) {
  auto first = connect_server(*grid_, "query-first"), second = connect_server(*grid_, "query-second");
  Client asker(*grid_, "query-asker");
  quillon_config_set_send_timeout_seconds(asker.config, 3);
  ASSERT_EQ(QUILLON_STATUS_OK, asker.connect());
  publish(*first, "Query");
  quillon_capability *capability = asker.add_capability("Query");
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_subscribe(capability, asker.connection));
  EXPECT_EQ(1, publishers(capability));
  std::string reply;
  for (int i = 0; i < 10; ++i) {
    ASSERT_EQ(QUILLON_STATUS_OK, asker.ask(capability, std::to_string(i), reply));
    EXPECT_EQ("query-first: " + std::to_string(i), reply);
  }
  publish(*second, "Query");
  ASSERT_TRUE(eventually([&] { return publishers(capability) == 2; }));
  first.reset();
  ASSERT_EQ(QUILLON_STATUS_OK, asker.ask(capability, "who", reply));
  EXPECT_EQ("query-second: who", reply);
  EXPECT_TRUE(eventually([&] { return publishers(capability) == 1; }));
}

TEST_F(TrafficTest, ACapabilityWithoutPublishersLeavesTheRequestToTheCaller) {
  Client asker(*grid_, "nobody-asker");
  ASSERT_EQ(QUILLON_STATUS_OK, asker.connect());
  quillon_capability *capability = asker.add_capability("Nobody");
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_subscribe(capability, asker.connection));
  std::string reply;
  EXPECT_EQ(QUILLON_STATUS_CAPABILITY_NOT_FOUND, asker.ask(capability, "anybody?", reply));
}

TEST_F(TrafficTest, DynamicCapabilitiesRefreshTheirPublishers) {
  Client publisher(*grid_, "dynamic-publisher"), asker(*grid_, "dynamic-asker");
  publisher.serve();
  ASSERT_EQ(QUILLON_STATUS_OK, publisher.connect());
  ASSERT_EQ(QUILLON_STATUS_OK, asker.connect());
  quillon_capability *capabilities[2] = {};
  for (auto &capability : capabilities) {
    ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_create(&capability));
    ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_set_namespace(capability, grid_test::kNamespace));
    ASSERT_EQ(QUILLON_STATUS_OK, quillon_dynamic_capability_set_name(capability, "Dynamic"));
  }
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_dynamic_capability_publish(capabilities[0], publisher.connection));
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_dynamic_capability_refresh_publisher_jids(capabilities[1], asker.connection));
  EXPECT_EQ(1, publishers(capabilities[1]));
  std::string reply;
  EXPECT_EQ(QUILLON_STATUS_OK, asker.ask(capabilities[1], "x", reply));
  EXPECT_EQ("dynamic-publisher: x", reply);
  publisher.destroy_connection();
  asker.destroy_connection();
  for (auto *capability : capabilities) quillon_capability_destroy(capability);
}

TEST_F(TrafficTest, SixteenThreadsQueryThroughOneConnection) {
  auto publisher = connect_server(*grid_, "threads-publisher");
  Client asker(*grid_, "threads-asker");
  ASSERT_EQ(QUILLON_STATUS_OK, asker.connect());
  publish(*publisher, "Threads");
  quillon_capability *capability = asker.add_capability("Threads");
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_subscribe(capability, asker.connection));
  std::atomic<int> right{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 16; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 50; ++i) {
        const std::string text = std::to_string(t) + "/" + std::to_string(i);
        std::string reply;
        if (asker.ask(capability, text, reply) == QUILLON_STATUS_OK && reply == "threads-publisher: " + text) ++right;
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(16 * 50, right);
  EXPECT_EQ(16 * 50, publisher->asked);
}

TEST_F(TrafficTest, TheControllerListsWhatIsRegisteredAndTellsOfChanges) {
  grid_test::Record<std::string> updates;
  Client watcher(*grid_, "list-watcher");
  quillon_connection_register_topic_notification_handler(
      watcher.connection,
      [](wb_dom_node *node, void *record) { static_cast<grid_test::Record<std::string> *>(record)->add(wb_dom_get_ename(node)); },
      &updates);
  wb_dom_node *response = nullptr;
  EXPECT_EQ(QUILLON_STATUS_NO_CONNECTION, quillon_connection_query_capabilities(watcher.connection, &response));
  ASSERT_EQ(QUILLON_STATUS_OK, watcher.connect());
  const auto publisher = connect_server(*grid_, "list-publisher");
  publish(*publisher, "Listed");
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_connection_query_capabilities(watcher.connection, &response));
  char *xml = nullptr;
  ASSERT_TRUE(wb_serialize_xml(response, &xml, nullptr, nullptr));
  EXPECT_NE(std::string::npos, std::string(xml).find("Listed")) << xml;
  free(xml);
  wb_dom_context_destroy(wb_dom_get_context(response));
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_connection_query_capability_status(watcher.connection, "Listed", nullptr, &response));
  wb_dom_context_destroy(wb_dom_get_context(response));
  const auto seen = updates.wait_for(1);
  ASSERT_FALSE(seen.empty());
  EXPECT_NE(std::string::npos, seen[0].find("RegisteredCapabilityUpdateNotification"));
}

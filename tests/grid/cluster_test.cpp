// A server of two nodes: clients at different ones work with each other, and one node that fails takes nobody else along.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "grid_client.h"

namespace {

using grid_test::Client;
using grid_test::eventually;
using grid_test::publishers;
using test_support::LocalGrid;

constexpr int kAskers = 4;
constexpr int kBefore = 200, kAfter = 400;  // answers to have
constexpr std::chrono::seconds kRecovery{90};

void go_to(Client &client, const std::vector<std::string> &hosts) {
  std::vector<const char *> texts;
  for (const std::string &host : hosts) texts.push_back(host.c_str());
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_hosts(client.config, texts.data(), static_cast<int>(texts.size())));
}

quillon_capability *publish(Client &client, const char *name) {
  quillon_capability *capability = client.add_capability(name);
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_capability_publish(capability, client.connection));
  client.serve();
  return capability;
}

TEST(Cluster, ANodeThatFailsUnderLoadTakesNobodyElseAlong) {
  LocalGrid grid(2u);
  const std::vector<std::string> hosts = grid.hosts();
  ASSERT_EQ(2u, hosts.size());
  Client near(grid, "near"), far(grid, "far"), asker(grid, "asker");
  go_to(near, {hosts[0]});
  go_to(far, {hosts[1], hosts[0]});
  go_to(asker, {hosts[0]});
  for (Client *client : {&near, &far, &asker}) ASSERT_EQ(QUILLON_STATUS_OK, client->connect()) << client->user;

  // What far tells passes from node to node, and so do the questions while nobody else publishes.
  quillon_capability *told = publish(far, "Weather");
  quillon_capability *asked = asker.add_capability("Weather");
  asker.listen();
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_subscribe(asked, asker.connection));
  ASSERT_TRUE(eventually([&] { return publishers(asked) == 1; }));
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_connection_notify(far.connection, told, grid_test::payload("told", "rain")));
  EXPECT_EQ(std::vector<std::string>{"rain"}, asker.told.wait_for(1));
  std::string answer;
  ASSERT_EQ(QUILLON_STATUS_OK, asker.ask(asked, "how", answer));
  EXPECT_EQ("far: how", answer);

  publish(near, "Weather");
  ASSERT_TRUE(eventually([&] { return publishers(asked) == 2; }));
  std::atomic<int> answered = 0, failed = 0;
  std::atomic<bool> ends = false;
  std::vector<std::thread> askers;
  for (int i = 0; i < kAskers; ++i) {
    askers.emplace_back([&] {
      while (!ends) {
        std::string text;
        (asker.ask(asked, "how", text) == QUILLON_STATUS_OK ? answered : failed) += 1;
      }
    });
  }
  EXPECT_TRUE(eventually([&] { return answered >= kBefore; }));
  grid.kill_node(2);
  const int before = answered;
  EXPECT_TRUE(eventually([&] { return answered >= before + kAfter; }, kRecovery));
  EXPECT_EQ(1u, far.disconnected.wait_for(1, kRecovery).size());
  EXPECT_TRUE(asker.is_connected() && near.is_connected());

  // Its client comes back by way of the other node, and is asked when nobody else is left.
  EXPECT_EQ(QUILLON_STATUS_OK, far.connect());
  far.asked = 0;
  EXPECT_EQ(QUILLON_STATUS_OK, near.disconnect());
  EXPECT_TRUE(eventually([&] { return far.asked > 0; }, kRecovery));
  ends = true;
  for (std::thread &thread : askers) thread.join();
  // Only what was on its way by the node that died can have got no answer.
  EXPECT_LE(failed, kAskers);
}

}  // namespace

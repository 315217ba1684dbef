// The reconnection thread against a server that goes and comes back.
#include <gtest/gtest.h>

#include <memory>

#include "footprint.h"
#include "grid_client.h"

namespace {

using grid_test::Client;
using grid_test::eventually;
using test_support::footprint;

struct ReconnectionDelete {
  void operator()(quillon_reconnection *reconnection) const {
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_reconnection_destroy(reconnection));
  }
};
using ReconnectionPtr = std::unique_ptr<quillon_reconnection, ReconnectionDelete>;

ReconnectionPtr make_reconnection(Client &client) {
  quillon_reconnection *reconnection = nullptr;
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_reconnection_create(&reconnection, client.connection));
  return ReconnectionPtr(reconnection);
}

}  // namespace

TEST(GridReconnection, TwentyRestartsOfTheServerLeaveEverySubscriptionLiveAndNothingBehind) {
  test_support::LocalGrid grid(test_support::LocalGrid::Approval::automatic);
  Client publisher(grid, "again-publisher"), subscriber(grid, "again-subscriber");
  // A capability that is published is announced by every connection of the process, so that either may be asked.
  for (Client *client : {&publisher, &subscriber}) client->serve();
  subscriber.listen();
  quillon_capability *published = publisher.add_capability("Again"), *subscribed = subscriber.add_capability("Again");
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_publish(published, publisher.connection));
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_subscribe(subscribed, subscriber.connection));
  const ReconnectionPtr publishing = make_reconnection(publisher), subscribing = make_reconnection(subscriber);
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_reconnection_start(publishing.get()));
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_reconnection_start(subscribing.get()));

  // The callback comes when everything has been announced.
  const auto expect_connected = [&](size_t times) {
    EXPECT_EQ(times, publisher.connected.wait_for(times).size());
    EXPECT_EQ(times, subscriber.connected.wait_for(times).size());
  };
  const auto expect_traffic = [&](const std::string &text) {
    subscriber.told.clear();
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_notify(publisher.connection, published, grid_test::payload("told", text)));
    EXPECT_EQ(std::vector<std::string>{text}, subscriber.told.wait_for(1));
    std::string reply;
    EXPECT_EQ(QUILLON_STATUS_OK, subscriber.ask(subscribed, text, reply));
    EXPECT_TRUE(reply == "again-publisher: " + text || reply == "again-subscriber: " + text) << reply;
  };
  expect_connected(1);
  expect_traffic("first");
  const auto before = footprint();
  for (int round = 1; round <= 20; ++round) {
    SCOPED_TRACE(round);
    grid.server_stop();
    ASSERT_TRUE(eventually([&] { return !publisher.is_connected() && !subscriber.is_connected(); }));
    grid.server_start();
    // A thread tries at once when it is started and then once a minute, which is longer than this test wants to wait.
    for (quillon_reconnection *reconnection : {publishing.get(), subscribing.get()}) {
      ASSERT_EQ(QUILLON_STATUS_OK, quillon_reconnection_stop(reconnection));
      ASSERT_EQ(QUILLON_STATUS_OK, quillon_reconnection_start(reconnection));
    }
    expect_connected(static_cast<size_t>(round) + 1);
    ASSERT_FALSE(HasFailure());
    expect_traffic("round " + std::to_string(round));
  }
  EXPECT_TRUE(eventually([&] { return footprint().threads <= before.threads; }));
  EXPECT_LE(footprint().descriptors, before.descriptors);
}

// Beside a host that is not there.
TEST(GridReconnection, WithItsOptionsItComesBackByItselfAndSaysSo) {
  test_support::LocalGrid grid(test_support::LocalGrid::Approval::automatic);
  Client client(grid, "again-soon");
  const std::string host = grid.host();
  const char *hosts[] = {"127.0.0.1:1", host.c_str()};
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_hosts(client.config, hosts, 2));
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_address_racing(client.config, true));
  grid_test::Record<QUILLON_RECONNECTION_STATE> states;  // outlives the thread that tells them
  const ReconnectionPtr reconnection = make_reconnection(client);
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_reconnection_set_delays(reconnection.get(), 20, 200, 500));
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_reconnection_set_jitter(reconnection.get(), true));
  const auto keep = [](const quillon_reconnection_report *report, void *to) {
    static_cast<grid_test::Record<QUILLON_RECONNECTION_STATE> *>(to)->add(report->state);
  };
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_reconnection_set_report_cb(reconnection.get(), keep, &states));
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_reconnection_start(reconnection.get()));
  ASSERT_EQ(1u, states.wait_for(1).size());
  grid.server_stop();
  ASSERT_EQ(2u, states.wait_for(2).size());
  grid.server_start();
  EXPECT_EQ((std::vector<QUILLON_RECONNECTION_STATE>{QUILLON_RECONNECTION_STATE_UP, QUILLON_RECONNECTION_STATE_DOWN,
                                                     QUILLON_RECONNECTION_STATE_UP}),
            states.wait_for(3));
  EXPECT_TRUE(client.is_connected());
}

TEST(GridReconnection, EndsWhileItsConnectWaitsForApprovalOrForAServer) {
  test_support::LocalGrid grid(test_support::LocalGrid::Approval::manual);
  Client pending(grid, "again-pending");
  {
    const ReconnectionPtr reconnection = make_reconnection(pending);
    ASSERT_EQ(QUILLON_STATUS_OK, quillon_reconnection_start(reconnection.get()));
    ASSERT_EQ(1u, pending.account.wait_for(1).size());
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_reconnection_stop(reconnection.get()));
  }
  EXPECT_FALSE(pending.is_connected());
  grid.approve("again-pending");
  EXPECT_EQ(QUILLON_STATUS_OK, pending.connect());
  EXPECT_EQ(QUILLON_STATUS_OK, pending.disconnect());
  grid.server_stop();
  for (int round = 0; round < 10; ++round) {
    const ReconnectionPtr reconnection = make_reconnection(pending);
    ASSERT_EQ(QUILLON_STATUS_OK, quillon_reconnection_start(reconnection.get()));
  }
  EXPECT_FALSE(pending.is_connected());
}

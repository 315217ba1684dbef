// Connecting to the real server: what it is trusted for, what happens when it goes, and that nothing is left behind.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "footprint.h"
#include "grid_client.h"
#include "quillon_log_capture.h"

namespace {

using grid_test::Client;
using grid_test::eventually;
using test_support::footprint;

class GridConnectionTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    grid_ = std::make_unique<test_support::LocalGrid>(test_support::LocalGrid::Approval::automatic);
  }
  static void TearDownTestSuite() { grid_.reset(); }
  static std::unique_ptr<test_support::LocalGrid> grid_;
};
std::unique_ptr<test_support::LocalGrid> GridConnectionTest::grid_;

void set_hosts(Client &client, std::vector<const char *> hosts) {
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_hosts(client.config, hosts.data(), static_cast<int>(hosts.size())));
}

}  // namespace

TEST_F(GridConnectionTest, AServerOfAnotherAuthorityIsRefusedAndTheLogSaysSo) {
  test_support::LocalGrid other(test_support::LocalGrid::Approval::automatic);
  const test_support::QuillonLogCapture log;
  Client client(*grid_, "trusting");
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_server_cert_chain_filename(client.config, other.ca_path().c_str()));
  EXPECT_EQ(QUILLON_STATUS_CONNECTION_ERROR, client.connect());
  EXPECT_TRUE(log.contains("certificate")) << log.all();
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_server_cert_chain_filename(client.config, grid_->ca_path().c_str()));
  EXPECT_EQ(QUILLON_STATUS_OK, client.connect()) << log.all();
}

TEST_F(GridConnectionTest, WhoIsEnrolledAgainIsRenewedAndABadCertificateChangesNothing) {
  Client client(*grid_, "renewing");
  const auto info = [&] {
    quillon_credentials_info told = {};
    told.size = sizeof told;
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_config_get_credentials_info(client.config, &told));
    return told;
  };
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_reload_credentials(client.config)) << info().failure;
  ASSERT_EQ(QUILLON_STATUS_OK, client.connect());
  const quillon_credentials_info before = info();
  grid_->enroll("renewing", {"--days", "5"});
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_reload_credentials(client.config)) << info().failure;
  EXPECT_LT(info().expires, before.expires);
  EXPECT_TRUE(info().is_about_to_expire);
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_renew(client.connection, 5000));
  EXPECT_TRUE(client.is_connected());
  grid_->enroll("renewing", {"--days", "-1"});
  EXPECT_EQ(QUILLON_STATUS_CONNECTION_ERROR_CLIENT, quillon_config_reload_credentials(client.config));
  EXPECT_NE(nullptr, std::strstr(info().failure, "has expired")) << info().failure;
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_renew(client.connection, 5000));
  EXPECT_EQ(3u, client.connected.wait_for(3).size());
}

TEST(GridServerCertificate, OneThatExpiredOrBearsAnotherNameIsRefusedAndTheLogSaysSo) {
  test_support::LocalGrid grid(test_support::LocalGrid::Approval::automatic);
  const test_support::QuillonLogCapture log;
  Client client(grid, "careful");
  const auto restart_with_certificate = [&](int days, const char *name, bool wait_for_controller) {
    grid.server_stop();
    grid.server_certificate(days, name);
    grid.server_start(wait_for_controller);
  };
  struct Case {
    int days;
    const char *name, *reason;
  };
  for (const Case &test : {Case{-1, "", "certificate has expired"}, Case{30, "elsewhere.example", "mismatch"}}) {
    SCOPED_TRACE(test.reason);
    restart_with_certificate(test.days, test.name, false);  // the controller refuses it as well
    EXPECT_EQ(QUILLON_STATUS_CONNECTION_ERROR, client.connect());
    EXPECT_TRUE(log.contains(test.reason)) << log.all();
    EXPECT_FALSE(client.is_connected());
  }
  restart_with_certificate(30, "", true);
  EXPECT_EQ(QUILLON_STATUS_OK, client.connect()) << log.all();
}

TEST_F(GridConnectionTest, AClientWithoutACertificateGetsAStatusAndNoHang) {
  Client client(*grid_, "bare");
  quillon_connection_set_ssl_ctx_cb(client.connection, [](quillon_connection *, void *, void *) {});
  const auto began = std::chrono::steady_clock::now();
  EXPECT_EQ(QUILLON_STATUS_CONNECTION_ERROR, client.connect());
  EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(20));
  EXPECT_EQ(1u, client.disconnected.wait_for(1).size());
}

TEST_F(GridConnectionTest, HostsAreTriedInTurnUntilTheLiveOne) {
  Client client(*grid_, "rotating");
  const std::string live = grid_->host();
  set_hosts(client, {"127.0.0.1:1", "[::1]:1", live.c_str()});
  EXPECT_EQ(QUILLON_STATUS_CONNECTION_ERROR, client.connect());
  EXPECT_EQ(QUILLON_STATUS_CONNECTION_ERROR, client.connect());
  EXPECT_EQ(QUILLON_STATUS_OK, client.connect());
  EXPECT_EQ(QUILLON_STATUS_OK, client.disconnect());
  EXPECT_EQ(QUILLON_STATUS_CONNECTION_ERROR, client.connect());  // the first again
}

TEST_F(GridConnectionTest, OneConnectionsEndDoesNotDisturbAnother) {
  Client steady(*grid_, "steady"), publisher(*grid_, "steady-publisher");
  quillon_config_set_send_timeout_seconds(steady.config, 2);
  publisher.serve();
  ASSERT_EQ(QUILLON_STATUS_OK, publisher.connect());
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_publish(publisher.add_capability("Steady"), publisher.connection));
  ASSERT_EQ(QUILLON_STATUS_OK, steady.connect());
  quillon_capability *capability = steady.add_capability("Steady");
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_subscribe(capability, steady.connection));

  std::atomic<bool> stop{false};
  std::atomic<int> answered{0}, failed{0};
  std::thread asking([&] {
    std::string reply;
    while (!stop) ++(steady.ask(capability, "x", reply) == QUILLON_STATUS_OK ? answered : failed);
  });
  const auto goes_on = [&] {
    const int before = answered;
    return eventually([&] { return answered > before + 20; });
  };
  EXPECT_TRUE(goes_on());
  {
    Client other(*grid_, "restless");
    const std::string live = grid_->host();
    set_hosts(other, {"127.0.0.1:1", live.c_str()});
    EXPECT_EQ(QUILLON_STATUS_CONNECTION_ERROR, other.connect());
    EXPECT_TRUE(goes_on()) << "after another connection failed to connect";
    EXPECT_EQ(QUILLON_STATUS_OK, other.connect());
    EXPECT_TRUE(goes_on()) << "with another connection up";
    EXPECT_EQ(QUILLON_STATUS_OK, other.disconnect());
    EXPECT_TRUE(goes_on()) << "after another connection disconnected";
    set_hosts(other, {live.c_str()});
    EXPECT_EQ(QUILLON_STATUS_OK, other.connect());
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_destroy(other.connection));
    other.connection = nullptr;
    EXPECT_TRUE(goes_on()) << "after another connection was destroyed while connected";
  }
  // The connection whose thread began the dispatching goes; the other's traffic does not.
  publisher.disconnect();
  EXPECT_EQ(QUILLON_STATUS_OK, publisher.connect());
  EXPECT_TRUE(goes_on());
  stop = true;
  asking.join();
}

TEST_F(GridConnectionTest, AServerThatStopsReturnsEveryCallerAndComesBackWithEverything) {
  test_support::LocalGrid grid(test_support::LocalGrid::Approval::automatic);
  Client publisher(grid, "returning-publisher"), asker(grid, "returning-asker");
  publisher.serve();
  asker.listen();
  quillon_config_set_send_timeout_seconds(asker.config, 5);
  ASSERT_EQ(QUILLON_STATUS_OK, publisher.connect());
  ASSERT_EQ(QUILLON_STATUS_OK, asker.connect());
  quillon_capability *published = publisher.add_capability("Returning"), *capability = asker.add_capability("Returning");
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_publish(published, publisher.connection));
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_subscribe(capability, asker.connection));

  std::atomic<bool> stopped{false};
  std::atomic<int> late{0}, returned{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&] {
      while (!stopped) {
        const auto began = std::chrono::steady_clock::now();
        std::string reply;
        asker.ask(capability, "x", reply);
        if (std::chrono::steady_clock::now() - began > std::chrono::seconds(6)) ++late;
        ++returned;
      }
    });
  }
  EXPECT_TRUE(eventually([&] { return returned > 100; }));
  grid.server_stop();
  EXPECT_EQ(1u, asker.disconnected.wait_for(1).size());
  EXPECT_EQ(1u, publisher.disconnected.wait_for(1).size());
  stopped = true;
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(0, late);
  EXPECT_FALSE(asker.is_connected());
  EXPECT_EQ(QUILLON_STATUS_CONNECTION_ERROR, asker.connect());

  grid.server_start();
  // The controller comes back by itself; until then nobody answers the connect request.
  ASSERT_TRUE(eventually([&] { return publisher.connect() == QUILLON_STATUS_OK; }));
  ASSERT_TRUE(eventually([&] { return asker.connect() == QUILLON_STATUS_OK; }));
  std::string reply;
  EXPECT_EQ(QUILLON_STATUS_OK, asker.ask(capability, "again", reply));
  EXPECT_EQ("returning-publisher: again", reply);
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_notify(publisher.connection, published, grid_test::payload("told", "back")));
  EXPECT_EQ(std::vector<std::string>{"back"}, asker.told.wait_for(1));
}

TEST_F(GridConnectionTest, AThousandRoundsLeaveNothingBehind) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  constexpr int kRounds = 100;  // their own bookkeeping grows, so memory is judged by the other builds
  constexpr size_t kGrowthKib = SIZE_MAX;
#else
  constexpr int kRounds = 1000;
  constexpr size_t kGrowthKib = 2048;
#endif
  Client client(*grid_, "rounds");
  const auto round = [&] {
    ASSERT_EQ(QUILLON_STATUS_OK, client.connect());
    ASSERT_EQ(QUILLON_STATUS_OK, client.disconnect());
    client.disconnected.clear();
    client.connected.clear();
  };
  for (int i = 0; i < kRounds / 10; ++i) ASSERT_NO_FATAL_FAILURE(round());
  const auto before = footprint();
  for (int i = 0; i < kRounds; ++i) ASSERT_NO_FATAL_FAILURE(round());
  EXPECT_TRUE(eventually([&] { return footprint().threads <= before.threads + 1; }));
  EXPECT_LE(footprint().descriptors, before.descriptors + 1);
  const size_t after = footprint().resident_kib;
  EXPECT_LE(after < before.resident_kib ? 0 : after - before.resident_kib, kGrowthKib);
}

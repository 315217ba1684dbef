// The controller's word on an account: approved, pending, denied, and changed while the client is connected.
#include <gtest/gtest.h>

#include <thread>

#include "grid_client.h"

namespace {

using grid_test::Client;
using Statuses = std::vector<QUILLON_STATUS>;

class AccountTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { grid_ = std::make_unique<test_support::LocalGrid>(test_support::LocalGrid::Approval::manual); }
  static void TearDownTestSuite() { grid_.reset(); }
  static std::unique_ptr<test_support::LocalGrid> grid_;
};
std::unique_ptr<test_support::LocalGrid> AccountTest::grid_;

// Connects on a thread of its own, because a pending account blocks.
class Connecting {
 public:
  explicit Connecting(Client &client) : thread_([this, &client] { status_ = client.connect(); }) {}
  QUILLON_STATUS wait() {
    thread_.join();
    return status_;
  }

 private:
  QUILLON_STATUS status_ = QUILLON_STATUS_MAX;
  std::thread thread_;
};

}  // namespace

TEST_F(AccountTest, PendingThenApproved) {
  Client client(*grid_, "pending-approved");
  Connecting connecting(client);
  ASSERT_EQ(Statuses{QUILLON_STATUS_ACCOUNT_PENDING}, client.account.wait_for(1));
  EXPECT_FALSE(client.is_connected());
  EXPECT_TRUE(client.connected.all().empty());
  grid_->approve("pending-approved");
  EXPECT_EQ(QUILLON_STATUS_OK, connecting.wait());
  EXPECT_EQ((Statuses{QUILLON_STATUS_ACCOUNT_PENDING, QUILLON_STATUS_ACCOUNT_ENABLED}), client.account.wait_for(2));
  EXPECT_TRUE(client.is_connected());
  EXPECT_EQ(1u, client.connected.all().size());
  // The second time the account is known.
  EXPECT_EQ(QUILLON_STATUS_OK, client.disconnect());
  EXPECT_FALSE(client.is_connected());
  EXPECT_EQ(QUILLON_STATUS_OK, client.connect());
  EXPECT_EQ(2u, client.account.all().size());
}

TEST_F(AccountTest, PendingThenDisabled) {
  Client client(*grid_, "pending-disabled");
  Connecting connecting(client);
  ASSERT_EQ(Statuses{QUILLON_STATUS_ACCOUNT_PENDING}, client.account.wait_for(1));
  grid_->disable("pending-disabled");
  EXPECT_EQ(QUILLON_STATUS_CONNECTION_ERROR, connecting.wait());
  EXPECT_EQ((Statuses{QUILLON_STATUS_ACCOUNT_PENDING, QUILLON_STATUS_ACCOUNT_DISABLED}), client.account.wait_for(2));
  EXPECT_FALSE(client.is_connected());
}

TEST_F(AccountTest, DeniedLeavesTheSessionUpAndALaterApprovalLetsIn) {
  Client client(*grid_, "denied");
  grid_->deny("denied");
  EXPECT_EQ(QUILLON_STATUS_CONNECTION_DENIED, client.connect());
  EXPECT_EQ(Statuses{QUILLON_STATUS_CONNECTION_DENIED}, client.account.wait_for(1));
  EXPECT_FALSE(client.is_connected());
  EXPECT_TRUE(client.disconnected.all().empty());
  grid_->approve("denied");
  EXPECT_EQ(QUILLON_STATUS_OK, client.connect());
  EXPECT_TRUE(client.is_connected());
}

TEST_F(AccountTest, ChangesWhileConnectedDropTheConnection) {
  struct Change {
    const char *user;
    void (test_support::LocalGrid::*act)(const std::string &);
    QUILLON_STATUS account;
    QUILLON_STATUS reconnect;
  };
  const Change changes[] = {
      {"change-disabled", &test_support::LocalGrid::disable, QUILLON_STATUS_ACCOUNT_DISABLED, QUILLON_STATUS_CONNECTION_DENIED},
      {"change-deleted", &test_support::LocalGrid::remove, QUILLON_STATUS_ACCOUNT_DELETED, QUILLON_STATUS_MAX},
      {"change-rights", &test_support::LocalGrid::reauthorize, QUILLON_STATUS_ACCOUNT_AUTHORIZATION_CHANGED, QUILLON_STATUS_OK},
  };
  for (const Change &change : changes) {
    SCOPED_TRACE(change.user);
    Client client(*grid_, change.user);
    grid_->approve(change.user);
    ASSERT_EQ(QUILLON_STATUS_OK, client.connect());
    (*grid_.*change.act)(change.user);
    EXPECT_EQ(Statuses{change.account}, client.account.wait_for(1));
    EXPECT_EQ(Statuses{QUILLON_STATUS_CONNECTION_ERROR}, client.disconnected.wait_for(1));
    EXPECT_TRUE(grid_test::eventually([&] { return !client.is_connected(); }));
    if (change.reconnect != QUILLON_STATUS_MAX) {
      EXPECT_EQ(change.reconnect, client.connect());
    }
  }
}

TEST_F(AccountTest, DestroyEndsAConnectThatWaitsForApproval) {
  Client client(*grid_, "pending-destroyed");
  Connecting connecting(client);
  ASSERT_EQ(Statuses{QUILLON_STATUS_ACCOUNT_PENDING}, client.account.wait_for(1));
  client.destroy_connection();
  EXPECT_EQ(QUILLON_STATUS_CONNECTION_ERROR, connecting.wait());
}

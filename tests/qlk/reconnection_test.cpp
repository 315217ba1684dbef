#include <signal.h>

#include <map>

#include "connection_fixture.h"
#include "quillon_reconnection.h"

namespace {

using qlk_test::ConnectionFixture;
using qlk_test::kApproved;
using qlk_test::kPending;
using qlk_test::Statuses;
using test_support::wait_for;

class ReconnectionTest : public ConnectionFixture {
 protected:
  ReconnectionTest() { EXPECT_EQ(QUILLON_STATUS_OK, quillon_reconnection_create(&reconnection_, raw())); }
  ~ReconnectionTest() override {
    if (reconnection_ != nullptr) quillon_reconnection_destroy(reconnection_);
    qlk::reconnection_wait_seconds = 60;
  }

  // The object is gone, and its thread with it.
  void destroy() {
    const auto began = std::chrono::steady_clock::now();
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_reconnection_destroy(std::exchange(reconnection_, nullptr)));
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(4));
  }
  bool wait_for_exits(size_t count) {
    return wait_for([&] { return log_.count_exact("_reconnection_thread exits") == count; });
  }
  bool wait_for_connected() {
    return wait_for([this] { return quillon_connection_is_connected(raw()); });
  }

  quillon_reconnection *reconnection_ = nullptr;
};

TEST_F(ReconnectionTest, RefusesNull) {
  quillon_reconnection *made = reconnection_;
  EXPECT_EQ(QUILLON_STATUS_QUILLON_ERROR, quillon_reconnection_create(&made, nullptr));
  EXPECT_EQ(nullptr, made);
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_reconnection_start(nullptr));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_reconnection_stop(nullptr));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_reconnection_destroy(nullptr));
  EXPECT_EQ(3u, log_.count_exact("reconnection is null"));
}

TEST_F(ReconnectionTest, StopBeforeStartDisconnectsNothing) {
  serve();
  ASSERT_EQ(QUILLON_STATUS_OK, connect());
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_reconnection_stop(reconnection_));
  EXPECT_EQ(1u, log_.count_exact("keepRunning is false"));
  EXPECT_TRUE(quillon_connection_is_connected(raw()));
}

TEST_F(ReconnectionTest, ConnectsAtOnceAndAgainUntilItIsStopped) {
  serve();
  qlk::reconnection_wait_seconds = 1;
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_reconnection_start(reconnection_));
  ASSERT_TRUE(wait_for([this] { return seen().connected == 1; }));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_reconnection_start(reconnection_));  // runs already
  end_session();
  ASSERT_TRUE(wait_for([this] { return seen().connected == 2; }));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_reconnection_stop(reconnection_));
  EXPECT_TRUE(wait_for_exits(1));
  EXPECT_FALSE(quillon_connection_is_connected(raw()));
  EXPECT_EQ(1u, log_.count_exact("_reconnection_thread starts"));

  ASSERT_EQ(QUILLON_STATUS_OK, quillon_reconnection_start(reconnection_));
  EXPECT_TRUE(wait_for_connected());
}

TEST_F(ReconnectionTest, StopCutsTheWaitShort) {
  quillon_config_set_host(config_.get(), "127.0.0.1:1");
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_reconnection_start(reconnection_));
  ASSERT_TRUE(wait_for([this] { return !seen().disconnected.empty(); }));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_reconnection_stop(reconnection_));
  EXPECT_TRUE(wait_for_exits(1));
  EXPECT_EQ(0u, log_.count("_reconnection_thread error"));
}

TEST_F(ReconnectionTest, LogsTheStatusesThatWaitingDoesNotCure) {
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_reconnection_start(reconnection_));  // no host is set
  EXPECT_TRUE(wait_for([this] { return log_.count("_reconnection_thread error ") == 1; }));
}

TEST_F(ReconnectionTest, StopEndsAConnectThatIsPending) {
  serve();
  approve_with(kPending);
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_reconnection_start(reconnection_));
  ASSERT_TRUE(wait_until_pending());
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_reconnection_stop(reconnection_));
  EXPECT_TRUE(wait_for_exits(1));
}

TEST_F(ReconnectionTest, DestroyEndsAConnectToASilentServer) {
  serve({.faults = {{testpeer::Stage::features, testpeer::Fault::silent()}}});
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_reconnection_start(reconnection_));
  ASSERT_TRUE(wait_for([this] { return server_->connections() == 1; }));
  destroy();
  EXPECT_EQ(1u, log_.count_exact("_reconnection_thread exits"));
}

// Stopped at whatever moment of the connect.
TEST_F(ReconnectionTest, MayBeDestroyedAtAnyMoment) {
  serve();
  for (int round = 0; round < 30; ++round) {
    if (reconnection_ == nullptr) {
      ASSERT_EQ(QUILLON_STATUS_OK, quillon_reconnection_create(&reconnection_, raw()));
    }
    ASSERT_EQ(QUILLON_STATUS_OK, quillon_reconnection_start(reconnection_));
    // Delay: the destroy comes at another moment of the connect in each round.
    std::this_thread::sleep_for(std::chrono::microseconds(round * 300));
    destroy();
    ASSERT_FALSE(quillon_connection_is_connected(raw()));
  }
  EXPECT_EQ(30u, log_.count_exact("_reconnection_thread exits"));
}

TEST_F(ReconnectionTest, TheConnectCallbackMayDestroyIt) {
  serve();
  in_connect_cb_ = [this] { quillon_reconnection_destroy(std::exchange(reconnection_, nullptr)); };
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_reconnection_start(reconnection_));
  EXPECT_TRUE(wait_for_exits(1));
  EXPECT_FALSE(quillon_connection_is_connected(raw()));
}

TEST_F(ReconnectionTest, TheLibrarysThreadsTakeNoSignalsButThoseOfTheirFaults) {
  serve();
  std::mutex mutex;
  std::map<std::string, sigset_t> masks;
  const auto note_mask = [&](const char *thread) {
    const std::lock_guard lock(mutex);
    pthread_sigmask(SIG_SETMASK, nullptr, &masks[thread]);
  };
  const auto is_noted = [&](const char *thread) {
    return wait_for([&] {
      const std::lock_guard lock(mutex);
      return masks.count(thread) != 0;
    });
  };
  std::function<void()> note_handler = [&] { note_mask("request handler"); };
  const auto handler = [](wb_dom_node *, void *arg) -> wb_dom_node * {
    (*static_cast<std::function<void()> *>(arg))();
    return nullptr;
  };
  quillon_connection_register_query_handler(raw(), "urn:x", "ask", handler, &note_handler);
  in_connect_cb_ = [&] { note_mask("reconnection"); };
  in_account_cb_ = [&](QUILLON_STATUS) { note_mask("notifications"); };
  in_disconnect_cb_ = [&](QUILLON_STATUS) { note_mask("event loop"); };

  ASSERT_EQ(QUILLON_STATUS_OK, quillon_reconnection_start(reconnection_));
  ASSERT_TRUE(wait_for_connected());
  update_account("enabled");
  server_->send("<iq type='get' id='1' from='b@d/qlk'><grid xmlns='quillon' type='request'><ask xmlns='urn:x'/></grid></iq>");
  // A connection counts as connected before its callback has run, and a stop does not wait for that.
  for (const char *thread : {"reconnection", "notifications", "request handler"}) EXPECT_TRUE(is_noted(thread)) << thread;
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_reconnection_stop(reconnection_));
  EXPECT_TRUE(is_noted("event loop"));
  const std::lock_guard lock(mutex);
  ASSERT_EQ(4u, masks.size());
  for (const auto &[thread, mask] : masks) {
    EXPECT_TRUE(sigismember(&mask, SIGTERM)) << thread;
    EXPECT_FALSE(sigismember(&mask, SIGSEGV)) << thread;
  }
}

TEST_F(ReconnectionTest, OutlivesItsConnection) {
  serve();
  approve_with(kPending);
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_reconnection_start(reconnection_));
  ASSERT_TRUE(wait_until_pending());
  connection_.reset();
  destroy();
  EXPECT_EQ(1u, log_.count_exact("_reconnection_thread exits"));
}

}  // namespace

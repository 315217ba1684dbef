#include <signal.h>

#include <map>

#include "black_hole.h"
#include "connection_fixture.h"
#include "quillon_reconnection.h"
#include "reconnection_backoff.h"

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
  // What the reconnection has told so far, in order.
  std::vector<quillon_reconnection_report> reports() {
    const std::lock_guard lock(report_mutex_);
    return reports_;
  }
  bool wait_for_reports(size_t count) {
    return wait_for([&] { return reports().size() >= count; });
  }
  void start_telling() {
    const auto keep = [](const quillon_reconnection_report *report, void *self) {
      auto &test = *static_cast<ReconnectionTest *>(self);
      const std::lock_guard lock(test.report_mutex_);
      test.reports_.push_back(*report);
    };
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_reconnection_set_report_cb(reconnection_, keep, this));
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_reconnection_start(reconnection_));
  }
  // Two hosts, of which the server is the second.
  void put_host_before_server(const std::string &host) {
    const char *hosts[] = {host.c_str(), server_->host().c_str()};
    ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_hosts(config_.get(), hosts, 2));
  }

  bool wait_for_exits(size_t count) {
    return wait_for([&] { return log_.count_exact("_reconnection_thread exits") == count; });
  }
  bool wait_for_connected() {
    return wait_for([this] { return quillon_connection_is_connected(raw()); });
  }

  quillon_reconnection *reconnection_ = nullptr;

 private:
  std::mutex report_mutex_;
  std::vector<quillon_reconnection_report> reports_;
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

TEST_F(ReconnectionTest, DoesNotConnectWhileADrainIsUnderWay) {
  serve();
  std::atomic<bool> is_answering = false, is_released = false, came_early = false;
  std::function<void()> block = [&] {
    is_answering = true;
    wait_for([&] { return is_released.load(); });
  };
  const auto handler = [](wb_dom_node *, void *arg) -> wb_dom_node * {
    (*static_cast<std::function<void()> *>(arg))();
    return nullptr;
  };
  quillon_connection_register_query_handler(raw(), "urn:x", "ask", handler, &block);
  in_connect_cb_ = [&] { came_early = came_early || (is_answering && !is_released); };
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_reconnection_set_delays(reconnection_, 1, 100, 1));
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_reconnection_start(reconnection_));
  ASSERT_TRUE(wait_for([this] { return seen().connected == 1; }));
  server_->send("<iq type='get' id='1' from='b@d/qlk'><grid xmlns='quillon' type='request'><ask xmlns='urn:x'/></grid></iq>");
  ASSERT_TRUE(wait_for([&] { return is_answering.load(); }));
  std::thread drain([this] { EXPECT_EQ(QUILLON_STATUS_SEND_TIMEOUT, quillon_connection_drain(raw(), 0)); });
  EXPECT_TRUE(wait_for([this] { return !seen().disconnected.empty(); }));
  // Delay: time for what must not happen.
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  is_released = true;
  drain.join();
  EXPECT_TRUE(wait_for([this] { return seen().connected == 2; }));
  EXPECT_FALSE(came_early);
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

// ---- Options

constexpr uint32_t kHour = 3600000;

TEST_F(ReconnectionTest, OptionsAreChecked) {
  const struct {
    uint32_t first, growth, ceiling;
    QUILLON_STATUS status;
  } cases[] = {{1, 100, 1, QUILLON_STATUS_OK},
               {0, 100, 1, QUILLON_STATUS_INVALID_ARGS},
               {1, 99, 1, QUILLON_STATUS_INVALID_ARGS},
               {2, 100, 1, QUILLON_STATUS_INVALID_ARGS}};
  for (const auto &c : cases) EXPECT_EQ(c.status, quillon_reconnection_set_delays(reconnection_, c.first, c.growth, c.ceiling));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_reconnection_set_delays(nullptr, 1, 100, 1));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_reconnection_set_jitter(nullptr, true));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_reconnection_set_next_host_at_once(nullptr, true));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_reconnection_set_report_cb(nullptr, nullptr, nullptr));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_config_set_address_racing(nullptr, true));
}

TEST(ReconnectionBackoff, GivesTheDelays) {
  using Ms = std::chrono::milliseconds;
  using Failures = std::vector<qlk::ReconnectionBackoff::Failure>;
  const struct {
    const char *name;
    qlk::ReconnectionPolicy policy;
    Failures failures;
    std::vector<long> delays;
  } cases[] = {
      {"flat by default", {}, Failures(3), {60000, 60000, 60000}},
      {"growing to the ceiling",
       {.first = Ms(100), .growth_percent = 250, .ceiling = Ms(1000)},
       Failures(5),
       {100, 250, 625, 1000, 1000}},
      {"full jitter",
       {.first = Ms(100), .growth_percent = 200, .ceiling = Ms(250), .has_full_jitter = true},
       {{.chance = 0}, {.chance = 0.5}, {.chance = 0.999}, {.chance = 0.5}},
       {0, 100, 249, 125}},
      {"the other hosts at once",
       {.first = Ms(100), .growth_percent = 200, .ceiling = Ms(1000), .next_host_at_once = true},
       Failures(6, {.hosts = 3}),
       {0, 0, 100, 0, 0, 200}},
      {"the other hosts in their time", {.first = Ms(100), .ceiling = Ms(1000)}, Failures(2, {.hosts = 3}), {100, 100}},
      {"restraint",
       {.first = Ms(100), .ceiling = Ms(1000), .has_full_jitter = true, .next_host_at_once = true},
       {{.hosts = 2, .calls_for_restraint = true}, {.hosts = 2}, {.hosts = 2, .chance = 0.5}},
       {1000, 0, 50}},
  };
  for (const auto &c : cases) {
    qlk::ReconnectionBackoff backoff;
    std::vector<long> delays;
    for (const auto &failure : c.failures) delays.push_back(static_cast<long>(backoff.after(failure, c.policy).count()));
    EXPECT_EQ(c.delays, delays) << c.name;
    backoff.begin_anew();
    EXPECT_EQ(c.delays[0], backoff.after(c.failures[0], c.policy).count()) << c.name;
  }
}

TEST_F(ReconnectionTest, TellsOfAnOutageOnceHoweverManyAttemptsItTakes) {
  serve({.faults = {{testpeer::Stage::accept, testpeer::Fault::close().times(5)}}});
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_reconnection_set_delays(reconnection_, 1, 200, kHour));
  start_telling();
  ASSERT_TRUE(wait_for_reports(2));
  end_session();  // and it is heard of at once
  ASSERT_TRUE(wait_for_reports(4));
  const auto told = reports();
  const struct {
    QUILLON_RECONNECTION_STATE state;
    QUILLON_STATUS status;
    uint32_t attempts;
    uint64_t next_milliseconds;
  } expected[] = {{QUILLON_RECONNECTION_STATE_DOWN, QUILLON_STATUS_CONNECTION_ERROR, 1, 1},
                  {QUILLON_RECONNECTION_STATE_UP, QUILLON_STATUS_OK, 3, 0},  // each dials twice before it gives up
                  {QUILLON_RECONNECTION_STATE_DOWN, QUILLON_STATUS_CONNECTION_ERROR, 0, 4},  // the third delay: it did not last
                  {QUILLON_RECONNECTION_STATE_UP, QUILLON_STATUS_OK, 1, 0}};
  ASSERT_EQ(std::size(expected), told.size());
  for (size_t i = 0; i < told.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(expected[i].state, told[i].state);
    EXPECT_EQ(expected[i].status, told[i].status);
    EXPECT_EQ(expected[i].attempts, told[i].attempts);
    EXPECT_EQ(expected[i].next_milliseconds, told[i].next_milliseconds);
  }
}

TEST_F(ReconnectionTest, TriesTheNextHostAtOnce) {
  serve();
  put_host_before_server("127.0.0.1:1");
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_reconnection_set_delays(reconnection_, kHour, 100, kHour));
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_reconnection_set_next_host_at_once(reconnection_, true));
  start_telling();
  ASSERT_TRUE(wait_for_reports(1));
  EXPECT_EQ(QUILLON_RECONNECTION_STATE_UP, reports()[0].state);
  EXPECT_EQ(2u, reports()[0].attempts);
}

TEST_F(ReconnectionTest, HoldsBackAfterWhatWouldOnlyComeAgain) {
  for (const char *condition : {"conflict", "policy-violation"}) {
    SCOPED_TRACE(condition);
    serve();
    ASSERT_EQ(QUILLON_STATUS_OK, quillon_reconnection_set_delays(reconnection_, 1, 100, kHour));
    ASSERT_EQ(QUILLON_STATUS_OK, quillon_reconnection_set_jitter(reconnection_, true));
    const size_t before = reports().size();
    start_telling();
    ASSERT_TRUE(wait_for_reports(before + 1));
    server_->newest()->stream_error(condition);
    ASSERT_TRUE(wait_for_reports(before + 2));
    EXPECT_EQ(QUILLON_RECONNECTION_STATE_DOWN, reports().back().state);
    EXPECT_EQ(kHour, reports().back().next_milliseconds);
    destroy();
    EXPECT_EQ(1u, server_->connections());
    ASSERT_EQ(QUILLON_STATUS_OK, quillon_reconnection_create(&reconnection_, raw()));
  }
}

TEST_F(ReconnectionTest, ARaceOverAllHostsFindsTheOneThatLives) {
  const test_support::BlackHole hole;
  serve();
  put_host_before_server(hole.host());
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_address_racing(config_.get(), true));
  ASSERT_EQ(QUILLON_STATUS_OK, connect()) << log_.all();
  EXPECT_EQ(1u, log_.count("connecting to host")) << log_.all();
}

}  // namespace

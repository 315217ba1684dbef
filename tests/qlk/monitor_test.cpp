#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "oom.h"
#include "owners.h"
#include "quillon_log_capture.h"

namespace {

using std::chrono::duration;
using std::chrono::steady_clock;

qlk::MonitorPtr make_monitor() {
  quillon_monitor *monitor = nullptr;
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_monitor_create(&monitor));
  return qlk::MonitorPtr(monitor);
}

double seconds_waited(quillon_monitor *monitor, int seconds, bool *result) {
  const auto start = steady_clock::now();
  *result = quillon_monitor_timedwait(monitor, seconds);
  return duration<double>(steady_clock::now() - start).count();
}

TEST(Monitor, NotificationStaysUntilCleared) {
  const qlk::MonitorPtr monitor = make_monitor();
  bool woken = true;
  const double waited = seconds_waited(monitor.get(), 2, &woken);
  EXPECT_FALSE(woken);
  EXPECT_GT(waited, 0.9);  // the deadline is a whole second
  EXPECT_LT(waited, 2.5);
  quillon_monitor_notify(monitor.get());
  for (int i = 0; i < 2; ++i) EXPECT_LT(seconds_waited(monitor.get(), 60, &woken), 5);
  EXPECT_TRUE(woken);
  quillon_monitor_wait(monitor.get());
  quillon_monitor_clear(monitor.get());
  EXPECT_FALSE(quillon_monitor_timedwait(monitor.get(), 0));
  EXPECT_FALSE(quillon_monitor_timedwait(monitor.get(), -5));
}

TEST(Monitor, WakesWaitersAndPassesAPointer) {
  const qlk::MonitorPtr monitor = make_monitor();
  EXPECT_EQ(nullptr, quillon_monitor_get_user_data(monitor.get()));
  int result = 7;
  std::thread notifier([&] {
    quillon_monitor_set_user_data(monitor.get(), &result);
    quillon_monitor_notify(monitor.get());
  });
  EXPECT_TRUE(quillon_monitor_timedwait(monitor.get(), 60));
  notifier.join();
  EXPECT_EQ(&result, quillon_monitor_get_user_data(monitor.get()));
}

// An application may cancel a thread of its own that waits in here: the lock must not stay behind.
TEST(Monitor, CancelledWaiterLetsGoOfTheLock) {
  const qlk::MonitorPtr monitor = make_monitor();
  pthread_t waiter;
  const auto wait = [](void *arg) -> void * {
    quillon_monitor_wait(static_cast<quillon_monitor *>(arg));
    return nullptr;
  };
  ASSERT_EQ(0, pthread_create(&waiter, nullptr, wait, monitor.get()));
  ASSERT_EQ(0, pthread_cancel(waiter));
  void *ended = nullptr;
  ASSERT_EQ(0, pthread_join(waiter, &ended));
  EXPECT_EQ(PTHREAD_CANCELED, ended);
  EXPECT_FALSE(quillon_monitor_timedwait(monitor.get(), 0));
}

TEST(Monitor, NullIsHarmlessAndItsDestructionLogged) {
  const test_support::QuillonLogCapture log;
  EXPECT_FALSE(quillon_monitor_timedwait(nullptr, 5));
  quillon_monitor_wait(nullptr);
  quillon_monitor_notify(nullptr);
  quillon_monitor_clear(nullptr);
  quillon_monitor_set_user_data(nullptr, nullptr);
  EXPECT_EQ(nullptr, quillon_monitor_get_user_data(nullptr));
  EXPECT_TRUE(log.records().empty()) << log.all();
  quillon_monitor_destroy(nullptr);
  EXPECT_EQ(1u, log.count_exact("quillon_monitor_destroy monitor is null ...")) << log.all();
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_monitor_create(nullptr));
  EXPECT_EQ(1u, log.count_exact("monitor is null")) << log.all();
}

#if QLK_HAS_OOM
TEST(Monitor, CreateReportsExhaustedMemory) {
  quillon_monitor *monitor = nullptr;
  const oom::FailNth failing(1);
  EXPECT_EQ(QUILLON_STATUS_MALLOC_ERROR, quillon_monitor_create(&monitor));
  EXPECT_EQ(nullptr, monitor);
}
#endif

}  // namespace

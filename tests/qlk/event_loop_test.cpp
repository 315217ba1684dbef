#include "event_loop.h"

#include <event2/thread.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <future>
#include <thread>
#include <vector>

#include "log_capture.h"
#include "oom.h"
#include "owners.h"
#include "wait_for.h"

namespace {

using test_support::LogCapture;

constexpr std::chrono::seconds kPatience{20};

size_t count_threads() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return static_cast<size_t>(std::distance(begin(tasks), end(tasks)));
}

// The kernel may list a thread for a moment after it was joined.
bool threads_become(size_t expected) {
  return test_support::wait_for([expected] { return count_threads() == expected; });
}

// A sanitizer starts a thread of its own with the first one, which the tests are not to count.
void start_first_thread() {
  std::promise<void> may_end;
  std::thread first([&] { may_end.get_future().wait(); });
  const size_t count = count_threads();
  may_end.set_value();
  first.join();
  EXPECT_TRUE(test_support::wait_for([count] { return count_threads() < count; }));
}

class EventLoopTest : public testing::Test {
 protected:
  void SetUp() override {
    start_first_thread();
    evthread_use_pthreads();
    qlk::EventBasePtr base(event_base_new());
    evthread_make_base_notifiable(base.get());
    wb_htable *table = nullptr;
    ASSERT_TRUE(wb_htable_create(0, wb_strcase_hashcode, wb_strcase_compare, &table, nullptr));
    const qlk::TablePtr owned(table);
    ASSERT_TRUE(wb_htable_put(table, "selector", base.get(), nullptr, nullptr));
    wb_workq *queue = nullptr;
    ASSERT_TRUE(wb_workq_create(table, &queue, nullptr));
    qlk::EventPtr event(event_new(
        base.get(), -1, 0, [](evutil_socket_t, short, void *) {}, nullptr));
    loop_ = qlk::EventLoop::create(std::move(base), std::move(event), qlk::WorkQueuePtr(queue));
    ASSERT_NE(nullptr, loop_);
  }

  void TearDown() override {
    if (loop_ != nullptr) loop_->settle();  // so that the next test counts its own threads only
  }

  void enter_and_start() {
    loop_->enter();
    pthread_t handle;
    ASSERT_TRUE(loop_->start_thread(handle));
  }

  // Runs the function on the loop; false when it does not run in time.
  bool run_on_loop(std::function<void()> function) {
    struct Item {
      std::function<void()> function;
      std::promise<void> done;
    };
    auto *item = new Item{std::move(function), {}};
    std::future<void> done = item->done.get_future();
    const auto run = [](void *arg, bool cancelled) {
      const std::unique_ptr<Item> owned(static_cast<Item *>(arg));
      if (cancelled) return;
      owned->function();
      owned->done.set_value();
    };
    if (!wb_workq_put(loop_->queue(), run, item, nullptr)) return false;
    return done.wait_for(kPatience) == std::future_status::ready;
  }

  const LogCapture log_;
  std::shared_ptr<qlk::EventLoop> loop_;
};

TEST_F(EventLoopTest, OnlyTheDispatcherIsOnTheLoop) {
  enter_and_start();
  bool on_loop = false;
  ASSERT_TRUE(run_on_loop([&] { on_loop = loop_->is_loop_thread(); }));
  EXPECT_TRUE(on_loop);
  EXPECT_FALSE(loop_->is_loop_thread());
  loop_->leave();
}

TEST_F(EventLoopTest, GoesOnWhileOneUserIsLeftAndEndsWithTheLast) {
  const size_t before = count_threads();
  enter_and_start();
  enter_and_start();
  loop_->leave();
  EXPECT_TRUE(run_on_loop([] {}));
  loop_->settle();
  EXPECT_TRUE(threads_become(before + 1)) << count_threads();
  loop_->leave();
  loop_->settle();
  EXPECT_TRUE(threads_become(before)) << count_threads();
  EXPECT_EQ(2u, log_.count_exact(" connection thread done ....."));
}

// The last user leaves before the thread dispatches at all: the end must not be missed.
TEST_F(EventLoopTest, LeavingBeforeTheDispatchBeginsEndsIt) {
  const size_t before = count_threads();
  for (int round = 0; round < 500; ++round) {
    enter_and_start();
    loop_->leave();
  }
  loop_->settle();
  EXPECT_TRUE(threads_become(before)) << count_threads();
}

// Users come and go on many threads; whoever is in must find the loop dispatched.
TEST_F(EventLoopTest, ServesEveryUserWhileOthersLeave) {
  std::atomic<int> unserved = 0;
  std::vector<std::thread> users;
  for (int user = 0; user < 4; ++user) {
    users.emplace_back([&] {
      for (int round = 0; round < 200; ++round) {
        enter_and_start();
        if (!run_on_loop([] {})) ++unserved;
        loop_->leave();
      }
    });
  }
  for (std::thread &user : users) user.join();
  EXPECT_EQ(0, unserved);
  EXPECT_EQ(0u, log_.count("error in connection event loop"));
}

TEST_F(EventLoopTest, ItsThreadTakesNoSignals) {
  enter_and_start();
  sigset_t blocked;
  sigemptyset(&blocked);
  ASSERT_TRUE(run_on_loop([&] { pthread_sigmask(SIG_SETMASK, nullptr, &blocked); }));
  EXPECT_TRUE(sigismember(&blocked, SIGTERM));
  loop_->leave();
}

TEST_F(EventLoopTest, CloseEndsItForUsersToo) {
  const size_t before = count_threads();
  enter_and_start();
  loop_->close();
  EXPECT_TRUE(threads_become(before)) << count_threads();
  pthread_t handle;
  EXPECT_FALSE(loop_->start_thread(handle));
}

TEST_F(EventLoopTest, MayLoseItsLastHolderOnItsOwnThread) {
  enter_and_start();
  std::promise<void> may_end;
  std::weak_ptr<qlk::EventLoop> watched = loop_;
  auto *item = new std::shared_future<void>(may_end.get_future());
  ASSERT_TRUE(wb_workq_put(
      loop_->queue(),
      [](void *arg, bool) {
        const std::unique_ptr<std::shared_future<void>> gate(static_cast<std::shared_future<void> *>(arg));
        gate->wait();
      },
      item, nullptr));
  loop_->leave();
  loop_.reset();
  may_end.set_value();
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!watched.expired() && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
  EXPECT_TRUE(watched.expired());
}

#if QLK_HAS_OOM
TEST_F(EventLoopTest, WithoutMemoryThereIsNoThread) {
  loop_->enter();
  pthread_t handle = {};
  for (long nth = 1; nth <= 2; ++nth) {
    const oom::FailNth failing(nth);
    EXPECT_FALSE(loop_->start_thread(handle)) << nth;
  }
  EXPECT_TRUE(loop_->start_thread(handle));
  loop_->leave();
}
#endif

}  // namespace

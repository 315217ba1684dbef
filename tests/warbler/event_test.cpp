#include "event.h"

#include <event2/event.h>
#include <event2/thread.h>
#include <event2/util.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <warbler/workq.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "loop_gate.h"

namespace {

// What a bound function does, so that cases can be written in place.
using Action = std::function<void(wb_event_data *)>;
void act(wb_event_data *event, void *arg) { (*static_cast<Action *>(arg))(event); }
void act_too(wb_event_data *event, void *arg) { (*static_cast<Action *>(arg))(event); }

struct BaseDeleter {
  void operator()(event_base *base) const { event_base_free(base); }
};
using BasePtr = std::unique_ptr<event_base, BaseDeleter>;

BasePtr make_base() {
  evthread_use_pthreads();
  BasePtr base(event_base_new());
  evthread_make_base_notifiable(base.get());
  return base;
}

}  // namespace

TEST(Event, BoundFunctionsRunInOrderWithNameSourceAndData) {
  wb_event event("clientConnected");
  std::vector<std::string> calls;
  int source = 0, data = 0;
  Action first = [&](wb_event_data *e) {
    EXPECT_STREQ("clientConnected", e->name);
    EXPECT_EQ(&source, e->source);
    EXPECT_EQ(&data, e->data);
    calls.push_back("first");
  };
  Action second = [&](wb_event_data *) { calls.push_back("second"); };
  ASSERT_TRUE(wb_event_bind(&event, act, &first, nullptr));
  ASSERT_TRUE(wb_event_bind(&event, act_too, &second, nullptr));
  event.raise(&source, &data);
  EXPECT_EQ((std::vector<std::string>{"first", "second"}), calls);
  wb_event_unbind(&event, act);
  event.raise(&source, &data);
  EXPECT_EQ((std::vector<std::string>{"first", "second", "second"}), calls);
  EXPECT_FALSE(wb_event_bind(&event, nullptr, nullptr, nullptr));
}

TEST(Event, BindingAndUnbindingDuringADispatch) {
  wb_event event("messageReceived");
  int late = 0, removed = 0;
  Action added = [&](wb_event_data *) { ++late; };
  Action victim = [&](wb_event_data *) { ++removed; };
  Action changer = [&](wb_event_data *) {
    event.unbind(act_too);
    event.bind(act, &added);
  };
  event.bind(act, &changer);
  event.bind(act_too, &victim);
  event.raise(nullptr, nullptr);
  EXPECT_EQ(0, removed);  // unbound before its turn
  EXPECT_EQ(0, late);     // bound after the dispatch began
  event.raise(nullptr, nullptr);
  EXPECT_EQ(1, late);
}

TEST(Event, AFunctionMayDestroyTheEvent) {
  auto event = std::make_unique<wb_event>("clientDisconnected");
  int after = 0;
  Action destroyer = [&](wb_event_data *) { event.reset(); };
  Action later = [&](wb_event_data *) { ++after; };
  event->bind(act, &destroyer);
  event->bind(act_too, &later);
  event->raise(nullptr, nullptr);
  EXPECT_EQ(nullptr, event);
  EXPECT_EQ(0, after);
}

TEST(Event, ClearingEndsADispatchUnderWay) {
  wb_event event("messageReceived");
  int after = 0;
  Action clearer = [&](wb_event_data *) { event.clear(); };
  Action later = [&](wb_event_data *) { ++after; };
  event.bind(act, &clearer);
  event.bind(act_too, &later);
  event.raise(nullptr, nullptr);
  event.raise(nullptr, nullptr);
  EXPECT_EQ(0, after);
}

namespace {

// A queue over a base of its own, both gone with it unless the test has destroyed the queue.
class Queue {
 public:
  Queue() {
    wb_htable *config = nullptr;
    EXPECT_TRUE(wb_htable_create(0, wb_strcase_hashcode, wb_strcase_compare, &config, nullptr));
    EXPECT_TRUE(wb_htable_put(config, "selector", base_.get(), nullptr, nullptr));
    EXPECT_TRUE(wb_workq_create(config, &queue_, nullptr));
    wb_htable_destroy(config);
  }
  ~Queue() { destroy(); }
  Queue(const Queue &) = delete;
  Queue &operator=(const Queue &) = delete;

  event_base *base() const { return base_.get(); }
  bool put(wb_workq_function function, void *arg) { return wb_workq_put(queue_, function, arg, nullptr); }
  void destroy() { wb_workq_destroy(std::exchange(queue_, nullptr)); }

 private:
  const BasePtr base_ = make_base();
  wb_workq *queue_ = nullptr;
};

}  // namespace

TEST(WorkQueue, AnItemMayDestroyIt) {
  struct Shared {
    Queue queue;
    std::vector<std::string> calls;
  } shared;
  const auto run = [](void *arg, bool cancelled) {
    static_cast<Shared *>(arg)->calls.emplace_back(cancelled ? "cancelled" : "run");
  };
  const auto destroy = [](void *arg, bool cancelled) {
    auto &self = *static_cast<Shared *>(arg);
    // One for the next pass, behind those that wait for their turn in this one.
    EXPECT_TRUE(self.queue.put(
        [](void *later, bool late) { static_cast<Shared *>(later)->calls.emplace_back(late ? "late cancelled" : "late run"); },
        arg));
    self.queue.destroy();
    self.calls.emplace_back(cancelled ? "never" : "destroyed");
  };
  ASSERT_TRUE(shared.queue.put(run, &shared));
  ASSERT_TRUE(shared.queue.put(destroy, &shared));
  ASSERT_TRUE(shared.queue.put(run, &shared));
  event_base_loop(shared.queue.base(), EVLOOP_NONBLOCK);
  event_base_loop(shared.queue.base(), EVLOOP_NONBLOCK);
  EXPECT_EQ((std::vector<std::string>{"run", "cancelled", "late cancelled", "destroyed"}), shared.calls);
}

TEST(WorkQueue, ACancelledItemCannotPutAnother) {
  Queue queue;
  struct Shared {
    Queue &queue;
    int refused = 0;
  } shared{queue};
  const auto put_again = [](void *arg, bool cancelled) {
    auto &self = *static_cast<Shared *>(arg);
    EXPECT_TRUE(cancelled);
    if (!self.queue.put([](void *, bool) { ADD_FAILURE(); }, arg)) ++self.refused;
  };
  ASSERT_TRUE(queue.put(put_again, &shared));
  queue.destroy();
  EXPECT_EQ(1, shared.refused);
}

// An item that puts itself again every time must not keep the loop from everything else.
TEST(WorkQueue, ItemsThatPutItemsLetOthersHaveTheirTurn) {
  struct Shared {
    Queue queue;
    int runs = 0;
    static void run_again(void *arg, bool cancelled) {
      auto &self = *static_cast<Shared *>(arg);
      if (!cancelled && ++self.runs < 100'000) {
        EXPECT_TRUE(self.queue.put(run_again, arg));
      }
    }
  } shared;
  int sockets[2];
  ASSERT_EQ(0, evutil_socketpair(AF_UNIX, SOCK_STREAM, 0, sockets));
  const auto gate = std::make_shared<wb::LoopGate>();
  wb::LoopEvent readable(shared.queue.base(), sockets[0], EV_READ, gate,
                         [&](short) { event_base_loopbreak(shared.queue.base()); });
  readable.add();
  ASSERT_TRUE(shared.queue.put(Shared::run_again, &shared));
  ASSERT_EQ(1, send(sockets[1], "x", 1, 0));
  event_base_loop(shared.queue.base(), 0);
  EXPECT_LT(shared.runs, 100);
  shared.queue.destroy();
  for (const int one : sockets) evutil_closesocket(one);
}

TEST(WorkQueue, ItemsOfEachThreadRunOnceInTheirOrderOnTheLoop) {
  const BasePtr base = make_base();
  wb_htable *config = nullptr;
  ASSERT_TRUE(wb_htable_create(0, wb_strcase_hashcode, wb_strcase_compare, &config, nullptr));
  wb_workq *queue = nullptr;
  EXPECT_FALSE(wb_workq_create(config, &queue, nullptr));  // no selector
  ASSERT_TRUE(wb_htable_put(config, "selector", base.get(), nullptr, nullptr));
  ASSERT_TRUE(wb_workq_create(config, &queue, nullptr));

  constexpr int kThreads = 4, kItems = 5000;
  struct Shared {
    event_base *base;
    std::vector<int> next = std::vector<int>(kThreads, 0);
    int done = 0, disorder = 0;
  } shared{base.get()};
  struct Item {
    Shared *shared;
    int thread, number;
  };
  const auto run = [](void *arg, bool cancelled) {
    const std::unique_ptr<Item> item(static_cast<Item *>(arg));
    EXPECT_FALSE(cancelled);
    if (item->shared->next[static_cast<size_t>(item->thread)]++ != item->number) ++item->shared->disorder;
    if (++item->shared->done == kThreads * kItems) event_base_loopbreak(item->shared->base);
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kItems; ++i) ASSERT_TRUE(wb_workq_put(queue, run, new Item{&shared, t, i}, nullptr));
    });
  }
  event_base_loop(base.get(), EVLOOP_NO_EXIT_ON_EMPTY);
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(kThreads * kItems, shared.done);
  EXPECT_EQ(0, shared.disorder);
  wb_workq_destroy(queue);
  wb_htable_destroy(config);
}

TEST(WorkQueue, DestroyingCancelsWhatWaits) {
  Queue queue;
  int cancelled_items = 0;
  const auto count = [](void *arg, bool cancelled) { *static_cast<int *>(arg) += cancelled ? 1 : 100; };
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(queue.put(count, &cancelled_items));
  queue.destroy();
  EXPECT_EQ(3, cancelled_items);
}

TEST(LoopGate, ClosingWaitsForAPassAndLetsNoneBegin) {
  const BasePtr base = make_base();
  const auto gate = std::make_shared<wb::LoopGate>();
  std::atomic<int> entered{0}, left{0};
  std::atomic<bool> inside{false}, go_on{false};
  wb::LoopEvent event(base.get(), -1, 0, gate, [&](short) {
    ++entered;
    inside = true;
    while (!go_on) std::this_thread::yield();
    ++left;
  });
  event.add_for_next_pass();
  std::thread loop([&] { event_base_loop(base.get(), EVLOOP_NO_EXIT_ON_EMPTY); });
  while (!inside) std::this_thread::yield();
  std::thread opener([&] { go_on = true; });
  EXPECT_EQ(wb::LoopGate::Closed::outside_pass, gate->close());
  EXPECT_EQ(1, left);
  EXPECT_EQ(wb::LoopGate::Closed::before, gate->close());
  event.add_for_next_pass();
  event_base_loopbreak(base.get());
  loop.join();
  opener.join();
  EXPECT_EQ(1, entered);
}

TEST(LoopGate, WhatIsBuriedGoesWhenTheOutermostPassEnds) {
  struct Object : wb::Buriable {};
  const auto gate = std::make_shared<wb::LoopGate>();
  std::weak_ptr<Object> watched[3];
  {
    const wb::LoopGate::Pass outer(gate);
    ASSERT_TRUE(outer);
    {
      const wb::LoopGate::Pass inner(gate);
      for (std::weak_ptr<Object> &one : watched) {
        auto object = std::make_shared<Object>();
        one = object;
        gate->bury(std::move(object));
      }
      gate->bury(nullptr);
      EXPECT_EQ(wb::LoopGate::Closed::within_pass, gate->close());
    }
    for (const std::weak_ptr<Object> &one : watched) EXPECT_FALSE(one.expired());
  }
  for (const std::weak_ptr<Object> &one : watched) EXPECT_TRUE(one.expired());
  EXPECT_FALSE(wb::LoopGate::Pass(gate));
}

#include "event.h"

#include <event2/event.h>
#include <event2/thread.h>
#include <gtest/gtest.h>
#include <warbler/workq.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
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
  const BasePtr base = make_base();
  wb_htable *config = nullptr;
  ASSERT_TRUE(wb_htable_create(0, wb_strcase_hashcode, wb_strcase_compare, &config, nullptr));
  ASSERT_TRUE(wb_htable_put(config, "selector", base.get(), nullptr, nullptr));
  wb_workq *queue = nullptr;
  ASSERT_TRUE(wb_workq_create(config, &queue, nullptr));
  int cancelled_items = 0;
  const auto count = [](void *arg, bool cancelled) { *static_cast<int *>(arg) += cancelled ? 1 : 100; };
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(wb_workq_put(queue, count, &cancelled_items, nullptr));
  wb_workq_destroy(queue);
  EXPECT_EQ(3, cancelled_items);
  wb_htable_destroy(config);
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
  event.activate();
  std::thread loop([&] { event_base_loop(base.get(), EVLOOP_NO_EXIT_ON_EMPTY); });
  while (!inside) std::this_thread::yield();
  std::thread opener([&] { go_on = true; });
  EXPECT_EQ(wb::LoopGate::Closed::outside_pass, gate->close());
  EXPECT_EQ(1, left);
  EXPECT_EQ(wb::LoopGate::Closed::before, gate->close());
  event.activate();
  event_base_loopbreak(base.get());
  loop.join();
  opener.join();
  EXPECT_EQ(1, entered);
}

TEST(LoopGate, WhatIsBuriedGoesWhenTheOutermostPassEnds) {
  const auto gate = std::make_shared<wb::LoopGate>();
  std::weak_ptr<int> watched;
  {
    const wb::LoopGate::Pass outer(gate);
    ASSERT_TRUE(outer);
    {
      const wb::LoopGate::Pass inner(gate);
      auto object = std::make_shared<int>(1);
      watched = object;
      gate->bury(std::move(object));
      EXPECT_EQ(wb::LoopGate::Closed::within_pass, gate->close());
    }
    EXPECT_FALSE(watched.expired());
  }
  EXPECT_TRUE(watched.expired());
  EXPECT_FALSE(wb::LoopGate::Pass(gate));
}

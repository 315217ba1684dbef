#include "quillon.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "oom.h"
#include "owners.h"

namespace {

std::vector<void *> freed;
void record_free(void *item) { freed.push_back(item); }

qlk::QueuePtr make_queue(quillon_queue_items_free_callback free_item) {
  freed.clear();
  quillon_queue *queue = nullptr;
  quillon_queue_create(&queue, free_item);
  return qlk::QueuePtr(queue);
}

TEST(Queue, IsFirstInFirstOut) {
  const qlk::QueuePtr queue = make_queue(nullptr);
  int values[2] = {};
  quillon_queue_push(queue.get(), &values[0]);
  quillon_queue_push(queue.get(), nullptr);
  quillon_queue_push(queue.get(), &values[1]);
  EXPECT_EQ(&values[0], quillon_queue_pop(queue.get()));
  EXPECT_EQ(nullptr, quillon_queue_pop(queue.get()));
  EXPECT_EQ(&values[1], quillon_queue_pop(queue.get()));
  EXPECT_EQ(nullptr, queue->first);
  EXPECT_EQ(nullptr, queue->last);
}

TEST(Queue, DestroyFreesWhatIsLeftOnce) {
  int values[3] = {};
  {
    const qlk::QueuePtr queue = make_queue(record_free);
    for (int &value : values) quillon_queue_push(queue.get(), &value);
    quillon_queue_pop(queue.get());
  }
  EXPECT_EQ((std::vector<void *>{&values[1], &values[2]}), freed);
  const qlk::QueuePtr strings = make_queue(quillon_queue_string_free);
  quillon_queue_push(strings.get(), qlk::make_string("left behind").release());
}

TEST(Queue, HandsItemsBetweenThreads) {
  constexpr int kItems = 2000;
  const qlk::QueuePtr queue = make_queue(nullptr);
  std::vector<int> values(2 * kItems);
  const auto push = [&](int from) {
    for (int i = from; i < from + kItems; ++i) quillon_queue_push(queue.get(), &values[static_cast<size_t>(i)]);
  };
  std::thread first(push, 0);
  std::thread second(push, kItems);
  int *last[2] = {nullptr, nullptr};
  for (int popped = 0; popped < 2 * kItems;) {
    auto *item = static_cast<int *>(quillon_queue_pop(queue.get()));
    if (item == nullptr) continue;  // woken early
    ++popped;
    ++*item;
    int *&before = last[item - values.data() >= kItems ? 1 : 0];
    EXPECT_LT(before, item);  // each thread's items stay in its order
    before = item;
  }
  first.join();
  second.join();
  EXPECT_EQ(values, std::vector<int>(2 * kItems, 1));
}

TEST(Queue, NullIsHarmless) {
  quillon_queue_create(nullptr, nullptr);
  quillon_queue_push(nullptr, nullptr);
  EXPECT_EQ(nullptr, quillon_queue_pop(nullptr));
  quillon_queue_destroy(nullptr);
}

#if QLK_HAS_OOM
TEST(Queue, SurvivesExhaustedMemory) {
  const qlk::QueuePtr queue = make_queue(nullptr);
  quillon_queue *other = queue.get();
  const oom::FailNth failing(1);
  quillon_queue_create(&other, nullptr);
  EXPECT_EQ(nullptr, other);
  oom::fail_nth(1);
  int lost = 0, kept = 0;
  quillon_queue_push(queue.get(), &lost);
  quillon_queue_push(queue.get(), &kept);
  EXPECT_EQ(&kept, quillon_queue_pop(queue.get()));
}
#endif

}  // namespace

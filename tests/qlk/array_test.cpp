#include "quillon_array.h"

#include <gtest/gtest.h>

#include <vector>

#include "oom.h"
#include "owners.h"

namespace {

using qlk::ArrayPtr;
using qlk::make_string;

std::vector<void *> freed;
void record_free(void *item) { freed.push_back(item); }

ArrayPtr make_array(quillon_array_items_equal_callback equal, quillon_array_items_free_callback free_item) {
  freed.clear();
  quillon_array *array = nullptr;
  quillon_array_create(&array, equal, free_item);
  return ArrayPtr(array);
}

TEST(Array, KeepsOneSlotFree) {
  const ArrayPtr array = make_array(nullptr, nullptr);
  std::vector<int> values(33);
  const int32_t expected[] = {16, 32, 32, 64};
  const size_t counts[] = {15, 16, 30, 33};
  size_t added = 0;
  for (size_t step = 0; step < std::size(counts); ++step) {
    while (added < counts[step]) quillon_array_add(array.get(), &values[added++]);
    EXPECT_EQ(expected[step], array->max) << added;
    EXPECT_EQ(static_cast<int32_t>(added), quillon_array_size(array.get()));
  }
  for (size_t i = 0; i < added; ++i) EXPECT_EQ(&values[i], quillon_array_get(array.get(), static_cast<int32_t>(i)));
  EXPECT_EQ(nullptr, quillon_array_get(array.get(), 33));
  EXPECT_EQ(nullptr, quillon_array_get(array.get(), -1));
}

TEST(Array, RemovesTheFirstEqualAndClosesTheGap) {
  int values[3] = {};
  const ArrayPtr array = make_array(nullptr, record_free);
  for (int &value : values) quillon_array_add(array.get(), &value);
  quillon_array_add(array.get(), nullptr);
  quillon_array_remove(array.get(), &freed);  // not in it
  quillon_array_remove(array.get(), &values[1]);
  EXPECT_EQ((std::vector<void *>{&values[1]}), freed);
  EXPECT_EQ(3, quillon_array_size(array.get()));
  EXPECT_EQ(1, quillon_array_index_of(array.get(), &values[2]));
  EXPECT_EQ(2, quillon_array_index_of(array.get(), nullptr));
}

TEST(Array, DestroyFreesEachItemOnce) {
  int values[2] = {};
  {
    const ArrayPtr array = make_array(nullptr, record_free);
    for (int &value : values) quillon_array_add(array.get(), &value);
  }
  EXPECT_EQ((std::vector<void *>{&values[0], &values[1]}), freed);
}

TEST(Array, OfStringsComparesText) {
  const ArrayPtr array = make_array(quillon_array_string_equal, quillon_array_string_free);
  quillon_array_add(array.get(), make_string("one").release());
  quillon_array_add(array.get(), make_string("two").release());
  const qlk::StringPtr two = make_string("two");
  EXPECT_EQ(1, quillon_array_index_of(array.get(), two.get()));
  quillon_array_remove(array.get(), two.get());
  EXPECT_EQ(-1, quillon_array_index_of(array.get(), two.get()));
}

TEST(Array, NullIsHarmless) {
  quillon_array_create(nullptr, nullptr, nullptr);
  quillon_array_add(nullptr, nullptr);
  quillon_array_remove(nullptr, nullptr);
  quillon_array_destroy(nullptr);
  EXPECT_EQ(-1, quillon_array_size(nullptr));
  EXPECT_EQ(nullptr, quillon_array_get(nullptr, 0));
  EXPECT_EQ(-1, quillon_array_index_of(nullptr, nullptr));
}

#if QLK_HAS_OOM
TEST(Array, FailedGrowthLosesNothing) {
  for (long nth = 1; nth <= 2; ++nth) {
    const long live = oom::live();
    quillon_array *none = nullptr;
    const oom::FailNth failing(nth);
    quillon_array_create(&none, nullptr, nullptr);
    EXPECT_EQ(nullptr, none);
    EXPECT_EQ(live, oom::live());
  }
  int values[18] = {};
  const ArrayPtr array = make_array(nullptr, nullptr);
  for (int i = 0; i < 15; ++i) quillon_array_add(array.get(), &values[i]);
  {
    const oom::FailNth failing(1);
    EXPECT_TRUE(qlk::array_add(array.get(), &values[15]));  // into the slot that is kept free
    oom::fail_nth(1);
    EXPECT_FALSE(qlk::array_add(array.get(), &values[16]));
  }
  EXPECT_EQ(16, quillon_array_size(array.get()));
  EXPECT_TRUE(qlk::array_add(array.get(), &values[17]));
  EXPECT_EQ(32, array->max);
  for (int i = 0; i < 16; ++i) EXPECT_EQ(&values[i], quillon_array_get(array.get(), i));
  EXPECT_EQ(&values[17], quillon_array_get(array.get(), 16));
}
#endif

}  // namespace

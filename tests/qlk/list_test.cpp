#include <gtest/gtest.h>

#include <vector>

#include "oom.h"
#include "owners.h"

namespace {

std::vector<void *> freed;
void record_free(void *data) { freed.push_back(data); }
bool same_int(const void *element, const void *value) {
  return *static_cast<const int *>(element) == *static_cast<const int *>(value);
}

// A list of the addresses of 0, 1 and 2.
class List : public testing::Test {
 protected:
  void SetUp() override {
    freed.clear();
    ASSERT_EQ(QUILLON_STATUS_OK, quillon_list_create(&list, record_free, same_int));
    for (int &value : values) ASSERT_TRUE(quillon_list_push_back(list, &value));
  }
  void TearDown() override { quillon_list_destroy(&list); }
  std::vector<int> contents() const {
    std::vector<int> found;
    for (size_t i = 0; i < quillon_list_size(list); ++i) found.push_back(*static_cast<int *>(quillon_list_get_at(list, i)));
    return found;
  }

  int values[3] = {0, 1, 2};
  quillon_list *list = nullptr;
};

TEST_F(List, KeepsOrderAndFindsTheFirstEqual) {
  EXPECT_EQ((std::vector<int>{0, 1, 2}), contents());
  EXPECT_EQ(nullptr, quillon_list_get_at(list, 3));
  const int wanted = 2;
  const int missing = 9;
  EXPECT_EQ(2, quillon_list_find(list, &wanted));
  EXPECT_EQ(-1, quillon_list_find(list, &missing));
  list->ccb = nullptr;
  EXPECT_EQ(-1, quillon_list_find(list, &wanted));
}

TEST_F(List, EraseFreesAndClearHandsBack) {
  quillon_list_erase_at(list, 3);
  EXPECT_EQ(3u, quillon_list_size(list));
  quillon_list_erase_at(list, 1);
  EXPECT_EQ((std::vector<void *>{&values[1]}), freed);
  quillon_list_clear_at(list, 0);
  EXPECT_EQ(1u, freed.size());
  EXPECT_EQ((std::vector<int>{2}), contents());
  quillon_list_clear_at(list, 0);
  quillon_list_erase_at(list, 0);  // the list is empty now
  EXPECT_EQ(0u, quillon_list_size(list));
  EXPECT_EQ(0u, list->length);
  ASSERT_TRUE(quillon_list_push_back(list, &values[0]));
  EXPECT_EQ((std::vector<int>{0}), contents());
}

TEST_F(List, DeleteFreesAllAndLeavesItUsable) {
  quillon_list_delete(list);
  EXPECT_EQ((std::vector<void *>{&values[0], &values[1], &values[2]}), freed);
  EXPECT_EQ(nullptr, list->head);
  EXPECT_EQ(0u, list->length);
  ASSERT_TRUE(quillon_list_push_back(list, &values[2]));
  quillon_list_destroy(&list);
  EXPECT_EQ(4u, freed.size());
  EXPECT_EQ(nullptr, list);
}

TEST_F(List, RefusesNullElements) {
  EXPECT_FALSE(quillon_list_push_back(list, nullptr));
  EXPECT_EQ(3u, quillon_list_size(list));
}

TEST(ListNull, IsHarmless) {
  int value = 1;
  quillon_list *none = nullptr;
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_list_create(nullptr, nullptr, nullptr));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_list_default_create(nullptr));
  EXPECT_FALSE(quillon_list_push_back(none, &value));
  EXPECT_EQ(0u, quillon_list_size(none));
  EXPECT_EQ(nullptr, quillon_list_get_at(none, 0));
  EXPECT_EQ(-1, quillon_list_find(none, &value));
  quillon_list_erase_at(none, 0);
  quillon_list_delete(none);
  quillon_list_destroy(&none);
  quillon_list_destroy(nullptr);
}

#if QLK_HAS_OOM
TEST_F(List, SurvivesExhaustedMemory) {
  quillon_list *other = list;
  const oom::FailNth failing(1);
  EXPECT_EQ(QUILLON_STATUS_MALLOC_ERROR, quillon_list_create(&other, nullptr, nullptr));
  EXPECT_EQ(nullptr, other);
  oom::fail_nth(1);
  EXPECT_FALSE(quillon_list_push_back(list, &values[0]));
  EXPECT_EQ(3u, quillon_list_size(list));
}
#endif

}  // namespace

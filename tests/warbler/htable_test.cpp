#include <gtest/gtest.h>
#include <warbler/htable.h>

#include <map>
#include <string>
#include <vector>

namespace {

struct Cleaned {
  bool replace;
  std::string key;
  const void *value;
};
std::vector<Cleaned> cleaned;

void record_cleaning(bool replace, bool destroy_key, void *key, void *value) {
  EXPECT_TRUE(destroy_key);
  cleaned.push_back({replace, static_cast<const char *>(key), value});
}

class HtableTest : public testing::Test {
 protected:
  void SetUp() override {
    cleaned.clear();
    ASSERT_TRUE(wb_htable_create(0, wb_strcase_hashcode, wb_strcase_compare, &table_, nullptr));
  }
  void TearDown() override { wb_htable_destroy(table_); }
  wb_htable *table_ = nullptr;
  int one_ = 1, two_ = 2;
};

}  // namespace

TEST_F(HtableTest, ReplacingHandsTheOldKeyAndValueToTheCleanerAndKeepsTheNewOnes) {
  const std::string first = "Selector", second = "SELECTOR";
  ASSERT_TRUE(wb_htable_put(table_, first.c_str(), &one_, record_cleaning, nullptr));
  ASSERT_TRUE(wb_htable_put(table_, second.c_str(), &two_, record_cleaning, nullptr));
  ASSERT_EQ(1u, cleaned.size());
  EXPECT_TRUE(cleaned[0].replace);
  EXPECT_EQ("Selector", cleaned[0].key);
  EXPECT_EQ(&one_, cleaned[0].value);
  EXPECT_EQ(1u, wb_htable_get_count(table_));
  EXPECT_EQ(&two_, wb_htable_get(table_, "selector"));
  wb_htable_remove(table_, "sElEcToR");
  ASSERT_EQ(2u, cleaned.size());
  EXPECT_FALSE(cleaned[1].replace);
  EXPECT_EQ("SELECTOR", cleaned[1].key);
  wb_htable_remove(table_, "selector");
  EXPECT_EQ(2u, cleaned.size());
}

TEST_F(HtableTest, AgreesWithAMapThroughGrowthAndShrinking) {
  std::map<std::string, size_t> model;
  std::vector<std::string> keys;
  for (size_t i = 0; i < 5000; ++i) keys.push_back("key" + std::to_string(i));
  for (size_t i = 0; i < keys.size(); ++i) {
    ASSERT_TRUE(wb_htable_put(table_, keys[i].c_str(), reinterpret_cast<void *>(i + 1), nullptr, nullptr));
    model[keys[i]] = i + 1;
  }
  for (size_t i = 0; i < keys.size(); i += 3) {
    wb_htable_remove(table_, keys[i].c_str());
    model.erase(keys[i]);
  }
  for (const std::string &key : keys) {
    const auto found = model.find(key);
    EXPECT_EQ(reinterpret_cast<void *>(found == model.end() ? 0 : found->second), wb_htable_get(table_, key.c_str())) << key;
  }
  EXPECT_EQ(model.size(), wb_htable_get_count(table_));
  for (const std::string &key : keys) wb_htable_remove(table_, key.c_str());
  EXPECT_EQ(0u, wb_htable_get_count(table_));
}

TEST_F(HtableTest, WalkStopsWhenTheFunctionSaysSo) {
  for (const char *key : {"a", "b", "c"}) ASSERT_TRUE(wb_htable_put(table_, key, &one_, nullptr, nullptr));
  int seen = 0;
  const auto count_all = [](wb_htable *, const void *, void *, void *arg) { return ++*static_cast<int *>(arg), true; };
  EXPECT_TRUE(wb_htable_walk(table_, count_all, &seen, nullptr));
  EXPECT_EQ(3, seen);
  seen = 0;
  const auto stop_at_two = [](wb_htable *, const void *, void *, void *arg) { return ++*static_cast<int *>(arg) < 2; };
  wb_err err{WB_ERR_USER, nullptr, nullptr, nullptr, 0};
  EXPECT_FALSE(wb_htable_walk(table_, stop_at_two, &seen, &err));
  EXPECT_EQ(2, seen);
  EXPECT_EQ(WB_ERR_NONE, err.code);
}

TEST(Htable, DestroyCleansEveryEntryOnce) {
  cleaned.clear();
  wb_htable *table = nullptr;
  ASSERT_TRUE(wb_htable_create(3, wb_str_hashcode, wb_str_compare, &table, nullptr));
  for (const char *key : {"a", "A", "b"}) ASSERT_TRUE(wb_htable_put(table, key, nullptr, record_cleaning, nullptr));
  wb_htable_destroy(table);
  EXPECT_EQ(3u, cleaned.size());
}

TEST(Htable, IntegersAreKeysByTheirOwnValue) {
  wb_htable *table = nullptr;
  ASSERT_TRUE(wb_htable_create(7, wb_int_hashcode, wb_int_compare, &table, nullptr));
  for (uintptr_t i = 0; i < 100; ++i) {
    ASSERT_TRUE(wb_htable_put(table, reinterpret_cast<void *>(i), reinterpret_cast<void *>(i * i), nullptr, nullptr));
  }
  for (uintptr_t i = 0; i < 100; ++i)
    EXPECT_EQ(reinterpret_cast<void *>(i * i), wb_htable_get(table, reinterpret_cast<void *>(i)));
  wb_htable_destroy(table);
}

TEST(Htable, RefusesWhatItCannotDo) {
  wb_htable *table = nullptr;
  wb_err err{};
  EXPECT_FALSE(wb_htable_create(7, nullptr, wb_str_compare, &table, &err));
  EXPECT_EQ(WB_ERR_INVALID_ARG, err.code);
  EXPECT_FALSE(wb_htable_put(nullptr, "key", nullptr, nullptr, &err));
  EXPECT_EQ(nullptr, wb_htable_get(nullptr, "key"));
  EXPECT_EQ(0u, wb_htable_get_count(nullptr));
  wb_htable_destroy(nullptr);
}

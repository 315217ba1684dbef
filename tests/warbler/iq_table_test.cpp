#include "iq_table.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <set>
#include <vector>

#include "oom.h"

using namespace std::chrono_literals;

namespace {

void ignore(wb_dom_node *, void *) {}

wb::TrackedIq numbered(uintptr_t number) { return {ignore, reinterpret_cast<void *>(number)}; }
uintptr_t number_of(const wb::TrackedIq &iq) { return reinterpret_cast<uintptr_t>(iq.arg); }

std::vector<uintptr_t> take_expired(wb::IqTable &table, wb::IqTable::Clock::time_point now) {
  std::vector<uintptr_t> numbers;
  for (wb::TrackedIq iq{}; table.take_expired(now, iq);) numbers.push_back(number_of(iq));
  return numbers;
}

constexpr char kOwn[] = "alice@grid/qlk";

struct SenderCase {
  const char *name, *to, *from;
  bool accepted;
};

const SenderCase kSenderCases[] = {{"SameFull", "bob@grid/qlk", "bob@grid/qlk", true},
                                   {"OtherCase", "Bob@Grid/qlk", "bob@grid/qlk", true},
                                   {"OtherResource", "bob@grid/qlk", "bob@grid/x", false},
                                   {"OtherUser", "bob@grid/qlk", "mallory@grid/qlk", false},
                                   {"NoSender", "bob@grid/qlk", "", false},
                                   {"BareForFull", "bob@grid/qlk", "bob@grid", false},
                                   {"OwnAccountByServer", "", "", true},
                                   {"OwnAccountByBare", "", "alice@grid", true},
                                   {"OwnAccountByFull", "", "alice@grid/qlk", true},
                                   {"OwnAccountByOther", "", "mallory@grid/qlk", false},
                                   {"OwnBareByServer", "alice@grid", "", true},
                                   {"Service", "pubsub.grid", "pubsub.grid", true},
                                   {"ServiceLookalike", "pubsub.grid", "pubsub.grid.evil", false}};

class IqSender : public testing::TestWithParam<SenderCase> {};

}  // namespace

TEST_P(IqSender, OnlyTheAddresseeMayAnswer) {
  wb::IqTable table;
  const wb::IqId id = table.make_id();
  table.add(id, GetParam().to, numbered(7), 10s);
  wb::TrackedIq iq{};
  EXPECT_EQ(GetParam().accepted, table.take(id, GetParam().from, kOwn, iq));
  EXPECT_EQ(!GetParam().accepted, table.size() == 1);
}
INSTANTIATE_TEST_SUITE_P(Senders, IqSender, testing::ValuesIn(kSenderCases),
                         [](const auto &c) { return std::string(c.param.name); });

TEST(IqTable, AnAnswerIsTakenOnceAndOnlyByItsId) {
  wb::IqTable table;
  const wb::IqId first = table.make_id(), second = table.make_id();
  table.add(first, "b@g/r", numbered(1), 10s);
  table.add(second, "b@g/r", numbered(2), 10s);
  wb::TrackedIq iq{};
  for (const char *bad : {"", "1", "00000000000000000000000000000000", "zz000000000000000000000000000000"}) {
    EXPECT_FALSE(table.take(bad, "b@g/r", kOwn, iq)) << bad;
  }
  ASSERT_TRUE(table.take(second, "b@g/r", kOwn, iq));
  EXPECT_EQ(2u, number_of(iq));
  EXPECT_FALSE(table.take(second, "b@g/r", kOwn, iq));
  ASSERT_TRUE(table.take(first, "b@g/r", kOwn, iq));
  EXPECT_EQ(1u, number_of(iq));
  EXPECT_TRUE(table.empty());
}

TEST(IqTable, ExpiryGoesByDeadlineAcrossDifferentTimeouts) {
  wb::IqTable table;
  const auto now = wb::IqTable::Clock::now();
  table.add(table.make_id(), "b@g/r", numbered(1), 30s);
  table.add(table.make_id(), "b@g/r", numbered(2), 10s);
  table.add(table.make_id(), "b@g/r", numbered(3), 30s);
  table.add(table.make_id(), "b@g/r", numbered(4), 20s);
  EXPECT_LE(table.next_deadline(), now + 11s);
  EXPECT_TRUE(take_expired(table, now + 9s).empty());
  EXPECT_EQ((std::vector<uintptr_t>{2, 4}), take_expired(table, now + 25s));
  EXPECT_EQ((std::vector<uintptr_t>{1, 3}), take_expired(table, now + 60s));
  EXPECT_TRUE(table.empty());
}

TEST(IqTable, RemovingFromTheMiddleKeepsTheOrder) {
  wb::IqTable table;
  std::vector<wb::IqId> ids;
  for (uintptr_t i = 0; i < 100; ++i) {
    ids.push_back(table.make_id());
    table.add(ids.back(), "b@g/r", numbered(i), 10s);
  }
  wb::TrackedIq iq{};
  for (const size_t i : {size_t{0}, size_t{50}, size_t{99}, size_t{51}}) ASSERT_TRUE(table.take(ids[i], "b@g/r", kOwn, iq));
  const std::vector<uintptr_t> expired = take_expired(table, wb::IqTable::Clock::now() + 11s);
  ASSERT_EQ(96u, expired.size());
  EXPECT_TRUE(std::is_sorted(expired.begin(), expired.end()));
}

#if QLK_HAS_OOM
// However little memory there is, each IQ is taken out once.
TEST(IqTable, TakingOutNeedsNoMemory) {
  constexpr uintptr_t kIqs = 1000;  // so many that the table shrinks on the way
  const auto by_answer = [](wb::IqTable &table, std::vector<wb::IqId> &ids, wb::TrackedIq &iq) {
    if (ids.empty()) return false;
    EXPECT_TRUE(table.take(ids.back(), "b@g/r", kOwn, iq));
    ids.pop_back();
    return true;
  };
  const auto by_expiry = [](wb::IqTable &table, std::vector<wb::IqId> &, wb::TrackedIq &iq) {
    return table.take_expired(wb::IqTable::Clock::now() + 11s, iq);
  };
  const auto any = [](wb::IqTable &table, std::vector<wb::IqId> &, wb::TrackedIq &iq) { return table.take_any(iq); };
  using Take = std::function<bool(wb::IqTable &, std::vector<wb::IqId> &, wb::TrackedIq &)>;
  for (const Take &take_one : {Take(by_answer), Take(by_expiry), Take(any)}) {
    wb::IqTable table;
    std::vector<wb::IqId> ids;
    for (uintptr_t i = 0; i < kIqs; ++i) {
      ids.push_back(table.make_id());
      table.add(ids.back(), "b@g/r", numbered(i), 10s);
    }
    std::set<uintptr_t> taken;
    for (;;) {
      wb::TrackedIq iq{};
      {
        const oom::FailNth failing(1);
        if (!take_one(table, ids, iq)) break;
      }
      EXPECT_TRUE(taken.insert(number_of(iq)).second);
    }
    EXPECT_EQ(kIqs, taken.size());
    EXPECT_TRUE(table.empty());
  }
}
#endif

TEST(IqTable, IdsDoNotRepeat) {
  wb::IqTable table;
  std::set<std::string> ids;
  for (int i = 0; i < 10000; ++i) ids.emplace(table.make_id());
  EXPECT_EQ(10000u, ids.size());
}

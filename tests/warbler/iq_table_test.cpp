#include "iq_table.h"

#include <gtest/gtest.h>

#include <set>

using namespace std::chrono_literals;

namespace {

void ignore(wb_dom_node *, void *) {}

wb::TrackedIq numbered(uintptr_t number) { return {ignore, reinterpret_cast<void *>(number)}; }
uintptr_t number_of(const wb::TrackedIq &iq) { return reinterpret_cast<uintptr_t>(iq.arg); }

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
  const std::string id = table.make_id();
  table.add(id, GetParam().to, numbered(7), 10s);
  wb::TrackedIq iq{};
  EXPECT_EQ(GetParam().accepted, table.take(id, GetParam().from, kOwn, iq));
  EXPECT_EQ(!GetParam().accepted, table.size() == 1);
}
INSTANTIATE_TEST_SUITE_P(Senders, IqSender, testing::ValuesIn(kSenderCases),
                         [](const auto &c) { return std::string(c.param.name); });

TEST(IqTable, AnAnswerIsTakenOnceAndOnlyByItsId) {
  wb::IqTable table;
  const std::string first = table.make_id(), second = table.make_id();
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
  EXPECT_TRUE(table.take_expired(now + 9s).empty());
  const auto expired = table.take_expired(now + 25s);
  ASSERT_EQ(2u, expired.size());
  EXPECT_EQ(2u, number_of(expired[0]));
  EXPECT_EQ(4u, number_of(expired[1]));
  EXPECT_EQ(2u, table.take_expired(now + 60s).size());
  EXPECT_TRUE(table.empty());
}

TEST(IqTable, RemovingFromTheMiddleKeepsTheOrder) {
  wb::IqTable table;
  std::vector<std::string> ids;
  for (uintptr_t i = 0; i < 100; ++i) {
    ids.push_back(table.make_id());
    table.add(ids.back(), "b@g/r", numbered(i), 10s);
  }
  wb::TrackedIq iq{};
  for (const size_t i : {size_t{0}, size_t{50}, size_t{99}, size_t{51}}) ASSERT_TRUE(table.take(ids[i], "b@g/r", kOwn, iq));
  const auto expired = table.take_expired(wb::IqTable::Clock::now() + 11s);
  ASSERT_EQ(96u, expired.size());
  for (size_t i = 1; i < expired.size(); ++i) EXPECT_LT(number_of(expired[i - 1]), number_of(expired[i]));
}

TEST(IqTable, IdsDoNotRepeat) {
  wb::IqTable table;
  std::set<std::string> ids;
  for (int i = 0; i < 10000; ++i) ids.insert(table.make_id());
  EXPECT_EQ(10000u, ids.size());
}

#include <gtest/gtest.h>
#include <qlk/testpeer.hpp>

#include <thread>

namespace testpeer {
namespace {

using namespace std::chrono_literals;

TEST(Wait, EndsWithTheConditionOrTheDeadline) {
  Mailbox<int> mailbox;
  Latch latch(2);
  std::thread other([&] {
    mailbox.push(7);
    latch.count_down();
    latch.count_down();
  });
  EXPECT_EQ(7, mailbox.pop(10s));
  EXPECT_TRUE(latch.wait(10s));
  EXPECT_TRUE(eventually(10s, [&] { return mailbox.size() == 0; }));
  other.join();
  EXPECT_EQ(std::nullopt, mailbox.pop(1ms));
  EXPECT_FALSE(Latch().wait(1ms));
  EXPECT_FALSE(eventually(2ms, [] { return false; }));
}

}  // namespace
}  // namespace testpeer

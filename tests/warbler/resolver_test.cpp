// Lookups share a few threads, whatever the system's resolver does.
#include "resolver.h"

#include <gtest/gtest.h>
#include <netdb.h>

#include <atomic>
#include <memory>
#include <vector>

#include "stuck_resolver.h"
#include "test_client.h"
#include "wait_for.h"

namespace {

using test_support::Stuck;
using test_support::StuckResolver;

TEST(Lookup, ThreadsAreBoundedHoweverOftenADeadNameIsAskedFor) {
  StuckResolver &resolver = StuckResolver::get();
  auto stuck = std::make_unique<Stuck>();
  const unsigned asked_before = resolver.asked();
  test_support::LoopThread loop;
  const auto look_up_dead_name = [&] {
    return std::make_unique<wb::Lookup>(*loop.queue(), StuckResolver::kName, 5222,
                                        [](wb::AddressList, int) { ADD_FAILURE() << "a cancelled lookup"; });
  };
  std::vector<std::unique_ptr<wb::Lookup>> lookups;
  for (int i = 0; i < 100; ++i) lookups.push_back(look_up_dead_name());
  ASSERT_TRUE(test_support::wait_for([&] { return resolver.waiting() == wb::kLookupThreadsMax; }));
  lookups.clear();
  for (int i = 0; i < 100; ++i) look_up_dead_name();
  // One that has to wait for its turn comes through in the end; those that were cancelled before theirs are never asked for.
  std::atomic<int> result = -1;
  const wb::Lookup last(*loop.queue(), "localhost", 5222, [&](wb::AddressList list, int error) {
    EXPECT_EQ(error == 0, list != nullptr);
    result = error;
  });
  EXPECT_EQ(wb::kLookupThreadsMax, resolver.waiting());
  stuck.reset();
  ASSERT_TRUE(test_support::wait_for([&] { return result != -1; }));
  EXPECT_EQ(0, result);
  EXPECT_EQ(asked_before + wb::kLookupThreadsMax, resolver.asked());
}

TEST(Lookup, AFailureIsReported) {
  test_support::LoopThread loop;
  std::atomic<int> result = 0;
  const auto lookup =
      std::make_unique<wb::Lookup>(*loop.queue(), StuckResolver::kName, 5222, [&](wb::AddressList list, int error) {
        EXPECT_EQ(nullptr, list);
        result = error;
      });
  ASSERT_TRUE(test_support::wait_for([&] { return result != 0; }));
  EXPECT_EQ(EAI_AGAIN, result);
}

}  // namespace

// Lookups share a few threads, whatever the system's resolver does.
#include "resolver.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "test_client.h"
#include "wait_for.h"

namespace {

// Takes the place of a name server that never answers, for one name.
class StuckResolver {
 public:
  static constexpr char kName[] = "stuck.test";

  static StuckResolver &get() {
    static StuckResolver resolver;
    return resolver;
  }
  void hold() { set(true); }
  void release() { set(false); }
  void wait() {
    std::unique_lock lock(mutex_);
    ++asked_;
    ++waiting_;
    changed_.wait(lock, [this] { return !held_; });
    --waiting_;
  }
  unsigned waiting() {
    const std::lock_guard lock(mutex_);
    return waiting_;
  }
  unsigned asked() {
    const std::lock_guard lock(mutex_);
    return asked_;
  }

 private:
  void set(bool held) {
    const std::lock_guard lock(mutex_);
    held_ = held;
    changed_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  bool held_ = false;
  unsigned waiting_ = 0, asked_ = 0;
};

}  // namespace

extern "C" int getaddrinfo(const char *node, const char *service, const addrinfo *hints, addrinfo **list) {
  using Function = int (*)(const char *, const char *, const addrinfo *, addrinfo **);
  static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "getaddrinfo"));
  if (node != nullptr && std::strcmp(node, StuckResolver::kName) == 0) {
    StuckResolver::get().wait();
    return EAI_AGAIN;
  }
  return real(node, service, hints, list);
}

namespace {

// While it lives, the name server is stuck.
struct Stuck {
  Stuck() { StuckResolver::get().hold(); }
  ~Stuck() { StuckResolver::get().release(); }
  Stuck(const Stuck &) = delete;
  Stuck &operator=(const Stuck &) = delete;
};

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

// A name server that never answers, for one name. Every program that uses this has its getaddrinfo replaced.
#pragma once

#include <condition_variable>
#include <mutex>

namespace test_support {

class StuckResolver {
 public:
  static constexpr char kName[] = "stuck.test";

  static StuckResolver &get();

  // Those who ask for the name wait from here on; all of them go on, and learn that it cannot be had now.
  void hold() { set(true); }
  void release() { set(false); }
  void wait();
  // Look-ups of the name: those that wait now, and all that there were.
  unsigned waiting();
  unsigned asked();

 private:
  void set(bool held);

  std::mutex mutex_;
  std::condition_variable changed_;
  bool held_ = false;
  unsigned waiting_ = 0, asked_ = 0;
};

// While it lives, the name server is stuck.
struct Stuck {
  Stuck() { StuckResolver::get().hold(); }
  ~Stuck() { StuckResolver::get().release(); }
  Stuck(const Stuck &) = delete;
  Stuck &operator=(const Stuck &) = delete;
};

}  // namespace test_support

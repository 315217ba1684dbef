// A line on the terminal that tells how far a transfer is: a bar, the items, the rate, the time. Nothing where there is no
// terminal.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

namespace tool {

class Progress {
 public:
  // expected 0: nobody knows how many items will come. Drawn only where is_shown.
  Progress(uint64_t expected, bool is_shown);
  ~Progress();
  Progress(const Progress &) = delete;
  Progress &operator=(const Progress &) = delete;

  void add() { items_.fetch_add(1, std::memory_order_relaxed); }
  uint64_t items() const { return items_; }

  // Wipes the line and draws no more.
  void end();

  // "1 234 567 items in 12.3 s, 100 371 a second".
  std::string summary() const;

 private:
  using Clock = std::chrono::steady_clock;

  void draw_until_end();
  std::string line(size_t width) const;
  double seconds() const { return std::chrono::duration<double>(Clock::now() - begin_).count(); }

  const uint64_t expected_;
  const Clock::time_point begin_ = Clock::now();
  std::atomic<uint64_t> items_{0};
  std::mutex mutex_;
  std::condition_variable ending_;
  bool ended_ = false;
  std::thread painter_;
};

// 1234567 as "1 234 567".
std::string grouped(uint64_t number);

}  // namespace tool

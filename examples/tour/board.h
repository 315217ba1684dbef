// What the library's threads tell the tour's: notes, and waiting for them.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

namespace tour {

inline constexpr std::chrono::seconds kPatience{20};

class Board {
 public:
  void note(const std::string &text) {
    const std::lock_guard lock(mutex_);
    notes_.push_back(text);
    changed_.notify_all();
  }
  size_t count() {
    const std::lock_guard lock(mutex_);
    return notes_.size();
  }
  // The notes, once there are so many; ends the program when they do not come.
  std::vector<std::string> wait_for(size_t count) {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, kPatience, [&] { return notes_.size() >= count; })) {
      std::fprintf(stderr, "waited in vain: %zu of %zu came\n", notes_.size(), count);
      std::exit(1);
    }
    return notes_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> notes_;
};

}  // namespace tour

// Waiting for what other threads bring about: always for a condition, always with a deadline.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

namespace testpeer {

// Asks the predicate every millisecond: true as soon as it holds, false when it still does not at the deadline. For conditions
// that nobody announces; where somebody can, a Mailbox or a Latch wakes the waiter at once.
template <typename Predicate>
bool eventually(std::chrono::milliseconds deadline, Predicate &&predicate) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (!predicate()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// A queue between threads: any thread pushes, any thread pops.
template <typename T>
class Mailbox {
 public:
  void push(T item) {
    const std::lock_guard lock(mutex_);
    items_.push_back(std::move(item));
    changed_.notify_one();
  }

  // The oldest item; nothing when none came before the deadline.
  std::optional<T> pop(std::chrono::milliseconds deadline) {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, deadline, [this] { return !items_.empty(); })) return std::nullopt;
    std::optional<T> item(std::move(items_.front()));
    items_.pop_front();
    return item;
  }

  size_t size() const {
    const std::lock_guard lock(mutex_);
    return items_.size();
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<T> items_;
};

// Opens once it was counted down as often as was said; it stays open.
class Latch {
 public:
  explicit Latch(size_t count = 1) : count_(count) {}

  void count_down() {
    const std::lock_guard lock(mutex_);
    if (count_ > 0) --count_;
    if (count_ == 0) opened_.notify_all();
  }

  // False when it is still closed at the deadline.
  bool wait(std::chrono::milliseconds deadline) {
    std::unique_lock lock(mutex_);
    return opened_.wait_for(lock, deadline, [this] { return count_ == 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable opened_;
  size_t count_;
};

}  // namespace testpeer

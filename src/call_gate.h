// Counts the calls that are under way, and lets none begin while it is closed.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "monitor_wait.h"

namespace qlk {

class CallGate {
 public:
  CallGate() = default;
  CallGate(const CallGate &) = delete;
  CallGate &operator=(const CallGate &) = delete;

  // One call, for the length of its scope; false when it must not be made.
  class Pass {
   public:
    explicit Pass(CallGate &gate) : gate_(gate), admitted_((gate.state_.fetch_add(kCall) & kClosed) == 0) {}
    ~Pass() { gate_.leave(); }
    Pass(const Pass &) = delete;
    Pass &operator=(const Pass &) = delete;
    explicit operator bool() const { return admitted_; }

   private:
    CallGate &gate_;
    const bool admitted_;
  };

  void close() { state_.fetch_or(kClosed); }
  // Whoever waits for the calls waits no more: there may always be one from now on.
  void open() {
    const std::lock_guard lock(mutex_);
    state_.fetch_and(~kClosed);
    changed_.notify_all();
  }

  bool is_closed() const { return (state_ & kClosed) != 0; }

  // Waits until no call is under way; false when one still is at the deadline, or when the gate is opened meanwhile.
  bool wait_until_empty(SteadyClock::time_point deadline) {
    std::unique_lock lock(mutex_);
    changed_.wait_until(lock, deadline, [this] { return is_left_ || !is_closed() || state_ < kCall; });
    return is_left_ || state_ < kCall;
  }

  // From now on nobody waits.
  void give_up_waiting() {
    const std::lock_guard lock(mutex_);
    is_left_ = true;
    changed_.notify_all();
  }

 private:
  static constexpr size_t kClosed = 1, kCall = 2;

  // Only the last call of a closed gate has somebody to tell.
  void leave() {
    if (state_.fetch_sub(kCall) != (kCall | kClosed)) return;
    const std::lock_guard lock(mutex_);
    changed_.notify_all();
  }

  std::atomic<size_t> state_ = 0;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool is_left_ = false;  // under mutex_
};

}  // namespace qlk

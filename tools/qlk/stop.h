// Ctrl-C and its like. The signals never interrupt a thread: one thread waits for them and tells the others.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "descriptor.h"

namespace tool {

class Stop {
 public:
  // Takes SIGINT, SIGTERM and SIGHUP over, those that were ignored excepted. Made before any other thread, since those that start
  // later must not get the signals either.
  Stop();
  ~Stop();
  Stop(const Stop &) = delete;
  Stop &operator=(const Stop &) = delete;

  bool requested() const { return signal_ != 0; }
  // The signal that came; 0 for none.
  int signal() const { return signal_; }
  // Readable from the request on, for poll.
  int descriptor() const { return requested_.get(); }
  // Throws Stopped once the end was requested.
  void check() const;
  // Waits; true when the end was requested meanwhile.
  bool wait_for(std::chrono::milliseconds time) const;

  // Sets what makes a call that blocks return. It runs on a thread of its own when the end is requested, and again every so often
  // until it is taken back with nullptr, because the first time may have been too early.
  void set_action(std::function<void()> action);

  // Ends the process although something still blocks: how long the end may take after the request. A second signal ends it at
  // once.
  void set_patience(std::chrono::milliseconds patience) { patience_ms_ = static_cast<int>(patience.count()); }

 private:
  void watch();
  void act();
  [[noreturn]] void end_now() const;

  Descriptor signals_, requested_, quit_;
  std::atomic<int> signal_{0};
  std::atomic<int> patience_ms_{5000};
  std::mutex mutex_;
  std::condition_variable changed_;
  std::function<void()> action_;
  bool acting_ = false, quitting_ = false;
  std::thread watcher_, actor_;
};

}  // namespace tool

// Waiting on a monitor to the end: until it is notified, whatever wakes the thread in between, against a clock that nobody sets.
#pragma once

#include <cerrno>
#include <chrono>
#include <ctime>
#include <optional>

#include "pthread_lock.h"
#include "quillon.h"

namespace qlk {

using SteadyClock = std::chrono::steady_clock;

inline timespec to_timespec(SteadyClock::time_point when) {
  const auto nanoseconds = when.time_since_epoch().count();
  return {static_cast<time_t>(nanoseconds / 1'000'000'000), static_cast<long>(nanoseconds % 1'000'000'000)};
}

// True when the monitor is notified, false when the deadline passes before; without a deadline it waits as long as it takes.
inline bool wait_notified(quillon_monitor &monitor, std::optional<SteadyClock::time_point> deadline) {
  const PthreadLock lock(monitor.mutex);
  while (!monitor.is_notified) {
    if (!deadline) {
      pthread_cond_wait(&monitor.cond, &monitor.mutex);
      continue;
    }
    const timespec until = to_timespec(*deadline);
    if (pthread_cond_clockwait(&monitor.cond, &monitor.mutex, CLOCK_MONOTONIC, &until) == ETIMEDOUT) return monitor.is_notified;
  }
  return true;
}

}  // namespace qlk

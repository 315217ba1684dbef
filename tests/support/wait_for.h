// Waiting for what another thread brings about.
#pragma once

#include <chrono>
#include <thread>

namespace test_support {

// True as soon as the condition holds; false when it does not within the time, which is only a bound for a test that fails.
template <typename Condition>
bool wait_for(Condition &&condition, std::chrono::milliseconds at_most = std::chrono::seconds(20)) {
  const auto deadline = std::chrono::steady_clock::now() + at_most;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace test_support

// Many threads use the library all at once, on the same connections, while their servers fail at random. Every call returns in
// time and with one of its statuses, every answer is that to the question, every asynchronous query is called back once, nothing
// is called back for a connection that is gone, and in the end all works and nothing is left behind.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <thread>

#include "operations.h"

namespace {

using namespace std::chrono_literals;

unsigned number_from(const char *variable, unsigned otherwise) {
  const char *text = std::getenv(variable);
  return text != nullptr && *text != '\0' ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : otherwise;
}

size_t count_entries(const char *folder) {
  size_t count = 0;
  for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator(folder)) ++count;
  return count;
}

WB_PRINTF(1, 0) int write_to_nobody(const char *format, va_list args) {
  char text[1000];
  return std::vsnprintf(text, sizeof text, format, args);
}

TEST(Stress, ManyThreadsAndRandomFaults) {
  const unsigned seed = number_from("QLK_STRESS_SEED", std::random_device()());
  const std::chrono::seconds time(number_from("QLK_STRESS_SECONDS", 5));
  std::cout << "QLK_STRESS_SEED=" << seed << std::endl;
  quillon_log_set_callback(write_to_nobody);
  quillon_log_set_level(QUILLON_LOG_NONE);
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_init());
  stress::Identities::get();
  std::thread([] {}).join();  // with the first thread a sanitizer starts one of its own
  const size_t descriptors = count_entries("/proc/self/fd"), threads = count_entries("/proc/self/task");
  {
    stress::Stress stress(seed);
    stress.run(seed, time);
    stress.expect_recovery();
    stress.expect_restart();
    stress.report();
  }
  EXPECT_TRUE(testpeer::eventually(
      30s, [&] { return count_entries("/proc/self/fd") == descriptors && count_entries("/proc/self/task") == threads; }))
      << count_entries("/proc/self/fd") << " descriptors and " << count_entries("/proc/self/task") << " threads, at first "
      << descriptors << " and " << threads;
}

}  // namespace

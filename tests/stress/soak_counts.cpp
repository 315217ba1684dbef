#include "soak_counts.h"

#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>

namespace soak {

namespace {

size_t count_entries(const char *folder) {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator()));
}

size_t used_kib() { return mallinfo2().uordblks / 1024; }

size_t resident_kib() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::strtoul(line.c_str() + 6, nullptr, 10);
  }
  return 0;
}

}  // namespace

void Latencies::add(Clock::duration latency) {
  const std::lock_guard lock(mutex_);
  if (count_ == values_.size()) return;
  values_[count_++] = static_cast<uint32_t>(std::chrono::duration_cast<std::chrono::microseconds>(latency).count());
}

Latencies::Summary Latencies::take() {
  const std::lock_guard lock(mutex_);
  if (count_ == 0) return {};
  const auto at = [this](size_t place) {
    std::nth_element(values_.begin(), values_.begin() + static_cast<ptrdiff_t>(place),
                     values_.begin() + static_cast<ptrdiff_t>(count_));
    return values_[place];
  };
  const Summary summary = {at(count_ / 2), at(count_ * 99 / 100)};
  count_ = 0;
  return summary;
}

void complain(const char *what, int detail) {
  ++counts.wrong;
  std::fprintf(stderr, "soak_load: %s (%d)\n", what, detail);
}

void require(bool came, const char *what) {
  if (!came) throw std::runtime_error(std::string("did not come: ") + what);
}

void pause_a_little() { std::this_thread::sleep_for(10ms); }  // Delay: how often a condition is looked at again

bool Pace::wait() {
  while (!phase.is_over && (counts.answers < next_ || !phase.is_calm)) pause_a_little();
  next_ = counts.answers + answers_;
  return !phase.is_over;
}

void note_low() {
  size_t low = used_kib();
  for (int i = 0; i < 20; ++i) {
    pause_a_little();
    low = std::min(low, used_kib());
  }
  counts.low_kib = low;
}

void print_sample(double seconds, size_t queue_highest) {
  const Latencies::Summary sync = sync_latencies.take(), async = async_latencies.take();
  std::printf("%.1f %d %zu %zu %zu %zu %u %u %u", seconds, phase.is_calm ? 1 : 0, resident_kib(), used_kib(),
              count_entries("/proc/self/fd"), count_entries("/proc/self/task"), sync.median, sync.high, async.median);
  for (const auto *count : {&counts.answers, &counts.async_answers, &counts.disturbed, &counts.refused, &counts.wrong,
                            &counts.sent, &counts.received, &counts.lost, &counts.repeated, &counts.documents, &counts.items,
                            &counts.restarts, &counts.visits, &counts.drains, &counts.renewals, &counts.returns}) {
    std::printf(" %lu", count->load());
  }
  std::printf(" %zu %zu\n", counts.low_kib.load(), queue_highest);
  std::fflush(stdout);
}

}  // namespace soak

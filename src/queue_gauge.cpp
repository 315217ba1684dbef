#include "queue_gauge.h"

#include <algorithm>
#include <cinttypes>

#include "guard.h"

namespace qlk {

namespace {

size_t kibibytes(size_t bytes) { return (bytes + 1023) / 1024; }

void raise_to(std::atomic<size_t> &highest, size_t value) {
  size_t known = highest.load(std::memory_order_relaxed);
  while (value > known && !highest.compare_exchange_weak(known, value, std::memory_order_relaxed)) {
  }
}

}  // namespace

void QueueGauge::set_limits(const Limits &limits) {
  // A full queue is looked at too, and so there is one number to compare with.
  warning_.store(std::min(limits.warning, limits.bound), std::memory_order_relaxed);
  warning_bytes_.store(std::min(limits.warning_bytes, limits.bound_bytes), std::memory_order_relaxed);
  bound_.store(limits.bound, std::memory_order_relaxed);
  bound_bytes_.store(limits.bound_bytes, std::memory_order_relaxed);
}

QueueGauge::Entry QueueGauge::enter(size_t bytes) {
  Entry entry = {.bytes = bytes,
                 .depth = depth_.fetch_add(1, std::memory_order_relaxed) + 1,
                 .all_bytes = bytes_.fetch_add(bytes, std::memory_order_relaxed) + bytes,
                 .is_high = false};
  entry.is_high = is_high(entry.depth, entry.all_bytes);
  if (!entry.is_high || !is_bounded()) note_highest(entry);
  return entry;
}

bool QueueGauge::is_high(size_t depth, size_t bytes) const {
  return depth >= warning_.load(std::memory_order_relaxed) || bytes >= warning_bytes_.load(std::memory_order_relaxed);
}

void QueueGauge::note_highest(const Entry &entry) {
  raise_to(highest_, entry.depth);
  raise_to(highest_bytes_, entry.all_bytes);
}

bool QueueGauge::fits(const Entry &entry, Admission admission) const {
  const auto is_within = [admission](size_t waiting, size_t bound, size_t reserve) {
    return waiting - (admission == Admission::kNeeded ? std::min(waiting, reserve) : 0) <= bound;
  };
  return is_within(entry.depth, bound_.load(std::memory_order_relaxed), kReserve) &&
         (entry.depth == 1 || is_within(entry.all_bytes, bound_bytes_.load(std::memory_order_relaxed), kReserveBytes));
}

// Once for each crossing.
void QueueGauge::tell_of(const Entry &entry) {
  if (!raise(Alarm::kHigh)) return;
  wb_log(WB_LOG_WARN, "%zu %s, which is too slow for them; they take %zu KiB", entry.depth, content_, kibibytes(entry.all_bytes));
}

void QueueGauge::log_if_high() {
  const Entry now = {.bytes = 0, .depth = depth(), .all_bytes = bytes(), .is_high = true};
  if (is_high(now.depth, now.all_bytes)) tell_of(now);
}

bool QueueGauge::log_and_admit(const Entry &entry, Admission admission) {
  if (fits(entry, admission)) {
    note_highest(entry);
    tell_of(entry);
    return true;
  }
  forget(1, entry.bytes);
  dropped_.fetch_add(1, std::memory_order_relaxed);
  if (raise(Alarm::kFull))
    wb_log(WB_LOG_WARN, "%zu %s, and take %zu KiB, which is as much as may be: further ones are dropped", entry.depth - 1,
           content_, kibibytes(entry.all_bytes - entry.bytes));
  return false;
}

bool QueueGauge::leave(size_t bytes) {
  const size_t depth = depth_.fetch_sub(1, std::memory_order_relaxed) - 1;
  const size_t bytes_left = bytes_.fetch_sub(bytes, std::memory_order_relaxed) - bytes;
  return alarm_.load(std::memory_order_relaxed) != Alarm::kNone && depth <= warning_.load(std::memory_order_relaxed) / 2 &&
         bytes_left <= warning_bytes_.load(std::memory_order_relaxed) / 2;
}

// The queue has come down to half of what is worth a warning: the next crossing is told again.
void QueueGauge::calm() {
  if (alarm_.exchange(Alarm::kNone, std::memory_order_relaxed) == Alarm::kNone) return;
  const quillon_handler_queue_usage now = usage();
  wb_log(WB_LOG_INFO, "only %zu %s now; %zu did at most, and %" PRIu64 " were dropped", now.depth, content_, now.highest,
         now.dropped);
}

void QueueGauge::forget(size_t stanzas, size_t bytes) {
  depth_.fetch_sub(stanzas, std::memory_order_relaxed);
  bytes_.fetch_sub(bytes, std::memory_order_relaxed);
}

quillon_handler_queue_usage QueueGauge::usage() const {
  return {.depth = depth(),
          .highest = highest_.load(std::memory_order_relaxed),
          .dropped = dropped_.load(std::memory_order_relaxed),
          .bytes = bytes(),
          .highest_bytes = highest_bytes_.load(std::memory_order_relaxed)};
}

// True for the first to tell.
bool QueueGauge::raise(Alarm alarm) {
  Alarm told = alarm_.load(std::memory_order_relaxed);
  while (told < alarm) {
    if (alarm_.compare_exchange_weak(told, alarm, std::memory_order_relaxed)) return true;
  }
  return false;
}

}  // namespace qlk

// What waits for a handler of the application, in stanzas and in bytes: counted, warned of in the log, and bounded.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "quillon.h"

namespace qlk {

class QueueGauge {
 public:
  // What may wait. Each is at least 1.
  struct Limits {
    size_t warning = SIZE_MAX;  // so many stanzas are worth a warning
    size_t bound = SIZE_MAX;    // more are not taken, but for those that are needed
    size_t warning_bytes = SIZE_MAX;
    size_t bound_bytes = SIZE_MAX;  // a stanza that finds nothing waiting is taken, whatever its size
  };

  // A stanza that is needed is still taken when the queue is full, until this much more than the bounds waits.
  enum class Admission { kBounded, kNeeded };
  static constexpr size_t kReserve = 1000;
  static constexpr size_t kReserveBytes = size_t{64} << 20;

  // Says in the log what waits here for what; the text is kept by address.
  explicit QueueGauge(const char *content) : content_(content) {}

  // Any thread; what waits already is not looked at.
  void set_limits(const Limits &limits);

  // What waited once a stanza had come, with that.
  struct Entry {
    size_t bytes;  // its own
    size_t depth, all_bytes;
    bool is_high;  // log_and_admit is to be asked
  };
  // One more waits. Any thread.
  Entry enter(size_t bytes);
  // Logs what is new, and tells whether it may stay. When not it is counted as dropped and waits no longer. Any thread, without
  // a lock, since the log may be the application's.
  bool log_and_admit(const Entry &entry, Admission admission = Admission::kBounded);
  // Logs that too much waits now, unless the log has been told. Any thread, without a lock.
  void log_if_high();
  // One waits no longer. True when the log is to be told so, by calm.
  bool leave(size_t bytes);
  void calm();
  // Some wait no longer, of which nothing is logged.
  void forget(size_t stanzas, size_t bytes);

  size_t depth() const { return depth_.load(std::memory_order_relaxed); }
  bool is_bounded() const {
    return bound_.load(std::memory_order_relaxed) != SIZE_MAX || bound_bytes_.load(std::memory_order_relaxed) != SIZE_MAX;
  }
  quillon_handler_queue_usage usage() const;

 private:
  // What the log has been told since the queue was last far below its limits.
  enum class Alarm { kNone, kHigh, kFull };

  size_t bytes() const { return bytes_.load(std::memory_order_relaxed); }
  bool is_high(size_t depth, size_t bytes) const;
  bool fits(const Entry &entry, Admission admission) const;
  void note_highest(const Entry &entry);
  void tell_of(const Entry &entry);
  bool raise(Alarm alarm);

  const char *const content_;
  std::atomic<size_t> depth_ = 0, highest_ = 0;
  std::atomic<size_t> bytes_ = 0, highest_bytes_ = 0;
  std::atomic<uint64_t> dropped_ = 0;
  std::atomic<size_t> warning_ = SIZE_MAX, warning_bytes_ = SIZE_MAX;  // a full queue is worth it too
  std::atomic<size_t> bound_ = SIZE_MAX, bound_bytes_ = SIZE_MAX;
  std::atomic<Alarm> alarm_ = Alarm::kNone;
};

}  // namespace qlk

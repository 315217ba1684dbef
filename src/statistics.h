// What a connection counts of its queries and of its time, to be read while both go on. All of it on any thread.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <mutex>

#include "monitor_wait.h"
#include "quillon.h"
#include "quillon_wb_client.h"

namespace qlk {

class QueryStatistics {
 public:
  enum class Outcome { answered, refused, not_sent, timed_out, unknown };
  static constexpr size_t kOutcomes = 5;
  enum class Kind { synchronous, asynchronous };

  // A query begins; its end has to follow.
  void begin() { raise_highest(in_flight_.fetch_add(1, std::memory_order_relaxed) + 1); }
  // time is looked at when it was answered.
  void end(Kind kind, Outcome outcome, SteadyClock::duration time = {});
  // One that could not begin.
  void count_not_sent(Kind kind) { counter(kind, Outcome::not_sent).fetch_add(1, std::memory_order_relaxed); }

  void read(quillon_statistics &statistics) const;

 private:
  using Counter = std::atomic<uint64_t>;
  using Counters = std::array<Counter, kOutcomes>;

  Counter &counter(Kind kind, Outcome outcome) {
    return (kind == Kind::synchronous ? synchronous_ : asynchronous_)[static_cast<size_t>(outcome)];
  }
  void raise_highest(size_t in_flight) {
    size_t highest = highest_.load(std::memory_order_relaxed);
    while (in_flight > highest && !highest_.compare_exchange_weak(highest, in_flight, std::memory_order_relaxed)) {
    }
  }

  Counters synchronous_ = {}, asynchronous_ = {};
  std::atomic<size_t> in_flight_ = 0, highest_ = 0;
  std::array<Counter, QUILLON_LATENCY_BUCKETS> latency_ = {};
  Counter latency_sum_ = 0;
};

// A synchronous query, counted from its making until its end.
class CountedQuery {
 public:
  explicit CountedQuery(QueryStatistics &statistics) : statistics_(statistics), begun_(SteadyClock::now()) {
    statistics_.begin();
  }
  ~CountedQuery() {
    statistics_.end(QueryStatistics::Kind::synchronous, outcome_,
                    outcome_ == Outcome::answered ? SteadyClock::now() - begun_ : SteadyClock::duration());
  }
  CountedQuery(const CountedQuery &) = delete;
  CountedQuery &operator=(const CountedQuery &) = delete;

  // A publisher was to be asked, and this came of it; another may follow.
  void end_attempt(QUILLON_STATUS status, SendFate fate);

 private:
  using Outcome = QueryStatistics::Outcome;

  QueryStatistics &statistics_;
  const SteadyClock::time_point begun_;
  Outcome outcome_ = Outcome::not_sent;
};

// The sessions, and how long the connection was in which phase. Changes are rare, and the lock is of this object alone.
class PhaseStatistics {
 public:
  void count_attempt() { attempts_.fetch_add(1, std::memory_order_relaxed); }
  void count_session() { sessions_.fetch_add(1, std::memory_order_relaxed); }
  void enter(QUILLON_CONNECTION_PHASE phase);

  void read(quillon_statistics &statistics) const;

 private:
  std::atomic<uint64_t> attempts_ = 0, sessions_ = 0;

  mutable std::mutex mutex_;  // guards what follows
  QUILLON_CONNECTION_PHASE phase_ = QUILLON_CONNECTION_PHASE_DOWN;
  SteadyClock::time_point since_ = SteadyClock::now();
  std::array<SteadyClock::duration, QUILLON_CONNECTION_PHASE_MAX> spent_ = {};
  uint64_t joined_ = 0;
};

}  // namespace qlk

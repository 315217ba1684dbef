// What a soak counts, how far it has come, and what the process holds.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>

namespace soak {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::minutes kPatience{2};  // for what has to come in a good run

struct Counts {
  std::atomic<uint64_t> answers = 0, async_answers = 0;  // right ones: all, and those to asynchronous queries
  std::atomic<uint64_t> disturbed = 0, refused = 0;      // queries that failed over a restart of the server, or over a drain
  std::atomic<uint64_t> wrong = 0;                       // whatever else was not as it should be
  std::atomic<uint64_t> sent = 0, received = 0;          // notifications; each is received by all members
  std::atomic<uint64_t> lost = 0, repeated = 0;          // of the received ones
  std::atomic<uint64_t> documents = 0, items = 0;        // of the bulk service
  std::atomic<uint64_t> restarts = 0, visits = 0, drains = 0, renewals = 0;
  std::atomic<uint64_t> returns = 0;  // of members, brought about by a reconnection
  std::atomic<size_t> low_kib = 0;    // in use at the last restart, when no session was up
};
inline Counts counts;

// What the threads have to know of each other.
struct Phase {
  std::atomic<bool> is_over = false;
  std::atomic<bool> may_ask = false;
  std::atomic<bool> is_calm = false;                    // all members are there, and all threads do what they are meant to
  std::atomic<uint64_t> upheavals = 0, departures = 0;  // odd while the server is being restarted, and while the asker is away
};
inline Phase phase;

// When something was begun, and so what its failure may be put down to.
class Moment {
 public:
  bool is_of_restart() const { return has_passed(phase.upheavals, upheavals_); }
  bool is_of_drain() const { return has_passed(phase.departures, departures_); }

 private:
  static bool has_passed(const std::atomic<uint64_t> &now, uint64_t then) { return then % 2 == 1 || now != then; }
  uint64_t upheavals_ = phase.upheavals, departures_ = phase.departures;
};

// The latencies of one second.
class Latencies {
 public:
  void add(Clock::duration latency);

  struct Summary {
    uint32_t median = 0, high = 0;  // microseconds; of a hundred, the ninety-ninth
  };
  Summary take();

 private:
  std::mutex mutex_;
  std::array<uint32_t, 65536> values_{};  // its memory is there from the beginning on
  size_t count_ = 0;
};
inline Latencies sync_latencies, async_latencies;

// Tells the standard error what went wrong, and counts it.
void complain(const char *what, int detail);

// Throws unless it came: a run in which something does not come to an end has failed.
void require(bool came, const char *what);

// For as long as a condition needs not be looked at again.
void pause_a_little();

// Until so many queries more have been answered: what goes with that pace keeps its share of the work on any machine.
class Pace {
 public:
  explicit Pace(uint64_t answers) : answers_(answers) {}
  // False when the run is over.
  bool wait();

 private:
  const uint64_t answers_;
  uint64_t next_ = 0;
};

// Notes the least memory that is in use during a fraction of a second.
void note_low();

// One line on the standard output: what the process holds, and how far it has come.
void print_sample(double seconds, size_t queue_highest);

}  // namespace soak

// Clocks, counters of the process, and the result that a program prints.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace bench {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point begun);
// CPU time of all threads of this process so far.
double cpu_seconds();
// The resident set, now and at its largest, and what else the process holds.
long resident_kib();
long peak_resident_kib();
long count_threads();
long count_descriptors();

// The value below which that share (0 to 1) of the values lies; 0 when there are none.
double percentile(std::vector<double> values, double share);

// What happened between its making and its end: wall and CPU time.
class Span {
 public:
  Span() : begun_(Clock::now()), cpu_begun_(cpu_seconds()) {}
  double seconds() const { return seconds_since(begun_); }
  double cpu() const { return cpu_seconds() - cpu_begun_; }

 private:
  Clock::time_point begun_;
  double cpu_begun_;
};

// How long each round trip takes, with one request in flight; with more nothing is timed, since nobody wants to know it.
class RoundTrips {
 public:
  RoundTrips(long requests, long in_flight) : timed_(in_flight == 1) {
    if (timed_) microseconds_.reserve(static_cast<size_t>(requests));
  }
  void begin() {
    if (timed_) begun_ = Clock::now();
  }
  void end() {
    if (timed_) microseconds_.push_back(seconds_since(begun_) * 1e6);
  }
  const std::vector<double> &microseconds() const { return microseconds_; }

 private:
  const bool timed_;
  Clock::time_point begun_;
  std::vector<double> microseconds_;
};

// One line of JSON with the figures of a run, for the driver to read.
class Result {
 public:
  Result &add(const std::string &name, double value);
  void print() const;

 private:
  std::string fields_;
};

// Requests that were sent and answered: their number, rate, CPU time each, and percentiles of the times given, if any.
void print_requests(const Span &span, long requests, const std::vector<double> &microseconds);

// Tells what failed on standard error and ends the program with 1.
[[noreturn]] void fail(const std::string &what);

}  // namespace bench

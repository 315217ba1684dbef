// What a connection has counted: quillon::connection_statistics, which quillon::connection reads.
#ifndef QUILLON_STATISTICS_HPP
#define QUILLON_STATISTICS_HPP

#include <quillon.h>

#include <chrono>
#include <cstdint>
#include <optional>

namespace quillon {

// The statistics of quillon_statistics.h at one moment.
struct connection_statistics : quillon_statistics {
  // The time within which that part of the answered queries, from 0 to 1, was answered, rounded up to a power of two
  // microseconds; nothing when none was, for another part, and for what took longer than the last bucket.
  std::optional<std::chrono::microseconds> latency_within(double part) const noexcept {
    const uint64_t end = quillon_statistics_latency_quantile(this, part);
    if (end == 0 || end == UINT64_MAX) return std::nullopt;
    return std::chrono::microseconds(end);
  }

  // The time spent in the phase; none in one that there is not.
  std::chrono::milliseconds time_in(QUILLON_CONNECTION_PHASE which) const noexcept {
    return std::chrono::milliseconds(which < QUILLON_CONNECTION_PHASE_MAX ? phase_milliseconds[which] : 0);
  }
};

}  // namespace quillon

#endif

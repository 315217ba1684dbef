#include "statistics.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstring>

#include "connection_private.h"
#include "guard.h"
#include "quillon_notification.h"
#include "quillon_query.h"

namespace qlk {

namespace {

template <typename Unit>
uint64_t whole(SteadyClock::duration time) {
  return static_cast<uint64_t>(std::max<typename Unit::rep>(std::chrono::duration_cast<Unit>(time).count(), 0));
}

template <typename Counters>
quillon_query_counts counts_of(const Counters &counters) {
  const auto count = [&](QueryStatistics::Outcome outcome) {
    return counters[static_cast<size_t>(outcome)].load(std::memory_order_relaxed);
  };
  return {.answered = count(QueryStatistics::Outcome::answered),
          .refused = count(QueryStatistics::Outcome::refused),
          .not_sent = count(QueryStatistics::Outcome::not_sent),
          .timed_out = count(QueryStatistics::Outcome::timed_out),
          .unknown = count(QueryStatistics::Outcome::unknown)};
}

}  // namespace

void QueryStatistics::end(Kind kind, Outcome outcome, SteadyClock::duration time) {
  counter(kind, outcome).fetch_add(1, std::memory_order_relaxed);
  if (outcome == Outcome::answered) {
    const auto microseconds = whole<std::chrono::microseconds>(time);
    const size_t bucket = std::min<size_t>(std::bit_width(microseconds), QUILLON_LATENCY_BUCKETS - 1);
    latency_[bucket].fetch_add(1, std::memory_order_relaxed);
    latency_sum_.fetch_add(microseconds, std::memory_order_relaxed);
  }
  in_flight_.fetch_sub(1, std::memory_order_relaxed);
}

void QueryStatistics::read(quillon_statistics &statistics) const {
  statistics.synchronous_queries = counts_of(synchronous_);
  statistics.asynchronous_queries = counts_of(asynchronous_);
  statistics.queries_in_flight = in_flight_.load(std::memory_order_relaxed);
  statistics.queries_in_flight_highest = highest_.load(std::memory_order_relaxed);
  for (size_t i = 0; i < latency_.size(); ++i) statistics.latency[i] = latency_[i].load(std::memory_order_relaxed);
  statistics.latency_sum = latency_sum_.load(std::memory_order_relaxed);
}

void CountedQuery::end_attempt(QUILLON_STATUS status, SendFate fate) {
  if (status == QUILLON_STATUS_OK) {
    outcome_ = Outcome::answered;
    return;
  }
  switch (fate) {
    case SendFate::answered:
      outcome_ = Outcome::refused;
      break;
    case SendFate::timed_out:
      outcome_ = Outcome::timed_out;
      break;
    case SendFate::lost:
      outcome_ = Outcome::unknown;
      break;
    case SendFate::not_sent:
      outcome_ = Outcome::not_sent;
      break;
  }
}

void PhaseStatistics::enter(QUILLON_CONNECTION_PHASE phase) {
  const std::lock_guard lock(mutex_);
  if (phase == phase_) return;
  const SteadyClock::time_point now = SteadyClock::now();
  spent_[phase_] += now - std::exchange(since_, now);
  phase_ = phase;
  if (phase == QUILLON_CONNECTION_PHASE_CONNECTED) ++joined_;
}

void PhaseStatistics::read(quillon_statistics &statistics) const {
  statistics.session_attempts = attempts_.load(std::memory_order_relaxed);
  statistics.sessions = sessions_.load(std::memory_order_relaxed);
  const std::lock_guard lock(mutex_);
  statistics.reconnects = joined_ > 0 ? joined_ - 1 : 0;
  statistics.phase = phase_;
  for (size_t i = 0; i < spent_.size(); ++i) {
    const bool is_now = i == static_cast<size_t>(phase_);
    statistics.phase_milliseconds[i] =
        whole<std::chrono::milliseconds>(spent_[i] + (is_now ? SteadyClock::now() - since_ : SteadyClock::duration()));
  }
}

void note_phase_locked(const quillon_connection &connection) {
  const ConnectionPrivate &extra = *connection.extra;
  const QUILLON_CONNECTION_PHASE below = !extra.connecting ? QUILLON_CONNECTION_PHASE_DOWN
                                         : extra.pending   ? QUILLON_CONNECTION_PHASE_PENDING
                                                           : QUILLON_CONNECTION_PHASE_CONNECTING;
  connection.extra->phases.enter(connection.is_grid_connected ? QUILLON_CONNECTION_PHASE_CONNECTED : below);
}

}  // namespace qlk

namespace {

constexpr size_t kFirstVersion =
    offsetof(quillon_statistics, phase_milliseconds) + sizeof(quillon_statistics::phase_milliseconds);

void read_traffic(qlk::ConnectionPrivate &extra, quillon_statistics &statistics) {
  wb_client_statistics traffic = {};
  traffic.size = sizeof traffic;
  extra.gate->use([&](const wb_client *client) { wb_client_get_statistics(client, &traffic, nullptr); });
  statistics.stanzas_sent = traffic.stanzas_sent;
  statistics.stanzas_received = traffic.stanzas_received;
  statistics.bytes_sent = traffic.bytes_sent;
  statistics.bytes_received = traffic.bytes_received;
  statistics.bytes_waiting = traffic.bytes_waiting;
  statistics.bytes_waiting_highest = traffic.bytes_waiting_highest;
}

}  // namespace

QUILLON_STATUS quillon_connection_get_statistics(const quillon_connection *connection, quillon_statistics *statistics) {
  qlk::trace(__func__);
  if (connection == nullptr) return qlk::refuse("Invalid connection object");
  if (statistics == nullptr) return qlk::refuse("statistics is null");
  if (statistics->size < kFirstVersion) return qlk::refuse("the size of the statistics is not set");
  quillon_statistics read = {};
  read.size = std::min(statistics->size, sizeof read);
  read_traffic(*connection->extra, read);
  connection->query->statistics.read(read);
  connection->extra->phases.read(read);
  read.request_queue = connection->query->request_handler.gauge().usage();
  read.notification_queue = connection->notification->notf_handler.gauge().usage();
  read.completion_queue = connection->extra->async_queries->completions_usage();
  std::memset(statistics, 0, statistics->size);
  std::memcpy(statistics, &read, read.size);
  return QUILLON_STATUS_OK;
}

uint64_t quillon_statistics_latency_quantile(const quillon_statistics *statistics, double part) {
  if (statistics == nullptr || !(part >= 0 && part <= 1)) return 0;
  uint64_t answered = 0;
  for (const uint64_t count : statistics->latency) answered += count;
  if (answered == 0) return 0;
  const auto wanted = std::max<uint64_t>(1, static_cast<uint64_t>(std::ceil(part * static_cast<double>(answered))));
  uint64_t seen = 0;
  for (size_t i = 0; i + 1 < QUILLON_LATENCY_BUCKETS; ++i) {
    seen += statistics->latency[i];
    if (seen >= wanted) return uint64_t{1} << i;
  }
  return UINT64_MAX;
}

#include "reconnection_backoff.h"

#include <algorithm>
#include <cmath>

std::chrono::milliseconds qlk::ReconnectionBackoff::after(const Failure &failure, const ReconnectionPolicy &policy) {
  ++hosts_tried_;
  const bool others_are_left = hosts_tried_ < failure.hosts;
  if (!failure.calls_for_restraint && policy.next_host_at_once && others_are_left) return std::chrono::milliseconds(0);
  hosts_tried_ = 0;
  const double growth = std::pow(policy.growth_percent / 100.0, delays_++);
  if (failure.calls_for_restraint) return policy.ceiling;
  const double ceiling = static_cast<double>(policy.ceiling.count());
  const double delay = std::min(static_cast<double>(policy.first.count()) * growth, ceiling);
  return std::chrono::milliseconds(static_cast<long long>(policy.has_full_jitter ? delay * failure.chance : delay));
}

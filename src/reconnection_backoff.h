// How long a reconnection waits after a failure.
#pragma once

#include <chrono>
#include <cstddef>

namespace qlk {

struct ReconnectionPolicy {
  std::chrono::milliseconds first{60000};
  unsigned growth_percent = 100;
  std::chrono::milliseconds ceiling{60000};
  bool has_full_jitter = false;
  bool next_host_at_once = false;
  bool is_prompt = false;  // one of these was set
};

class ReconnectionBackoff {
 public:
  // What failed, and with what chance, from 0 up to but not including 1.
  struct Failure {
    size_t hosts = 1;  // that an attempt each is to be made with
    bool calls_for_restraint = false;
    double chance = 0;
  };
  // The time from this failure to the next attempt.
  std::chrono::milliseconds after(const Failure &failure, const ReconnectionPolicy &policy);
  // What lasted was a success.
  void begin_anew() { *this = {}; }

 private:
  unsigned delays_ = 0;     // that there were
  size_t hosts_tried_ = 0;  // since the last
};

}  // namespace qlk

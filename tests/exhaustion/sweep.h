// Fails, one after the other, everything that a flow asks the system for, and looks at what becomes of it.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "quillon.h"

namespace exhaustion {

using Clock = std::chrono::steady_clock;

// What a test that fails lets anything take.
constexpr std::chrono::seconds kDeadline(60);

// Something that an application does. Only the act meets shortage; it must not allocate itself.
struct Flow {
  std::string name;
  std::vector<QUILLON_STATUS> statuses = {};  // that are documented for it, beside OK and MALLOC_ERROR
  std::function<void()> prepare = [] {};
  std::function<QUILLON_STATUS()> act = [] { return QUILLON_STATUS_OK; };
  // With plenty again: the status is true, nothing is half done, and the same objects do it again. Leaves things as prepare found
  // them.
  std::function<void(QUILLON_STATUS)> verify = [](QUILLON_STATUS) {};
  // Whether the last round was one of those that leave something behind, as is documented.
  std::function<bool()> may_leave = [] { return false; };
};

// What a sweep came to, for the table.
struct Tally {
  long requests = 0;  // of the undisturbed flow
  long rounds = 0, failures = 0;
  std::map<QUILLON_STATUS, long> statuses = {};
  std::chrono::milliseconds longest{0};
};

// One of the ways to be short of something: the first `spared` requests are met, and then either one is not or none is any more.
struct Shortage {
  const char *name;
  bool lasts;
  std::function<void(long spared)> begin;
  std::function<long()> end;              // what was asked for meanwhile
  std::function<long()> unmet;            // how many requests were not met
  std::function<void()> explain = [] {};  // for a round that failed: where
};

Shortage one_allocation();
Shortage all_further_allocations();
Shortage one_thread();
Shortage all_further_threads();
Shortage all_further_descriptors();

// Every request of short flows, and of long ones as many as fit, beginning at an offset that is printed; every one of all flows
// when the environment says QLK_EXHAUSTION=full, or those of a slice for "OFFSET STEP". Each round is judged: the status, the
// time, what is left over. Prints one line of the table.
void sweep(const Flow &flow, const Shortage &shortage);

// The same for what a process does once, such as the set-up of the libraries below: each round is a child of its own. The process
// must have no threads.
void sweep_first(const std::string &name, const std::function<Flow()> &make, const Shortage &shortage);

}  // namespace exhaustion

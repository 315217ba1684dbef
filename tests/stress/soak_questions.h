// The queries of a soak: threads that ask and wait, and many that are in flight at once.
#pragma once

#include <quillon_async.h>

#include <array>
#include <atomic>
#include <string>

#include "grid_client.h"
#include "soak_counts.h"

namespace soak {

// Asks and waits for the answer, again and again, until the run is over.
void ask_on_and_on(grid_test::Client &client, quillon_capability *capability, unsigned number);

// Asynchronous queries, of which each callback begins the next.
class Questions {
 public:
  Questions(grid_test::Client &client, quillon_capability *capability);

  // Until the run is over: begins anew what has come to rest.
  void run();
  // None is under way.
  bool is_at_rest() const;

 private:
  enum class State { resting, asked, answered };
  struct Question {
    Questions *owner = nullptr;
    uint64_t number = 0;
    std::string text;
    Clock::time_point begun;
    Moment moment;
    std::atomic<State> state = State::resting;
  };

  void begin(Question &question);
  void finish(Question &question, const quillon_query_result &result);

  grid_test::Client &client_;
  quillon_capability *const capability_;
  std::array<Question, 64> questions_;
};

}  // namespace soak

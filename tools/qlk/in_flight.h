// Questions of which several are asked at once. The library tells how each ended on a thread of its own; the command's thread
// takes the ends one by one.
#pragma once

#include <quillon_async.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <queue>

#include "xml.h"

namespace tool {

struct QuestionEnd {
  QUILLON_QUERY_OUTCOME outcome;
  QUILLON_STATUS status;
  Element response;  // null unless it was answered
  double milliseconds;
};

// It has to outlive the connections that it asks over.
class InFlight {
 public:
  InFlight() = default;
  InFlight(const InFlight &) = delete;
  InFlight &operator=(const InFlight &) = delete;

  // Not QUILLON_STATUS_OK: nothing was begun.
  QUILLON_STATUS begin(quillon_connection *connection, quillon_capability *capability, Element request,
                       std::chrono::milliseconds deadline);
  // Those begun whose ends were not taken.
  size_t count() const { return count_; }
  // Waits for the next end; there must be one to come.
  QuestionEnd next();

 private:
  struct Question;
  static void on_done(const quillon_query_result *result, void *question);

  size_t count_ = 0;
  std::mutex mutex_;
  std::condition_variable ended_;
  std::queue<QuestionEnd> ends_;  // under mutex_
};

}  // namespace tool

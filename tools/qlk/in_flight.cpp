#include "in_flight.h"

namespace tool {

using Clock = std::chrono::steady_clock;

struct InFlight::Question {
  InFlight &asked_in;
  const Clock::time_point begin = Clock::now();
};

QUILLON_STATUS InFlight::begin(quillon_connection *connection, quillon_capability *capability, Element request,
                               std::chrono::milliseconds deadline) {
  auto question = std::make_unique<Question>(Question{*this});
  const QUILLON_STATUS status = quillon_connection_query_async(
      connection, capability, request.get(), static_cast<uint32_t>(deadline.count()), on_done, question.get(), nullptr);
  if (status != QUILLON_STATUS_OK) return status;
  static_cast<void>(request.release());  // the library's now
  static_cast<void>(question.release());
  ++count_;
  return status;
}

void InFlight::on_done(const quillon_query_result *result, void *arg) {
  const std::unique_ptr<Question> question(static_cast<Question *>(arg));
  const double milliseconds = std::chrono::duration<double, std::milli>(Clock::now() - question->begin).count();
  wb_dom_node *const response = result->response;
  if (response != nullptr) wb_dom_context_retain(wb_dom_get_context(response), nullptr);
  InFlight &self = question->asked_in;
  const std::lock_guard lock(self.mutex_);
  self.ends_.push({result->outcome, result->status, Element(response), milliseconds});
  self.ended_.notify_one();
}

QuestionEnd InFlight::next() {
  std::unique_lock lock(mutex_);
  ended_.wait(lock, [this] { return !ends_.empty(); });
  QuestionEnd end = std::move(ends_.front());
  ends_.pop();
  --count_;
  return end;
}

}  // namespace tool

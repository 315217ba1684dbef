#include "soak_questions.h"

#include <algorithm>
#include <thread>

namespace soak {

namespace {

constexpr uint32_t kDeadline = 60'000;  // milliseconds

bool is_answer_to(const std::string &text, const std::string &answer) { return answer.ends_with(": " + text); }

// What the headers promise of a synchronous query while its connection is drained, or not yet connected again.
bool means_away(QUILLON_STATUS status) {
  return status == QUILLON_STATUS_NO_CONNECTION || status == QUILLON_STATUS_UNKNOWN ||
         status == QUILLON_STATUS_CAPABILITY_NOT_FOUND;
}

void count_failure(const Moment &moment, bool is_away, QUILLON_STATUS status) {
  if (moment.is_of_restart()) {
    ++counts.disturbed;
  } else if (moment.is_of_drain() && is_away) {
    ++counts.refused;
  } else {
    complain("a query failed", status);
  }
}

}  // namespace

void ask_on_and_on(grid_test::Client &client, quillon_capability *capability, unsigned number) {
  for (uint64_t i = 0; !phase.is_over; ++i) {
    if (!phase.may_ask) {
      pause_a_little();
      continue;
    }
    const std::string text = std::to_string(number) + "-" + std::to_string(i);
    std::string reply;
    const Moment moment;
    const auto begun = Clock::now();
    const QUILLON_STATUS status = client.ask(capability, text, reply);
    if (status != QUILLON_STATUS_OK) {
      count_failure(moment, means_away(status), status);
      pause_a_little();  // nobody is there
    } else if (is_answer_to(text, reply)) {
      sync_latencies.add(Clock::now() - begun);
      ++counts.answers;
    } else {
      complain("a query was answered wrongly", 0);
    }
  }
}

Questions::Questions(grid_test::Client &client, quillon_capability *capability) : client_(client), capability_(capability) {
  for (Question &question : questions_) question.owner = this;
}

void Questions::run() {
  // Delay: the time that one which failed rests; until there is somebody again each would only fail once more.
  for (; !phase.is_over; std::this_thread::sleep_for(100ms)) {
    for (Question &question : questions_) {
      if (phase.may_ask && question.state == State::resting) begin(question);
    }
  }
}

bool Questions::is_at_rest() const {
  return std::all_of(questions_.begin(), questions_.end(),
                     [](const Question &question) { return question.state == State::resting; });
}

void Questions::begin(Question &question) {
  question.text = std::to_string(&question - questions_.data()) + "+" + std::to_string(question.number++);
  question.moment = Moment();
  question.begun = Clock::now();
  question.state = State::asked;  // before the callback can run
  wb_dom_node *request = grid_test::payload("ask", question.text);
  const auto done = [](const quillon_query_result *result, void *asked) {
    auto &answered = *static_cast<Question *>(asked);
    answered.owner->finish(answered, *result);
  };
  const QUILLON_STATUS status =
      quillon_connection_query_async(client_.connection, capability_, request, kDeadline, done, &question, nullptr);
  if (status == QUILLON_STATUS_OK) return;
  wb_dom_context_destroy(wb_dom_get_context(request));
  count_failure(question.moment, status == QUILLON_STATUS_NO_CONNECTION, status);
  question.state = State::resting;
}

void Questions::finish(Question &question, const quillon_query_result &result) {
  State expected = State::asked;
  if (!question.state.compare_exchange_strong(expected, State::answered)) return complain("a query ended twice", result.status);
  if (result.outcome != QUILLON_QUERY_OUTCOME_ANSWERED) {
    count_failure(question.moment, result.outcome == QUILLON_QUERY_OUTCOME_NOT_SENT, result.status);
    question.state = State::resting;  // nobody is there
    return;
  }
  if (is_answer_to(question.text, grid_test::text_of(result.response))) {
    async_latencies.add(Clock::now() - question.begun);
    ++counts.async_answers;
    ++counts.answers;
  } else {
    complain("an asynchronous query was answered wrongly", 0);
  }
  if (phase.may_ask && !phase.is_over) {
    begin(question);
  } else {
    question.state = State::resting;
  }
}

}  // namespace soak

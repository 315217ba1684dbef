#include "async_queries.h"

#include <algorithm>
#include <string>

#include "connection_private.h"
#include "guard.h"
#include "query_request.h"
#include "quillon_grid.h"
#include "quillon_wb_client.h"
#include "signals_blocked.h"

struct _quillon_pending_query {
  qlk::AsyncCallPtr call;
};

namespace qlk {

struct AsyncCall {
  using Publisher = std::shared_ptr<const std::string>;

  // Fixed.
  std::shared_ptr<AsyncQueries> engine;
  quillon_query_done_cb callback = nullptr;
  void *user_data = nullptr;
  CapabilityPtr capability;  // null: the controller is asked
  SteadyClock::time_point begun, deadline;
  size_t start = 0, count = 1;  // the publisher asked first, and how many may be asked

  // Used by whoever asks: one thread at a time, from the moment that it sets asking.
  NodePtr request;
  size_t index = 0;  // of the publisher whose turn it is

  // Under the engine's mutex.
  AsyncQueries::InFlight::iterator place;
  bool asking = true;      // a publisher is about to be asked
  bool exhausted = false;  // no further one will be
  size_t asked = 0;
  size_t open = 0;       // attempts that may still be answered
  Publisher refused_by;  // the last who did
  bool ended = false;
  QUILLON_QUERY_OUTCOME outcome = QUILLON_QUERY_OUTCOME_UNKNOWN;
  QUILLON_STATUS status = QUILLON_STATUS_UNKNOWN;
  bool leaves_request = false;  // nobody was just asking when it ended, who would still read it
  Publisher publisher;          // asked last; once it has ended, that of the result
  NodePtr response;
  QueueGauge::Entry waiting = {};  // for its callback
  AsyncCallPtr next;               // of those that have ended

  bool may_ask_another() const { return !ended && !asking && !exhausted && asked < count; }
};

// One publisher that is asked.
struct AsyncAttempt {
  AsyncCallPtr call;
  AsyncCall::Publisher publisher, asked_before;
  size_t index = 0;   // in the capability's list
  size_t number = 0;  // among those of the call, from 1 on
};

namespace {

// The client's own time-out only frees what it keeps of a request: the engine goes by its own clock, and is called back before it
// only when the session ends.
constexpr std::chrono::seconds kKeptBeyond{2};

unsigned seconds_to_keep(SteadyClock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::seconds>(deadline - SteadyClock::now()) + kKeptBeyond;
  return static_cast<unsigned>(std::max(left, kKeptBeyond).count());
}

// Until when a publisher is given time, when so many are left with it.
SteadyClock::time_point end_of_share(const AsyncCall &call, size_t left, int send_timeout) {
  if (left <= 1) return call.deadline;
  const SteadyClock::time_point now = SteadyClock::now();
  SteadyClock::duration share = (call.deadline - now) / static_cast<SteadyClock::rep>(left);
  if (send_timeout > 0) share = std::min<SteadyClock::duration>(share, std::chrono::seconds(send_timeout));
  return now + share;
}

void count_end(QueryStatistics &statistics, const AsyncCall &call) {
  using Outcome = QueryStatistics::Outcome;
  static constexpr Outcome kOutcomes[] = {Outcome::answered, Outcome::refused, Outcome::not_sent, Outcome::unknown};
  const bool is_late = call.outcome == QUILLON_QUERY_OUTCOME_UNKNOWN && call.status == QUILLON_STATUS_SEND_TIMEOUT;
  const Outcome outcome = is_late ? Outcome::timed_out : kOutcomes[call.outcome];
  statistics.end(QueryStatistics::Kind::asynchronous, outcome,
                 outcome == Outcome::answered ? SteadyClock::now() - call.begun : SteadyClock::duration());
}

void call_back(AsyncCall &call) {
  const quillon_query_result result = {.outcome = call.outcome,
                                       .status = call.status,
                                       .publisher = call.publisher != nullptr ? call.publisher->c_str() : nullptr,
                                       .response = call.response.get()};
  guarded_void("quillon_query_done_cb", [&] { call.callback(&result, call.user_data); });
  call.response.reset();
}

}  // namespace

AsyncQueries::~AsyncQueries() = default;

// ---- Threads

bool AsyncQueries::start_thread_locked(pthread_t &thread, void *(*run)(void *)) {
  auto self = std::make_unique<std::shared_ptr<AsyncQueries>>(shared_from_this());
  const SignalsBlocked blocked;
  if (pthread_create(&thread, nullptr, run, self.get()) != 0) {
    wb_log(WB_LOG_ERROR, "could not start a thread for asynchronous queries");
    return false;
  }
  static_cast<void>(self.release());  // the thread's now
  return true;
}

// Both or none: one that lacks the other serves once that can be had.
bool AsyncQueries::start_threads_locked() {
  if (!has_timer_) has_timer_ = start_thread_locked(timer_, run_timer);
  if (has_timer_ && !has_completions_) has_completions_ = start_thread_locked(completions_, run_completions);
  return has_completions_;
}

void *AsyncQueries::run_timer(void *self) {
  const std::unique_ptr<std::shared_ptr<AsyncQueries>> engine(static_cast<std::shared_ptr<AsyncQueries> *>(self));
  (*engine)->watch_time();
  return nullptr;
}

void AsyncQueries::watch_time() {
  std::unique_lock lock(mutex_);
  while (!is_stopped_) {
    if (in_flight_.empty()) {
      watched_ = SteadyClock::time_point::max();
      time_changed_.wait(lock);
    } else if (in_flight_.begin()->first > SteadyClock::now()) {
      watched_ = in_flight_.begin()->first;
      time_changed_.wait_until(lock, watched_);
    } else {
      watched_ = SteadyClock::time_point::min();
      time_is_up(AsyncCallPtr(in_flight_.begin()->second), lock);  // which may lose its place meanwhile
    }
  }
}

// That of the call, or of the publisher that was asked last.
void AsyncQueries::time_is_up(const AsyncCallPtr &call, std::unique_lock<std::mutex> &lock) {
  if (SteadyClock::now() >= call->deadline) return finish_locked(*call, end_without_answer(*call, QUILLON_STATUS_SEND_TIMEOUT));
  wait_until_locked(*call, call->deadline);
  if (!call->may_ask_another()) return;
  call->asking = true;
  lock.unlock();
  ask_next(call);
  lock.lock();
}

void *AsyncQueries::run_completions(void *self) {
  const std::unique_ptr<std::shared_ptr<AsyncQueries>> engine(static_cast<std::shared_ptr<AsyncQueries> *>(self));
  AsyncQueries &queries = **engine;
  std::unique_lock lock(queries.mutex_);
  for (;;) {
    queries.call_back_all(lock);
    if (queries.is_closed_) return nullptr;
    queries.completions_asleep_ = true;
    while (queries.first_ended_ == nullptr && !queries.is_closed_) queries.completed_.wait(lock);
    queries.completions_asleep_ = queries.wakes_soon_ = false;
  }
}

// Takes all that wait at once, so that the loop, which ends the next ones meanwhile, finds the mutex free. What is taken stays in
// reach of a callback that closes or settles the engine: it calls back the rest.
void AsyncQueries::call_back_all(std::unique_lock<std::mutex> &lock) {
  ++callbacks_;
  while (taken_ != nullptr || first_ended_ != nullptr) {
    if (taken_ == nullptr) {
      taken_ = std::move(first_ended_);
      last_ended_ = nullptr;
    }
    lock.unlock();
    waiting_.log_if_high();  // those that nobody has answered have not been looked at
    // Callbacks often ask the next query.
    wb_client_leave_writing_to_loop(taken_->next != nullptr);
    while (taken_ != nullptr) call_back_first();
    wb_client_leave_writing_to_loop(false);
    lock.lock();
  }
  --callbacks_;
  quiet_.notify_all();
}

// On the completion thread, without the mutex.
void AsyncQueries::call_back_first() {
  const AsyncCallPtr call = std::move(taken_);
  taken_ = std::move(call->next);
  if (waiting_.leave(call->waiting.bytes)) waiting_.calm();
  // A handle that is kept need not keep it for longer.
  if (call->leaves_request) call->request.reset();
  call_back(*call);
}

// The event loop reads many answers at once: one wake-up serves for all of them. Another thread does not wait for that, since the
// loop may be held up.
void AsyncQueries::wake_completions_locked() {
  if (!completions_asleep_ || (wakes_soon_ && EventLoop::dispatches_here())) return;
  const auto notify = [](void *self) { static_cast<AsyncQueries *>(self)->completed_.notify_one(); };
  if (EventLoop::call_soon(shared_from_this(), notify)) {
    wakes_soon_ = true;
    return;
  }
  completions_asleep_ = false;
  notify(this);
}

// ---- The course of a call

QUILLON_STATUS AsyncQueries::begin(quillon_capability *capability, wb_dom_node *request, std::chrono::milliseconds time,
                                   quillon_query_done_cb callback, void *user_data, quillon_pending_query **pending) {
  const ConnectionHold hold(connection_);  // its callback may destroy the connection before this returns
  const auto call = std::make_shared<AsyncCall>();
  call->engine = shared_from_this();
  call->callback = callback;
  call->user_data = user_data;
  call->begun = SteadyClock::now();
  call->deadline = call->begun + time;
  if (capability != nullptr) {
    call->capability = capability->weak_self.lock();
    call->index = call->start = StickyIndex(*connection_.query, *capability).read();
    call->count = capability_count_jids(*capability);
    if (call->start >= call->count) call->index = 0;
  }
  std::unique_ptr<quillon_pending_query> handle(pending != nullptr ? new quillon_pending_query{call} : nullptr);
  {
    const std::lock_guard lock(mutex_);
    if (is_closed_ || is_stopped_) return QUILLON_STATUS_NO_CONNECTION;
    QueryStatistics &statistics = connection_.query->statistics;
    if (refuses_new_ || !start_threads_locked()) {
      statistics.count_not_sent(QueryStatistics::Kind::asynchronous);
      return refuses_new_ ? QUILLON_STATUS_NO_CONNECTION : QUILLON_STATUS_PTHREAD_ERROR;
    }
    call->place = in_flight_.emplace(call->deadline, call);
    if (call->deadline < watched_) time_changed_.notify_one();
    statistics.begin();
    // From here on it has begun, and nothing but its callback tells what becomes of it.
    call->request.reset(request);
    if (pending != nullptr) *pending = handle.release();
  }
  ask_next(call);
  return QUILLON_STATUS_OK;
}

void AsyncQueries::ask_next(const AsyncCallPtr &call) {
  const QUILLON_STATUS status = guarded("quillon_connection_query_async", [&] { return send_next(call); });
  if (status == QUILLON_STATUS_OK) return;
  const std::lock_guard lock(mutex_);
  call->asking = false;
  not_sent_locked(*call, status);
}

// Not OK: no publisher was asked.
QUILLON_STATUS AsyncQueries::send_next(const AsyncCallPtr &call) {
  if (SteadyClock::now() >= call->deadline) return QUILLON_STATUS_SEND_TIMEOUT;
  auto attempt = std::make_unique<AsyncAttempt>();
  attempt->call = call;
  const StringPtr jid =
      call->capability != nullptr ? capability_copy_jid(*call->capability, call->index) : make_string(CONTROLLER_JID);
  if (jid == nullptr) return call->capability != nullptr ? QUILLON_STATUS_CAPABILITY_NOT_FOUND : QUILLON_STATUS_MALLOC_ERROR;
  attempt->publisher = std::make_shared<const std::string>(text_of(jid.get()));
  attempt->index = call->index++;
  attempt->number = call->asked + 1;
  NodePtr payload = attempt->number >= call->count ? std::move(call->request) : copy_payload(call->request.get());
  if (payload == nullptr) return QUILLON_STATUS_XML_ERROR;
  wb_dom_node *iq = build_request(connection_, *jid, payload.get());
  if (iq == nullptr) return QUILLON_STATUS_XML_ERROR;
  if (!admit(*attempt)) return QUILLON_STATUS_OK;
  static_cast<void>(payload.release());  // the send consumes it
  const unsigned seconds = seconds_to_keep(call->deadline);
  send_async(connection_, iq, seconds, on_done, attempt.release());
  return QUILLON_STATUS_OK;
}

// The publisher is about to be asked, and its answer may come. False when the call has ended meanwhile.
bool AsyncQueries::admit(AsyncAttempt &attempt) {
  AsyncCall &call = *attempt.call;
  const SteadyClock::time_point until = end_of_share(call, call.count - attempt.number + 1, send_timeout_seconds(connection_));
  const std::lock_guard lock(mutex_);
  call.asking = false;
  if (call.ended) return false;
  ++call.asked;
  ++call.open;
  attempt.asked_before = std::exchange(call.publisher, attempt.publisher);
  wait_until_locked(call, until);
  return true;
}

// The SendDone of an attempt, which it frees.
void AsyncQueries::on_done(void *arg, QUILLON_STATUS status, wb_dom_node *reply) {
  const std::unique_ptr<AsyncAttempt> attempt(static_cast<AsyncAttempt *>(arg));
  const std::shared_ptr<AsyncQueries> engine = attempt->call->engine;
  if (status == QUILLON_STATUS_OK) {
    NodePtr response;
    status = read_reply(NodePtr(reply), response);
    return status == QUILLON_STATUS_XMPP_ERROR ? engine->on_refusal(*attempt)
                                               : engine->on_answer(*attempt, status, std::move(response));
  }
  const std::lock_guard lock(engine->mutex_);
  AsyncCall &call = *attempt->call;
  if (call.ended) return;
  if (status == QUILLON_STATUS_SEND_TIMEOUT) {  // the session has ended
    return engine->finish_locked(
        call, end_without_answer(
                  call, SteadyClock::now() < call.deadline ? QUILLON_STATUS_CONNECTION_ERROR : QUILLON_STATUS_SEND_TIMEOUT));
  }
  --call.open;
  call.publisher = attempt->asked_before;
  engine->not_sent_locked(call, status);
}

void AsyncQueries::on_answer(const AsyncAttempt &attempt, QUILLON_STATUS status, NodePtr response) {
  AsyncCall &call = *attempt.call;
  QueueGauge::Entry entry = {};
  {
    const std::lock_guard lock(mutex_);
    if (call.ended) return;
    call.publisher = attempt.publisher;
    call.response = std::move(response);
    finish_locked(call, status == QUILLON_STATUS_OK ? End{QUILLON_QUERY_OUTCOME_ANSWERED, QUILLON_STATUS_OK}
                                                    : End{QUILLON_QUERY_OUTCOME_REFUSED, status});
    entry = call.waiting;
  }
  if (entry.is_high) waiting_.log_and_admit(entry);
  if (call.capability != nullptr && attempt.index != call.start)
    StickyIndex(*connection_.query, *call.capability).store(attempt.index);
}

void AsyncQueries::on_refusal(const AsyncAttempt &attempt) {
  AsyncCall &call = *attempt.call;
  {
    const std::lock_guard lock(mutex_);
    if (call.ended) return;
    --call.open;
    call.refused_by = attempt.publisher;
    if (attempt.number != call.asked || !call.may_ask_another()) {
      if (call.open == 0 && !call.asking) finish_locked(call, end_without_answer(call, QUILLON_STATUS_XMPP_ERROR));
      return;
    }
    call.asking = true;
  }
  ask_next(attempt.call);
}

// A publisher could not be asked, and so no further one is; those that were may still answer.
void AsyncQueries::not_sent_locked(AsyncCall &call, QUILLON_STATUS status) {
  if (call.ended) return;
  call.exhausted = true;
  if (call.open == 0) return finish_locked(call, end_without_answer(call, status));
  wait_until_locked(call, call.deadline);
}

void AsyncQueries::wait_until_locked(AsyncCall &call, SteadyClock::time_point when) {
  if (call.place->first == when) return;
  auto node = in_flight_.extract(call.place);
  node.key() = when;
  call.place = in_flight_.insert(std::move(node));
  if (when < watched_) time_changed_.notify_one();
}

AsyncQueries::End AsyncQueries::end_without_answer(const AsyncCall &call, QUILLON_STATUS status) {
  if (call.open > 0) return {QUILLON_QUERY_OUTCOME_UNKNOWN, status};
  if (call.refused_by != nullptr) return {QUILLON_QUERY_OUTCOME_REFUSED, QUILLON_STATUS_XMPP_ERROR};
  return {QUILLON_QUERY_OUTCOME_NOT_SENT, status};
}

void AsyncQueries::finish_locked(AsyncCall &call, End end) {
  AsyncCallPtr ended = std::move(in_flight_.extract(call.place).mapped());
  call.ended = true;
  call.outcome = end.outcome;
  call.status = end.status;
  call.leaves_request = !call.asking;
  count_end(connection_.query->statistics, call);
  if (end.status == QUILLON_STATUS_XMPP_ERROR) call.publisher = call.refused_by;
  AsyncCall *const last = std::exchange(last_ended_, &call);
  (last != nullptr ? last->next : first_ended_) = std::move(ended);
  call.waiting = waiting_.enter(wb_dom_context_get_memory(wb_dom_get_context(call.response.get())));
  wake_completions_locked();
}

void AsyncQueries::cancel(AsyncCall &call) {
  const std::lock_guard lock(mutex_);
  if (!call.ended) finish_locked(call, end_without_answer(call, QUILLON_STATUS_UNKNOWN));
}

// ---- The end

void AsyncQueries::refuse_new() {
  const std::lock_guard lock(mutex_);
  refuses_new_ = true;
}

void AsyncQueries::resume() {
  const std::lock_guard lock(mutex_);
  refuses_new_ = false;
}

bool AsyncQueries::calls_back_here_locked() const { return has_completions_ && pthread_equal(completions_, pthread_self()) != 0; }

void AsyncQueries::finish_all_locked(QUILLON_STATUS status) {
  while (!in_flight_.empty()) {
    AsyncCall &call = *in_flight_.begin()->second;
    finish_locked(call, end_without_answer(call, status));
  }
}

bool AsyncQueries::settle(SteadyClock::time_point deadline) {
  std::unique_lock lock(mutex_);
  const bool is_here = calls_back_here_locked();
  const size_t excused = excused_;
  if (is_here) {
    excused_ = callbacks_;
    quiet_.notify_all();
    call_back_all(lock);
    while (!in_flight_.empty() && !is_left_ && SteadyClock::now() < deadline) {
      completions_asleep_ = true;
      completed_.wait_until(lock, deadline);
      completions_asleep_ = wakes_soon_ = false;
      call_back_all(lock);
    }
  } else {
    quiet_.wait_until(lock, deadline, [this] { return is_left_ || (in_flight_.empty() && is_quiet_locked()); });
  }
  const bool is_in_time = in_flight_.empty();
  if (!is_left_) finish_all_locked(QUILLON_STATUS_SEND_TIMEOUT);
  if (is_here) {
    call_back_all(lock);
    excused_ = excused;
  }
  return is_in_time;
}

void AsyncQueries::wait_until_quiet() {
  std::unique_lock lock(mutex_);
  if (!calls_back_here_locked()) quiet_.wait(lock, [this] { return is_quiet_locked(); });
}

void AsyncQueries::set_limits(const QueueGauge::Limits &limits) {
  waiting_.set_limits({.warning = limits.warning, .warning_bytes = limits.warning_bytes});
}

quillon_handler_queue_usage AsyncQueries::completions_usage() const { return waiting_.usage(); }

void AsyncQueries::give_up_waiting() {
  const std::lock_guard lock(mutex_);
  is_left_ = true;
  quiet_.notify_all();
  completed_.notify_one();
}

void AsyncQueries::stop_sending() {
  {
    const std::lock_guard lock(mutex_);
    is_stopped_ = true;
    time_changed_.notify_one();
    if (!std::exchange(has_timer_, false)) return;
  }
  pthread_join(timer_, nullptr);
}

void AsyncQueries::close() {
  std::unique_lock lock(mutex_);
  is_closed_ = true;
  finish_all_locked(QUILLON_STATUS_CONNECTION_ERROR);
  const bool is_here = calls_back_here_locked();
  if (!std::exchange(has_completions_, false)) return;
  if (is_here) {
    pthread_detach(completions_);
    return call_back_all(lock);
  }
  completed_.notify_one();
  lock.unlock();
  pthread_join(completions_, nullptr);
}

}  // namespace qlk

// ---- Exported functions

namespace {

QUILLON_STATUS begin(quillon_connection *connection, quillon_capability *capability, wb_dom_node *request, uint32_t milliseconds,
                     quillon_query_done_cb callback, void *user_data, quillon_pending_query **pending) {
  if (request == nullptr) return qlk::refuse("request is null");
  if (callback == nullptr) return qlk::refuse("callback is null");
  return qlk::guarded("quillon_connection_query_async", [&] {
    return connection->extra->async_queries->begin(capability, request, std::chrono::milliseconds(milliseconds), callback,
                                                   user_data, pending);
  });
}

}  // namespace

QUILLON_STATUS quillon_connection_query_async(quillon_connection *connection, quillon_capability *capability,
                                              wb_dom_node *request, uint32_t milliseconds, quillon_query_done_cb callback,
                                              void *user_data, quillon_pending_query **pending) {
  qlk::trace(__func__);
  if (pending != nullptr) *pending = nullptr;
  if (connection == nullptr) return qlk::refuse("connection is null");
  if (capability == nullptr) return qlk::refuse("capability is null");
  return begin(connection, capability, request, milliseconds, callback, user_data, pending);
}

QUILLON_STATUS quillon_connection_query_controller_async(quillon_connection *connection, wb_dom_node *request,
                                                         uint32_t milliseconds, quillon_query_done_cb callback, void *user_data,
                                                         quillon_pending_query **pending) {
  qlk::trace(__func__);
  if (pending != nullptr) *pending = nullptr;
  if (connection == nullptr) return qlk::refuse("connection is null");
  return begin(connection, nullptr, request, milliseconds, callback, user_data, pending);
}

QUILLON_STATUS quillon_pending_query_cancel(quillon_pending_query *pending) {
  qlk::trace(__func__);
  if (pending == nullptr) return qlk::refuse("pending is null");
  pending->call->engine->cancel(*pending->call);
  return QUILLON_STATUS_OK;
}

void quillon_pending_query_destroy(quillon_pending_query *pending) {
  qlk::trace(__func__);
  delete pending;
}

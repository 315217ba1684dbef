// The asynchronous queries of a connection: those in flight, and the two threads that serve them.
//
// A call is in flight from begin until it ends, which happens once, under the mutex: by an answer (on the loop), by its time (on
// the timer thread), by a cancellation or a refusal to be sent (on any thread). It then waits for the completion thread, which
// calls back. Nothing that ends a call needs memory. Time has a thread of its own, so that neither a callback that blocks nor a
// loop that is held up keeps a publisher from being passed over or a deadline from passing.
#pragma once

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>

#include "monitor_wait.h"
#include "queue_gauge.h"
#include "quillon.h"
#include "quillon_capability.h"
#include "stanza_builder.h"

namespace qlk {

struct AsyncCall;
struct AsyncAttempt;
using AsyncCallPtr = std::shared_ptr<AsyncCall>;

class AsyncQueries : public std::enable_shared_from_this<AsyncQueries> {
 public:
  explicit AsyncQueries(quillon_connection &connection) : connection_(connection) {}
  ~AsyncQueries();
  AsyncQueries(const AsyncQueries &) = delete;
  AsyncQueries &operator=(const AsyncQueries &) = delete;

  // Takes the request, one reference of its context, when the result is OK. Without a capability the controller is asked.
  QUILLON_STATUS begin(quillon_capability *capability, wb_dom_node *request, std::chrono::milliseconds time,
                       quillon_query_done_cb callback, void *user_data, quillon_pending_query **pending);
  void cancel(AsyncCall &call);

  // Lets no call begin until resume.
  void refuse_new();
  void resume();
  // Waits until all calls have ended and been called back; those that have not at the deadline are ended, with the status of a
  // time-out. Called by a callback it calls back itself. False when some were ended.
  bool settle(SteadyClock::time_point deadline);
  // Waits until no callback is to come or runs, however long it takes. Called by a callback it does not wait.
  void wait_until_quiet();

  // What may wait for its callback before there is a warning in the log; the bounds do not hold here. Any thread.
  void set_limits(const QueueGauge::Limits &limits);
  // Those that have ended and wait for their callback. Any thread.
  quillon_handler_queue_usage completions_usage() const;

  // The connection is being destroyed: nobody waits in the two any more.
  void give_up_waiting();

  // Ends the timer: nothing is sent any more. To be called before the connection's client goes.
  void stop_sending();
  // Ends what is left, has everything called back and joins the completion thread. Called by a callback, it calls back itself.
  // After the client, which has called back all that it tracked.
  void close();

 private:
  friend struct AsyncCall;
  // By the time at which something is to be done about them.
  using InFlight = std::multimap<SteadyClock::time_point, AsyncCallPtr>;
  struct End {
    QUILLON_QUERY_OUTCOME outcome;
    QUILLON_STATUS status;
  };

  bool start_threads_locked();
  bool start_thread_locked(pthread_t &thread, void *(*run)(void *));
  static void *run_timer(void *self);
  void watch_time();
  void time_is_up(const AsyncCallPtr &call, std::unique_lock<std::mutex> &lock);
  static void *run_completions(void *self);
  void call_back_all(std::unique_lock<std::mutex> &lock);
  void call_back_first();
  void wake_completions_locked();

  void ask_next(const AsyncCallPtr &call);
  QUILLON_STATUS send_next(const AsyncCallPtr &call);
  bool admit(AsyncAttempt &attempt);
  static void on_done(void *attempt, QUILLON_STATUS status, wb_dom_node *reply);
  void on_answer(const AsyncAttempt &attempt, QUILLON_STATUS status, NodePtr response);
  void on_refusal(const AsyncAttempt &attempt);
  void not_sent_locked(AsyncCall &call, QUILLON_STATUS status);
  void wait_until_locked(AsyncCall &call, SteadyClock::time_point when);
  static End end_without_answer(const AsyncCall &call, QUILLON_STATUS status);
  void finish_locked(AsyncCall &call, End end);
  void finish_all_locked(QUILLON_STATUS status);
  bool calls_back_here_locked() const;
  // Whether no callback is to come or runs; those that wait in settle themselves are not waited for.
  bool is_quiet_locked() const { return is_left_ || (waiting_.depth() == 0 && callbacks_ <= excused_); }

  quillon_connection &connection_;

  std::mutex mutex_;
  std::condition_variable time_changed_, completed_, quiet_;
  // All under mutex_.
  InFlight in_flight_;
  AsyncCallPtr first_ended_;                                          // those that wait for the completion thread
  AsyncCall *last_ended_ = nullptr;                                   // null when there is none
  SteadyClock::time_point watched_ = SteadyClock::time_point::min();  // what the timer sleeps for; min: it is awake
  bool completions_asleep_ = false;                                   // and nobody has woken it
  bool wakes_soon_ = false;                                           // the event loop will, when it has read what is there
  size_t callbacks_ = 0;                                              // calls of call_back_all, each but the first within another
  size_t excused_ = 0;                                                // so many of them, the outer ones, wait for a settle
  bool refuses_new_ = false, is_left_ = false, is_stopped_ = false, is_closed_ = false;
  bool has_timer_ = false, has_completions_ = false;  // threads to be joined
  pthread_t timer_ = {}, completions_ = {};

  AsyncCallPtr taken_;                                              // the completion thread's own: those that it is calling back
  QueueGauge waiting_{"answered queries wait for their callback"};  // it counts up under mutex_
};

}  // namespace qlk

// The thread on which an engine handles the stanzas that the event loop received: one at a time, in the order of arrival.
#pragma once

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

#include "monitor_wait.h"
#include "queue_gauge.h"
#include "quillon.h"
#include "stanza_builder.h"

namespace qlk {

class DispatchThread {
 public:
  // Handles one stanza, which is released when the function returns.
  using Handler = void (*)(void *owner, wb_dom_node *stanza);

  // The text is that of the gauge.
  explicit DispatchThread(const char *content) : gauge_(content) {}
  ~DispatchThread() = default;  // releases the stanzas that are still queued
  DispatchThread(const DispatchThread &) = delete;
  DispatchThread &operator=(const DispatchThread &) = delete;

  // Starts the thread. The owner, of which this object is a part, lives until the loop of the thread has
  // ended.
  QUILLON_STATUS start(const std::shared_ptr<void> &owner, Handler handler);

  // Queues the stanza with a reference of its own to its context. Never waits. A stanza that comes from the event loop's thread
  // wakes this one together with those that the loop reads at once with it.
  // Returns: QUILLON_STATUS_OK, QUILLON_STATUS_WB_ERROR (the context could not be retained), QUILLON_STATUS_MALLOC_ERROR or
  //          QUILLON_STATUS_UNKNOWN (the queue is full: the stanza is counted as dropped)
  QUILLON_STATUS push(wb_dom_node *stanza, QueueGauge::Admission admission = QueueGauge::Admission::kBounded,
                      unsigned session = 0);

  // For the handler: the session with which the stanza that it handles was queued, which another may have followed meanwhile.
  unsigned session() const { return session_; }

  // Ends the loop after the stanza that is being handled, and waits for that. Called by the handler itself it only lets the loop
  // end when the handler returns. Only the first call does anything.
  void stop();

  // Waits until nothing is queued and no handler runs. False when that does not come about before the deadline. Called by a
  // handler it does not wait.
  bool wait_until_idle(SteadyClock::time_point deadline);

  // The same, and then drops what is still queued and waits for the handler that runs, however long it takes. Nothing may be
  // pushed any more. False when something was dropped.
  bool settle(SteadyClock::time_point deadline);

  // For the scope of a call that waits for other threads' handlers: while a handler of this thread makes it, those who wait for
  // this thread to be idle do not wait for that handler, since it may be waiting for them.
  class Excused {
   public:
    explicit Excused(DispatchThread &thread);
    ~Excused();
    Excused(const Excused &) = delete;
    Excused &operator=(const Excused &) = delete;

   private:
    DispatchThread *const thread_;  // null on another thread
    bool was_excused_ = false;
  };

  // False once stop was called.
  bool keep_running() const { return keep_running_.load(std::memory_order_acquire); }

  // What waits, and how much may.
  QueueGauge &gauge() { return gauge_; }
  const QueueGauge &gauge() const { return gauge_; }

 private:
  struct Start;
  struct Waiting {
    NodePtr stanza;
    size_t bytes;
    unsigned session;
  };

  static void *run(void *start);
  void loop(void *owner, Handler handler);
  void await(std::vector<Waiting> &batch);
  bool is_self() const { return pthread_equal(pthread_self(), thread_) != 0; }
  bool is_idle_locked() const { return !keep_running() || (gauge_.depth() == 0 && is_quiet_locked()); }
  bool is_quiet_locked() const { return !keep_running() || !busy_ || is_excused_; }
  static void wake(const std::shared_ptr<void> &self);

  std::mutex mutex_;
  std::condition_variable changed_, idle_;
  std::vector<Waiting> waiting_;     // under mutex_
  bool asleep_ = false;              // the thread waits and nobody is about to wake it; under mutex_
  bool busy_ = false;                // it has taken stanzas and handles them; under mutex_
  bool is_excused_ = false;          // under mutex_
  std::atomic<bool> drops_ = false;  // what was taken is not handled any more
  std::weak_ptr<void> owner_;
  QueueGauge gauge_;
  std::atomic<bool> keep_running_ = false;
  pthread_t thread_ = {};
  unsigned session_ = 0;  // the thread's
};

}  // namespace qlk

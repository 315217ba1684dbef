// The library's one event base and the thread that dispatches it.
//
// Many connections share the base, but only one thread at a time may dispatch it. Every connection that is connecting or up is a
// user of the loop. Each connect starts a thread: the first becomes the dispatcher, one that finds a dispatcher ends at once. The
// dispatcher goes on while there are users, whoever started it; when it is woken it looks, under the lock under which users
// enter, whether it may go. So a user that enters while the dispatcher is leaving is either seen by it or finds the role free for
// the thread that it starts.
#pragma once

#include <event2/event.h>
#include <pthread.h>
#include <warbler/warbler.h>

#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <vector>

namespace qlk {

struct EventBaseDelete {
  void operator()(event_base *base) const { event_base_free(base); }
};
struct EventDelete {
  void operator()(event *freed) const { event_free(freed); }
};
struct WorkQueueDelete {
  void operator()(wb_workq *queue) const { wb_workq_destroy(queue); }
};
using EventBasePtr = std::unique_ptr<event_base, EventBaseDelete>;
using EventPtr = std::unique_ptr<event, EventDelete>;
using WorkQueuePtr = std::unique_ptr<wb_workq, WorkQueueDelete>;

// Held by the library, by each connection and by each of its threads; the last holder frees the base and what lives on it.
class EventLoop : public std::enable_shared_from_this<EventLoop> {
 public:
  // The base must be usable from several threads and notifiable. Null when the loop cannot be made; everything is freed then.
  static std::shared_ptr<EventLoop> create(EventBasePtr base, EventPtr send_event, WorkQueuePtr queue);
  ~EventLoop();
  EventLoop(const EventLoop &) = delete;
  EventLoop &operator=(const EventLoop &) = delete;

  wb_workq *queue() const { return queue_.get(); }

  // Runs one pass. Any thread.
  void wake_up();

  // Adds or takes away a user. Any thread; never blocks. With the last user the dispatching ends.
  void enter();
  void leave();

  // Joins the threads that have finished, then starts one that dispatches if nobody does. False when the system has no thread to
  // give, or after close. Any thread.
  bool start_thread(pthread_t &handle);

  // Joins the threads that have finished. Any thread; never waits for one that runs.
  void reap();

  // Gives the threads that are about to leave the time to do so, and joins them. Any thread; on the loop's own it only reaps.
  void settle();

  // Ends the dispatching for good, whoever uses the loop, and joins the threads. On the loop's own thread it only ends the
  // dispatching.
  void close();
  bool is_closed() const;

  // Whether the calling thread is the one that dispatches.
  bool is_loop_thread() const;

  // Whether the calling thread dispatches a loop.
  static bool dispatches_here() noexcept;

  // On the thread that dispatches a loop: the function is called with the pointer when what the loop is doing at the moment is
  // done, be it with events at hand or with dispatching. The pointer is held until then. False on other threads, and without
  // memory.
  static bool call_soon(std::shared_ptr<void> pointer, void (*function)(void *)) noexcept;

 private:
  struct Thread {
    pthread_t handle = {};
    bool finished = false;
  };
  struct Start;
  struct Call {
    std::shared_ptr<void> pointer;
    void (*function)(void *);
  };

  EventLoop(EventBasePtr base, EventPtr send_event, WorkQueuePtr queue);
  static void *run(void *start);
  static void on_break(evutil_socket_t, short, void *arg);
  static void on_calls(evutil_socket_t, short, void *self);
  void run_calls();
  void dispatch();
  bool may_leave();
  void finish(Thread &thread);
  size_t count_running_locked() const;
  size_t count_needed_locked() const { return users_ > 0 && !closed_ ? 1 : 0; }

  mutable std::mutex mutex_;
  std::condition_variable changed_;  // a thread finished, or a user entered
  std::list<Thread> threads_;        // all under mutex_
  size_t users_ = 0;
  bool dispatching_ = false;
  bool closed_ = false;

  std::vector<Call> calls_;  // the dispatching thread's

  // Freed from the last to the first, the base at the end.
  const EventBasePtr base_;
  const EventPtr send_event_;
  const EventPtr break_event_;
  const EventPtr calls_event_;
  const WorkQueuePtr queue_;
};

}  // namespace qlk

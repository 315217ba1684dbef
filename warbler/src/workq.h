// The work queue behind wb_workq, as the client uses it.
#pragma once

#include <warbler/workq.h>

#include <event2/event.h>

#include <mutex>
#include <vector>

struct wb_workq {
 public:
  explicit wb_workq(event_base *base);
  ~wb_workq();
  wb_workq(const wb_workq &) = delete;
  wb_workq &operator=(const wb_workq &) = delete;

  bool usable() const { return wakeup_ != nullptr; }
  event_base *base() const { return base_; }

  // False when the queue is being destroyed. May throw std::bad_alloc. In both cases the item is not queued.
  bool put(wb_workq_function function, void *arg);

 private:
  struct Item {
    wb_workq_function function;
    void *arg;
  };

  static void on_wakeup(evutil_socket_t, short, void *arg);
  void run();
  void cancel_all();

  event_base *const base_;
  event *wakeup_;
  std::mutex mutex_;
  std::vector<Item> items_;  // under mutex_
  bool woken_ = false;       // under mutex_: a wake-up is on its way, another would be one too many
  bool closed_ = false;      // under mutex_

  // The loop's. The items of the run under way are swapped with items_, so that both keep their memory.
  std::vector<Item> running_;
  size_t next_ = 0;            // of running_
  bool *destroyed_ = nullptr;  // of the run under way: set when an item destroys the queue
};

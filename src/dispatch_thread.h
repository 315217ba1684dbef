// The thread on which an engine handles the stanzas that the event loop received: one at a time, in the order of arrival.
#pragma once

#include <pthread.h>

#include <atomic>
#include <memory>

#include "owners.h"
#include "quillon.h"

struct _linked_list;

namespace qlk {

class DispatchThread {
 public:
  // Handles one stanza, which is released when the function returns.
  using Handler = void (*)(void *owner, wb_dom_node *stanza);

  DispatchThread() = default;
  ~DispatchThread() = default;  // releases the stanzas that are still queued
  DispatchThread(const DispatchThread &) = delete;
  DispatchThread &operator=(const DispatchThread &) = delete;

  // Makes the queue and starts the thread. The owner, of which this object is a part, lives until the loop of the thread has
  // ended.
  QUILLON_STATUS start(const std::shared_ptr<void> &owner, Handler handler);

  // Queues the stanza with a reference of its own to its context. Never waits.
  // Returns: QUILLON_STATUS_OK, QUILLON_STATUS_WB_ERROR (the context could not be retained) or QUILLON_STATUS_MALLOC_ERROR
  QUILLON_STATUS push(wb_dom_node *stanza);

  // Ends the loop after the stanza that is being handled, and waits for that. Called by the handler itself it only lets the loop
  // end when the handler returns. Only the first call does anything.
  void stop();

  // False once stop was called.
  bool keep_running() const { return keep_running_.load(std::memory_order_acquire); }

  // How many stanzas wait.
  size_t queued() const { return queued_.load(std::memory_order_relaxed); }

 private:
  struct Start;

  static void *run(void *start);
  void loop(void *owner, Handler handler);
  void wake();

  QueuePtr queue_;
  MallocPtr<_linked_list> wake_up_;  // the item that ends the wait for a stanza, made beforehand so that stopping needs no memory
  std::atomic<size_t> queued_ = 0;
  std::atomic<bool> keep_running_ = false;
  pthread_t thread_ = {};
};

}  // namespace qlk

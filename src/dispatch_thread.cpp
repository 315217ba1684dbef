#include "dispatch_thread.h"

#include <utility>

#include "guard.h"
#include "pthread_lock.h"
#include "quillon_queue.h"
#include "signals_blocked.h"
#include "stanza_builder.h"

namespace qlk {

struct DispatchThread::Start {
  DispatchThread *thread;
  std::shared_ptr<void> owner;
  Handler handler;
};

namespace {

void release_stanza(void *item) { const NodePtr stanza(static_cast<wb_dom_node *>(item)); }

}  // namespace

QUILLON_STATUS DispatchThread::start(const std::shared_ptr<void> &owner, Handler handler) {
  quillon_queue *queue = nullptr;
  quillon_queue_create(&queue, release_stanza);
  queue_.reset(queue);
  wake_up_.reset(static_cast<_linked_list *>(std::calloc(1, sizeof(_linked_list))));
  if (queue_ == nullptr || wake_up_ == nullptr) return QUILLON_STATUS_MALLOC_ERROR;
  auto start = std::make_unique<Start>(Start{this, owner, handler});
  keep_running_ = true;
  const SignalsBlocked blocked;
  if (pthread_create(&thread_, nullptr, run, start.get()) != 0) {
    keep_running_ = false;
    wb_log(WB_LOG_ERROR, "could not start a dispatch thread");
    return QUILLON_STATUS_PTHREAD_ERROR;
  }
  static_cast<void>(start.release());  // the thread's now
  return QUILLON_STATUS_OK;
}

QUILLON_STATUS DispatchThread::push(wb_dom_node *stanza) {
  if (!wb_dom_context_retain(wb_dom_get_context(stanza), nullptr)) return QUILLON_STATUS_WB_ERROR;
  NodePtr reference(stanza);
  queued_.fetch_add(1, std::memory_order_relaxed);
  if (!queue_push(queue_.get(), stanza)) {
    queued_.fetch_sub(1, std::memory_order_relaxed);
    return QUILLON_STATUS_MALLOC_ERROR;
  }
  static_cast<void>(reference.release());  // the queue's now
  return QUILLON_STATUS_OK;
}

void DispatchThread::stop() {
  if (!keep_running_.exchange(false)) return;
  if (pthread_equal(pthread_self(), thread_) != 0) {
    pthread_detach(thread_);
    return;
  }
  wake();
  pthread_join(thread_, nullptr);
}

void DispatchThread::wake() {
  _linked_list *item = wake_up_.release();
  const PthreadLock lock(queue_->mutex);
  (queue_->last != nullptr ? queue_->last->next : queue_->first) = item;
  queue_->last = item;
  pthread_cond_signal(&queue_->cond);
}

void *DispatchThread::run(void *start) {
  const std::unique_ptr<Start> given(static_cast<Start *>(start));
  given->thread->loop(given->owner.get(), given->handler);
  return nullptr;  // the owner goes last: it may end here, and this object with it
}

void DispatchThread::loop(void *owner, Handler handler) {
  while (keep_running()) {
    const NodePtr stanza(static_cast<wb_dom_node *>(quillon_queue_pop(queue_.get())));
    if (stanza == nullptr) continue;
    queued_.fetch_sub(1, std::memory_order_relaxed);
    guarded_void("dispatch", [&] { handler(owner, stanza.get()); });
  }
}

}  // namespace qlk

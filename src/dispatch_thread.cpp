#include "dispatch_thread.h"

#include <utility>

#include "event_loop.h"
#include "guard.h"
#include "signals_blocked.h"

namespace qlk {

struct DispatchThread::Start {
  DispatchThread *thread;
  std::shared_ptr<void> owner;
  Handler handler;
};

namespace {

// Memory for longer queues is given back when they have been handled.
constexpr size_t kCapacityKept = 1024;

}  // namespace

QUILLON_STATUS DispatchThread::start(const std::shared_ptr<void> &owner, Handler handler) {
  owner_ = owner;
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

QUILLON_STATUS DispatchThread::push(wb_dom_node *stanza, QueueGauge::Admission admission, unsigned session) {
  wb_dom_ctx *const context = wb_dom_get_context(stanza);
  if (!wb_dom_context_retain(context, nullptr)) return QUILLON_STATUS_WB_ERROR;
  NodePtr reference(stanza);
  const QueueGauge::Entry entry = gauge_.enter(wb_dom_context_get_memory(context));
  if (entry.is_high && !gauge_.log_and_admit(entry, admission)) return QUILLON_STATUS_UNKNOWN;
  std::shared_ptr<void> self;  // once the thread is awake its handler may destroy the owner; null: it need not be woken
  try {
    const std::lock_guard lock(mutex_);
    waiting_.push_back({std::move(reference), entry.bytes, session});
    if (std::exchange(asleep_, false)) self = std::shared_ptr<void>(owner_.lock(), this);
  } catch (const std::bad_alloc &) {
    gauge_.forget(1, entry.bytes);
    return QUILLON_STATUS_MALLOC_ERROR;
  }
  if (self != nullptr) wake(self);
  return QUILLON_STATUS_OK;
}

// The event loop reads much at once: one wake-up serves for all.
void DispatchThread::wake(const std::shared_ptr<void> &self) {
  const auto notify = [](void *thread) { static_cast<DispatchThread *>(thread)->changed_.notify_one(); };
  if (!EventLoop::call_soon(self, notify)) notify(self.get());
}

void DispatchThread::stop() {
  if (!keep_running_.exchange(false)) return;
  {
    const std::lock_guard lock(mutex_);  // between a look at the flag and a sleep
  }
  changed_.notify_one();
  idle_.notify_all();
  if (is_self()) {
    pthread_detach(thread_);
    return;
  }
  pthread_join(thread_, nullptr);
}

bool DispatchThread::wait_until_idle(SteadyClock::time_point deadline) {
  if (is_self()) return true;
  std::unique_lock lock(mutex_);
  return idle_.wait_until(lock, deadline, [this] { return is_idle_locked(); });
}

bool DispatchThread::settle(SteadyClock::time_point deadline) {
  const bool is_idle = wait_until_idle(deadline);
  std::vector<Waiting> dropped;  // freed without the lock
  std::unique_lock lock(mutex_);
  const bool drops = !is_idle || gauge_.depth() > 0;
  if (drops) drops_ = true;
  size_t bytes = 0;
  for (const Waiting &waiting : waiting_) bytes += waiting.bytes;
  gauge_.forget(waiting_.size(), bytes);
  dropped.swap(waiting_);
  idle_.notify_all();
  if (!is_self()) idle_.wait(lock, [this] { return is_quiet_locked(); });
  return !drops;
}

DispatchThread::Excused::Excused(DispatchThread &thread) : thread_(thread.is_self() ? &thread : nullptr) {
  if (thread_ == nullptr) return;
  const std::lock_guard lock(thread_->mutex_);
  was_excused_ = std::exchange(thread_->is_excused_, true);
  thread_->idle_.notify_all();
}

DispatchThread::Excused::~Excused() {
  if (thread_ == nullptr) return;
  const std::lock_guard lock(thread_->mutex_);
  thread_->is_excused_ = was_excused_;
}

void *DispatchThread::run(void *start) {
  const std::unique_ptr<Start> given(static_cast<Start *>(start));
  given->thread->loop(given->owner.get(), given->handler);
  return nullptr;  // the owner goes last: it may end here, and this object with it
}

// Waits for stanzas and takes all there are. None when the thread is to stop.
void DispatchThread::await(std::vector<Waiting> &batch) {
  batch.clear();
  if (batch.capacity() > kCapacityKept) batch.shrink_to_fit();
  std::unique_lock lock(mutex_);
  busy_ = false;
  if (waiting_.empty()) idle_.notify_all();
  while (waiting_.empty() && keep_running()) {
    asleep_ = true;
    changed_.wait(lock);
  }
  asleep_ = false;
  busy_ = true;
  drops_ = false;
  batch.swap(waiting_);
}

void DispatchThread::loop(void *owner, Handler handler) {
  std::vector<Waiting> batch;
  while (keep_running()) {
    await(batch);
    for (Waiting &waiting : batch) {
      if (!keep_running()) return;
      const NodePtr stanza = std::move(waiting.stanza);
      session_ = waiting.session;
      if (gauge_.leave(waiting.bytes)) gauge_.calm();
      if (drops_.load(std::memory_order_relaxed)) continue;
      guarded_void("dispatch", [&] { handler(owner, stanza.get()); });
    }
  }
}

}  // namespace qlk

#include "dispatch_thread.h"

#include <algorithm>
#include <cinttypes>
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

QUILLON_STATUS DispatchThread::push(wb_dom_node *stanza, Admission admission, unsigned session) {
  if (!wb_dom_context_retain(wb_dom_get_context(stanza), nullptr)) return QUILLON_STATUS_WB_ERROR;
  NodePtr reference(stanza);
  const size_t depth = queued_.fetch_add(1, std::memory_order_relaxed) + 1;
  if (depth >= warning_.load(std::memory_order_relaxed) && !admit(depth, admission)) {
    queued_.fetch_sub(1, std::memory_order_relaxed);
    return QUILLON_STATUS_UNKNOWN;
  }
  if (depth > highest_.load(std::memory_order_relaxed)) highest_.store(depth, std::memory_order_relaxed);
  std::shared_ptr<void> self;  // once the thread is awake its handler may destroy the owner; null: it need not be woken
  try {
    const std::lock_guard lock(mutex_);
    waiting_.push_back({std::move(reference), session});
    if (std::exchange(asleep_, false)) self = std::shared_ptr<void>(owner_.lock(), this);
  } catch (const std::bad_alloc &) {
    queued_.fetch_sub(1, std::memory_order_relaxed);
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

void DispatchThread::set_limits(const Limits &limits) {
  // A full queue is looked at too, and so there is one number to compare with.
  warning_.store(std::min(limits.warning, limits.bound), std::memory_order_relaxed);
  bound_.store(limits.bound, std::memory_order_relaxed);
}

quillon_handler_queue_usage DispatchThread::usage() const {
  return {queued(), highest_.load(std::memory_order_relaxed), dropped_.load(std::memory_order_relaxed)};
}

// At or above the warning: logs what is new, and tells whether the stanza may stay.
bool DispatchThread::admit(size_t depth, Admission admission) {
  const size_t reserved = admission == Admission::kNeeded ? std::min(depth, kReserve) : 0;
  if (depth - reserved <= bound_.load(std::memory_order_relaxed)) {
    if (raise(Alarm::kHigh)) wb_log(WB_LOG_WARN, "%zu %s wait for their handler, which is too slow for them", depth, content_);
    return true;
  }
  dropped_.fetch_add(1, std::memory_order_relaxed);
  if (raise(Alarm::kFull))
    wb_log(WB_LOG_WARN, "%zu %s wait for their handler, as many as may: further ones are dropped", depth - 1, content_);
  return false;
}

// True for the first to tell.
bool DispatchThread::raise(Alarm alarm) {
  Alarm told = alarm_.load(std::memory_order_relaxed);
  while (told < alarm) {
    if (alarm_.compare_exchange_weak(told, alarm, std::memory_order_relaxed)) return true;
  }
  return false;
}

// The queue has come down to half of what is worth a warning: the next crossing is told again.
void DispatchThread::calm() {
  if (alarm_.exchange(Alarm::kNone, std::memory_order_relaxed) == Alarm::kNone) return;
  const quillon_handler_queue_usage now = usage();
  wb_log(WB_LOG_INFO, "only %zu %s wait for their handler now; %zu did at most, and %" PRIu64 " were dropped", now.depth,
         content_, now.highest, now.dropped);
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
  const bool drops = !is_idle || queued() > 0;
  if (drops) drops_ = true;
  queued_.fetch_sub(waiting_.size(), std::memory_order_relaxed);
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
      const size_t depth = queued_.fetch_sub(1, std::memory_order_relaxed) - 1;
      if (alarm_.load(std::memory_order_relaxed) != Alarm::kNone && depth <= warning_.load(std::memory_order_relaxed) / 2) calm();
      if (drops_.load(std::memory_order_relaxed)) continue;
      guarded_void("dispatch", [&] { handler(owner, stanza.get()); });
    }
  }
}

}  // namespace qlk

#include "workq.h"

#include <memory>
#include <new>

#include "guard.h"
#include "loop_gate.h"

wb_workq::wb_workq(event_base *base) : base_(base), wakeup_(event_new(base, -1, 0, on_wakeup, this)) {}

wb_workq::~wb_workq() {
  {
    const std::lock_guard lock(mutex_);
    closed_ = true;
  }
  // Waits for a run on another thread. One that is still under way then is the caller of this.
  if (wakeup_ != nullptr) event_free(wakeup_);
  if (destroyed_ != nullptr) *destroyed_ = true;
  cancel_all();
}

void wb_workq::cancel_all() {
  while (next_ < running_.size()) {
    const Item item = running_[next_++];
    item.function(item.arg, true);
  }
  for (const Item &item : items_) item.function(item.arg, true);
}

bool wb_workq::put(wb_workq_function function, void *arg) {
  const std::lock_guard lock(mutex_);
  if (closed_) return false;
  items_.push_back(Item{function, arg});
  if (woken_) return true;
  // A timer and not an activation, which would still belong to the current pass: items that put items would keep the loop from
  // its sockets.
  constexpr timeval kAtOnce{0, 0};
  if (event_add(wakeup_, &kAtOnce) != 0) {
    items_.pop_back();
    throw std::bad_alloc();
  }
  woken_ = true;
  return true;
}

void wb_workq::on_wakeup(evutil_socket_t, short, void *arg) { static_cast<wb_workq *>(arg)->run(); }

void wb_workq::run() {
  const wb::LoopGate::OnLoop on_loop;
  bool destroyed = false;
  {
    const std::lock_guard lock(mutex_);
    woken_ = false;
    running_.swap(items_);
  }
  destroyed_ = &destroyed;
  while (next_ < running_.size()) {
    const Item item = running_[next_++];
    item.function(item.arg, false);
    if (destroyed) return;
  }
  running_.clear();
  next_ = 0;
  destroyed_ = nullptr;
}

bool wb_workq_create(wb_htable *config, wb_workq **out, wb_err *err) {
  return wb::guarded(err, __func__, [&] {
    if (out == nullptr) return WB_FAIL(err, WB_ERR_INVALID_ARG, "no place for the queue");
    *out = nullptr;
    auto *base = static_cast<event_base *>(wb_htable_get(config, "selector"));
    if (base == nullptr) return WB_FAIL(err, WB_ERR_INVALID_ARG, "no event base under \"selector\"");
    auto queue = std::make_unique<wb_workq>(base);
    if (!queue->usable()) return WB_FAIL(err, WB_ERR_NO_MEMORY, nullptr);
    *out = queue.release();
    return true;
  });
}

bool wb_workq_put(wb_workq *queue, wb_workq_function function, void *arg, wb_err *err) {
  return wb::guarded(err, __func__, [&] {
    if (queue == nullptr || function == nullptr) return WB_FAIL(err, WB_ERR_INVALID_ARG, "no queue or function");
    return queue->put(function, arg) || WB_FAIL(err, WB_ERR_INVALID_STATE, "the queue is being destroyed");
  });
}

void wb_workq_destroy(wb_workq *queue) { delete queue; }

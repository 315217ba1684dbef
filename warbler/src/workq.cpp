#include "workq.h"

#include <memory>

#include "guard.h"

wb_workq::wb_workq(event_base *base) : base_(base), wakeup_(event_new(base, -1, 0, on_wakeup, this)) {}

wb_workq::~wb_workq() {
  if (wakeup_ != nullptr) event_free(wakeup_);
  for (const Item &item : items_) item.function(item.arg, true);
}

void wb_workq::put(wb_workq_function function, void *arg) {
  {
    const std::lock_guard lock(mutex_);
    items_.push_back(Item{function, arg});
    if (woken_) return;
    woken_ = true;
  }
  event_active(wakeup_, EV_READ, 0);
}

void wb_workq::on_wakeup(evutil_socket_t, short, void *arg) { static_cast<wb_workq *>(arg)->run(); }

void wb_workq::run() {
  {
    const std::lock_guard lock(mutex_);
    woken_ = false;
    running_.swap(items_);
  }
  for (const Item &item : running_) item.function(item.arg, false);
  running_.clear();
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
    queue->put(function, arg);
    return true;
  });
}

void wb_workq_destroy(wb_workq *queue) { delete queue; }

#include "loop_gate.h"

#include <new>

#include "guard.h"

namespace wb {

namespace {

thread_local unsigned on_loop = 0;

}  // namespace

bool LoopGate::is_on_loop() { return on_loop > 0; }

LoopGate::OnLoop::OnLoop() { ++on_loop; }
LoopGate::OnLoop::~OnLoop() { --on_loop; }

LoopGate::Pass::Pass(std::shared_ptr<LoopGate> gate) : gate_(std::move(gate)) {
  gate_->mutex_.lock();
  entered_ = !gate_->closed_;
  if (entered_) {
    ++gate_->depth_;
    ++on_loop;
  } else {
    gate_->mutex_.unlock();
  }
}

LoopGate::Pass::Pass(std::shared_ptr<LoopGate> gate, std::try_to_lock_t) : gate_(std::move(gate)), entered_(false) {
  if (!gate_->mutex_.try_lock()) return;
  entered_ = !gate_->closed_ && gate_->depth_ == 0;
  if (entered_) {
    ++gate_->depth_;
    ++on_loop;
  } else {
    gate_->mutex_.unlock();
  }
}

LoopGate::Pass::~Pass() {
  if (!entered_) return;
  --on_loop;
  std::shared_ptr<Buriable> buried;
  if (--gate_->depth_ == 0) buried.swap(gate_->buried_);
  gate_->mutex_.unlock();
  while (buried != nullptr) {
    std::shared_ptr<Buriable> next = std::move(buried->next_);
    buried = std::move(next);
  }
}

LoopGate::Closed LoopGate::close() {
  const std::lock_guard lock(mutex_);
  if (closed_) return Closed::before;
  closed_ = true;
  // The mutex is recursive: a pass that is open now is this thread's own.
  return depth_ > 0 ? Closed::within_pass : Closed::outside_pass;
}

void LoopGate::bury(std::shared_ptr<Buriable> object) noexcept {
  if (object == nullptr) return;
  object->next_ = std::move(buried_);
  buried_ = std::move(object);
}

LoopEvent::LoopEvent(event_base *base, int fd, short what, std::shared_ptr<LoopGate> gate, Function function)
    : gate_(std::move(gate)), function_(std::move(function)), event_(event_new(base, fd, what, on_event, this)) {
  if (event_ == nullptr) throw std::bad_alloc();
}

LoopEvent::~LoopEvent() { event_free(event_); }

void LoopEvent::add() {
  if (event_add(event_, nullptr) != 0) throw std::bad_alloc();
}

void LoopEvent::add(std::chrono::milliseconds timeout) {
  if (!try_add(timeout)) throw std::bad_alloc();
}

bool LoopEvent::try_add(std::chrono::milliseconds timeout) noexcept {
  const auto rest = std::max(timeout, std::chrono::milliseconds(0)).count();
  const timeval interval{static_cast<time_t>(rest / 1000), static_cast<suseconds_t>(rest % 1000 * 1000)};
  return event_add(event_, &interval) == 0;
}

void LoopEvent::activate() noexcept { event_active(event_, EV_TIMEOUT, 0); }

void LoopEvent::remove() noexcept { event_del(event_); }

void LoopEvent::on_event(evutil_socket_t, short what, void *arg) {
  auto &self = *static_cast<LoopEvent *>(arg);
  const LoopGate::Pass pass(self.gate_);
  if (!pass) return;
  guarded(nullptr, __func__, [&] {
    self.function_(what);
    return true;
  });
}

}  // namespace wb

#include "event_loop.h"

#include <chrono>
#include <utility>

#include "guard.h"
#include "signals_blocked.h"

namespace qlk {

namespace {

// How long a thread that has nothing left to do may take to leave. It only logs before that; a log function that waits for the
// caller of settle must not hold it for ever.
constexpr std::chrono::seconds kLeavingTime{5};

thread_local EventLoop *dispatched_here = nullptr;

}  // namespace

struct EventLoop::Start {
  std::shared_ptr<EventLoop> loop;
  Thread *thread;
};

EventLoop::EventLoop(EventBasePtr base, EventPtr send_event, WorkQueuePtr queue)
    : base_(std::move(base)),
      send_event_(std::move(send_event)),
      break_event_(event_new(base_.get(), -1, 0, on_break, base_.get())),
      calls_event_(event_new(base_.get(), -1, 0, on_calls, this)),
      queue_(std::move(queue)) {}

std::shared_ptr<EventLoop> EventLoop::create(EventBasePtr base, EventPtr send_event, WorkQueuePtr queue) {
  const std::shared_ptr<EventLoop> loop(new EventLoop(std::move(base), std::move(send_event), std::move(queue)));
  return loop->break_event_ != nullptr && loop->calls_event_ != nullptr ? loop : nullptr;
}

EventLoop::~EventLoop() {
  // A running thread holds the loop, so all have finished; the last of them may be the one that ends here.
  for (const Thread &thread : threads_) {
    if (pthread_equal(thread.handle, pthread_self()) != 0) {
      pthread_detach(thread.handle);
    } else {
      pthread_join(thread.handle, nullptr);
    }
  }
}

void EventLoop::wake_up() { event_active(send_event_.get(), EV_WRITE, 0); }

void EventLoop::enter() {
  const std::lock_guard lock(mutex_);
  ++users_;
  changed_.notify_all();
}

void EventLoop::leave() {
  {
    const std::lock_guard lock(mutex_);
    --users_;
  }
  // An activated event waits for a loop that is just about to be entered; a bare event_base_loopbreak would be forgotten there.
  event_active(break_event_.get(), EV_READ, 0);
}

void EventLoop::on_break(evutil_socket_t, short, void *arg) { event_base_loopbreak(static_cast<event_base *>(arg)); }

bool EventLoop::dispatches_here() noexcept { return dispatched_here != nullptr; }

bool EventLoop::call_soon(std::shared_ptr<void> pointer, void (*function)(void *)) noexcept {
  EventLoop *const loop = dispatched_here;
  if (loop == nullptr) return false;
  try {
    loop->calls_.push_back(Call{std::move(pointer), function});
  } catch (const std::bad_alloc &) {
    return false;
  }
  if (loop->calls_.size() == 1) event_active(loop->calls_event_.get(), EV_READ, 0);
  return true;
}

void EventLoop::on_calls(evutil_socket_t, short, void *self) { static_cast<EventLoop *>(self)->run_calls(); }

void EventLoop::run_calls() {
  const std::vector<Call> due = std::exchange(calls_, {});
  for (const Call &call : due) call.function(call.pointer.get());
}

bool EventLoop::start_thread(pthread_t &handle) {
  reap();
  const std::lock_guard lock(mutex_);
  if (closed_) return false;
  const size_t before = threads_.size();
  try {
    Thread &thread = threads_.emplace_back();
    auto start = std::make_unique<Start>(Start{shared_from_this(), &thread});
    const SignalsBlocked blocked;
    if (pthread_create(&thread.handle, nullptr, run, start.get()) == 0) {
      static_cast<void>(start.release());  // the thread's now
      handle = thread.handle;
      return true;
    }
  } catch (const std::bad_alloc &) {
    wb_log(WB_LOG_ERROR, "no memory for a thread");
  }
  if (threads_.size() > before) threads_.pop_back();
  return false;
}

void *EventLoop::run(void *argument) {
  const std::unique_ptr<Start> start(static_cast<Start *>(argument));
  wb_log(WB_LOG_DEBUG, " starting connection thread .....");
  start->loop->dispatch();
  wb_log(WB_LOG_DEBUG, " connection thread done .....");
  start->loop->finish(*start->thread);
  return nullptr;
}

void EventLoop::dispatch() {
  {
    const std::lock_guard lock(mutex_);
    if (dispatching_ || closed_ || users_ == 0) return;
    dispatching_ = true;
  }
  dispatched_here = this;
  int result = 0;
  do {
    result = event_base_loop(base_.get(), EVLOOP_NO_EXIT_ON_EMPTY);
    run_calls();  // a loop that is broken off leaves its events for later
    if (result < 0) {
      wb_log(WB_LOG_ERROR, "error in connection event loop: %d", result);
    } else {
      wb_log(WB_LOG_INFO, "Event loop exit. status=%d", result);
    }
  } while (result >= 0 && !may_leave());
  dispatched_here = nullptr;
  if (result >= 0) return;
  const std::lock_guard lock(mutex_);
  dispatching_ = false;
}

bool EventLoop::may_leave() {
  const std::lock_guard lock(mutex_);
  if (users_ > 0 && !closed_) return false;
  dispatching_ = false;
  return true;
}

void EventLoop::finish(Thread &thread) {
  const std::lock_guard lock(mutex_);
  thread.finished = true;
  changed_.notify_all();
}

void EventLoop::reap() {
  std::list<Thread> finished;
  {
    const std::lock_guard lock(mutex_);
    for (auto thread = threads_.begin(); thread != threads_.end();) {
      const auto next = std::next(thread);
      if (thread->finished) finished.splice(finished.end(), threads_, thread);
      thread = next;
    }
  }
  for (const Thread &thread : finished) pthread_join(thread.handle, nullptr);
}

size_t EventLoop::count_running_locked() const {
  size_t running = 0;
  for (const Thread &thread : threads_) running += thread.finished ? 0 : 1;
  return running;
}

void EventLoop::settle() {
  if (!is_loop_thread()) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kLeavingTime, [&] { return count_running_locked() <= count_needed_locked(); });
  }
  reap();
}

void EventLoop::close() {
  {
    const std::lock_guard lock(mutex_);
    closed_ = true;
  }
  event_active(break_event_.get(), EV_READ, 0);
  settle();
}

bool EventLoop::is_closed() const {
  const std::lock_guard lock(mutex_);
  return closed_;
}

bool EventLoop::is_loop_thread() const { return dispatched_here == this; }

}  // namespace qlk

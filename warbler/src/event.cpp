#include "event.h"

#include "guard.h"

wb_event::~wb_event() { clear(); }

void wb_event::State::sweep_locked() {
  std::erase_if(bindings, [](const Binding &binding) { return !binding.bound; });
}

void wb_event::bind(wb_event_callback callback, void *arg) {
  const std::lock_guard lock(state_->mutex);
  state_->bindings.push_back(Binding{callback, arg});
}

void wb_event::unbind(wb_event_callback callback) {
  const std::lock_guard lock(state_->mutex);
  for (Binding &binding : state_->bindings) {
    if (binding.callback == callback) binding.bound = false;
  }
  if (state_->dispatching == 0) state_->sweep_locked();
}

void wb_event::clear() {
  const std::lock_guard lock(state_->mutex);
  for (Binding &binding : state_->bindings) binding.bound = false;
  if (state_->dispatching == 0) state_->sweep_locked();
}

void wb_event::raise(void *source, void *data) {
  const std::shared_ptr<State> state = state_;  // outlives the event if a callback destroys it
  wb_event_data event{name_, source, data};
  std::unique_lock lock(state->mutex);
  ++state->dispatching;
  const size_t count = state->bindings.size();
  for (size_t i = 0; i < count; ++i) {
    const Binding binding = state->bindings[i];
    if (!binding.bound) continue;
    lock.unlock();
    binding.callback(&event, binding.arg);
    lock.lock();
  }
  if (--state->dispatching == 0) state->sweep_locked();
}

bool wb_event_bind(wb_event *event, wb_event_callback callback, void *arg, wb_err *err) {
  return wb::guarded(err, __func__, [&] {
    if (event == nullptr || callback == nullptr) return WB_FAIL(err, WB_ERR_INVALID_ARG, "no event or function");
    event->bind(callback, arg);
    return true;
  });
}

void wb_event_unbind(wb_event *event, wb_event_callback callback) {
  if (event != nullptr && callback != nullptr) event->unbind(callback);
}

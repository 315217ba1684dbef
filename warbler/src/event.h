// A named event and its bindings.
#pragma once

#include <warbler/event.h>

#include <memory>
#include <mutex>
#include <vector>

struct wb_event {
 public:
  explicit wb_event(const char *name) : name_(name) {}
  ~wb_event();
  wb_event(const wb_event &) = delete;
  wb_event &operator=(const wb_event &) = delete;

  void bind(wb_event_callback callback, void *arg);
  void unbind(wb_event_callback callback);

  // Unbinds all.
  void clear();

  // Calls the bound functions in order, with no lock held. A function that was unbound since the dispatch began is not called any
  // more, and the event itself may be destroyed by a function that it calls.
  void raise(void *source, void *data);

  const char *name() const { return name_; }

 private:
  struct Binding {
    wb_event_callback callback;
    void *arg;
    bool bound = true;
  };
  // Held by the event and by each dispatch under way. Bindings are only marked while one is, so that it can walk them by index.
  struct State {
    std::mutex mutex;
    std::vector<Binding> bindings;
    unsigned dispatching = 0;
    void sweep_locked();
  };

  const char *const name_;
  const std::shared_ptr<State> state_ = std::make_shared<State>();
};

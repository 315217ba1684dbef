// The gate between the loop and an object that any thread may destroy.
//
// Everything that the loop does for a client passes the client's gate. Closing the gate waits for a pass under way on another
// thread and lets none begin afterwards, so the objects behind it can then be freed; a pass that closes the gate itself goes on
// to its end. Objects that a pass wants gone while their own functions are still on the stack are buried, and freed when the
// outermost pass ends.
#pragma once

#include <event2/event.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace wb {

class LoopGate {
 public:
  // One entry of the loop; false when the gate is closed.
  class Pass {
   public:
    explicit Pass(std::shared_ptr<LoopGate> gate);
    ~Pass();
    Pass(const Pass &) = delete;
    Pass &operator=(const Pass &) = delete;
    explicit operator bool() const { return entered_; }

   private:
    const std::shared_ptr<LoopGate> gate_;
    bool entered_;
  };

  // Any thread. Tells whether it was closed already, and if not, whether the caller is itself within a pass.
  enum class Closed { before, outside_pass, within_pass };
  Closed close();
  // Within a pass.
  bool is_closed() const { return closed_; }
  void bury(std::shared_ptr<void> object);

 private:
  std::recursive_mutex mutex_;
  bool closed_ = false;
  unsigned depth_ = 0;
  std::vector<std::shared_ptr<void>> buried_;
};

// A libevent event whose function runs within a pass. Freeing it on another thread than the loop's waits for a call under way, so
// it must then be done with the gate closed and not from within a pass.
class LoopEvent {
 public:
  using Function = std::function<void(short what)>;

  // fd -1: a timer, or an event that is only activated. Throws std::bad_alloc.
  LoopEvent(event_base *base, int fd, short what, std::shared_ptr<LoopGate> gate, Function function);
  ~LoopEvent();
  LoopEvent(const LoopEvent &) = delete;
  LoopEvent &operator=(const LoopEvent &) = delete;

  // Waits for the descriptor, without limit. Any thread, as the other two.
  void add();
  // Waits at most so long.
  void add(std::chrono::milliseconds timeout);
  void remove();
  // Runs the function in the current pass of the loop.
  void activate();

 private:
  static void on_event(evutil_socket_t, short what, void *arg);

  const std::shared_ptr<LoopGate> gate_;
  const Function function_;
  event *const event_;
};

}  // namespace wb

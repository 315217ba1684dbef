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

namespace wb {

// What can be buried. A grave is a list through the dead themselves, so that none is lost for want of memory.
class Buriable {
 protected:
  Buriable() = default;
  ~Buriable() = default;

 private:
  friend class LoopGate;
  std::shared_ptr<Buriable> next_;
};

class LoopGate {
 public:
  // One entry of the loop; false when the gate is closed.
  class Pass {
   public:
    explicit Pass(std::shared_ptr<LoopGate> gate);
    // On a thread that need not be the loop's: does not wait, and is not entered while another pass is under way either.
    Pass(std::shared_ptr<LoopGate> gate, std::try_to_lock_t);
    ~Pass();
    Pass(const Pass &) = delete;
    Pass &operator=(const Pass &) = delete;
    explicit operator bool() const { return entered_; }

   private:
    const std::shared_ptr<LoopGate> gate_;
    bool entered_;
  };

  // The thread is the loop's, as far as can be told: it is in a pass, or in what OnLoop was made for.
  static bool is_on_loop();
  struct OnLoop {
    OnLoop();
    ~OnLoop();
    OnLoop(const OnLoop &) = delete;
    OnLoop &operator=(const OnLoop &) = delete;
  };

  // Any thread. Tells whether it was closed already, and if not, whether the caller is itself within a pass.
  enum class Closed { before, outside_pass, within_pass };
  Closed close();
  // Within a pass.
  bool is_closed() const { return closed_; }
  // An object is buried at most once; null is harmless.
  void bury(std::shared_ptr<Buriable> object) noexcept;

 private:
  std::recursive_mutex mutex_;
  bool closed_ = false;
  unsigned depth_ = 0;
  std::shared_ptr<Buriable> buried_;
};

// A libevent event whose function runs within a pass. Freeing it on another thread than the loop's waits for a call under way, so
// it must then be done with the gate closed and not from within a pass.
class LoopEvent final : public Buriable {
 public:
  using Function = std::function<void(short what)>;

  // fd -1: a timer. Throws std::bad_alloc.
  LoopEvent(event_base *base, int fd, short what, std::shared_ptr<LoopGate> gate, Function function);
  ~LoopEvent();
  LoopEvent(const LoopEvent &) = delete;
  LoopEvent &operator=(const LoopEvent &) = delete;

  // Waits for the descriptor, without limit. Any thread, as those below. Throws std::bad_alloc.
  void add();
  // Waits at most so long. Throws std::bad_alloc.
  void add(std::chrono::milliseconds timeout);
  // The same; false without memory. It never fails for an event that waits with a limit already.
  bool try_add(std::chrono::milliseconds timeout) noexcept;
  // A timer's function runs in the next pass of the loop, after what is ready by then: whoever has much to do lets others have
  // their turn. Throws std::bad_alloc.
  void add_for_next_pass() { add(std::chrono::milliseconds(0)); }
  // The function runs soon, perhaps in the current pass still: for what is rare. Needs no memory.
  void activate() noexcept;
  void remove() noexcept;

 private:
  static void on_event(evutil_socket_t, short what, void *arg);

  const std::shared_ptr<LoopGate> gate_;
  const Function function_;
  event *const event_;
};

}  // namespace wb

// The way of other threads, and of what waits for the event loop, to a connection's XMPP client. When the connection is
// destroyed, or the library shut down, the gate closes for good: nobody gets through any more, and whoever waits for an outcome
// is woken.
#pragma once

#include <warbler/warbler.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <list>
#include <mutex>
#include <shared_mutex>

namespace qlk {

class ClientGate {
 public:
  ClientGate();
  ~ClientGate();
  ClientGate(const ClientGate &) = delete;
  ClientGate &operator=(const ClientGate &) = delete;

  void open(wb_client *client) {
    const std::unique_lock lock(mutex_);
    if (!closing_) client_ = client;
  }

  // Passes the client to the function, which must raise no event; false when the gate is closed. Any thread.
  template <typename Function>
  bool use(Function &&function) {
    if (closing_.load(std::memory_order_relaxed)) return false;
    const std::shared_lock lock(mutex_);
    if (client_ == nullptr) return false;
    function(client_);
    return true;
  }

  // The same for a function that may raise events, whose handlers may close the gate. On the loop.
  template <typename Function>
  bool use_on_loop(Function &&function) {
    wb_client *client = nullptr;
    {
      const std::unique_lock lock(mutex_);
      if (client_ == nullptr) return false;
      client = client_;
      ++loop_uses_;
    }
    function(client);
    const std::unique_lock lock(mutex_);
    --loop_uses_;
    unused_.notify_all();
    return true;
  }

  bool is_open() const {
    const std::shared_lock lock(mutex_);
    return client_ != nullptr;
  }

  // Someone who waits for an outcome; woken with no lock held that use needs. False when the gate is closed already.
  using Waiter = std::function<void()>;
  class Waiting {
   public:
    Waiting(ClientGate &gate, Waiter wake);
    ~Waiting();
    Waiting(const Waiting &) = delete;
    Waiting &operator=(const Waiting &) = delete;
    explicit operator bool() const { return admitted_; }

   private:
    ClientGate &gate_;
    std::list<Waiter> entry_;  // moved into the gate's list and back
    std::list<Waiter>::iterator place_;
    bool admitted_ = false;
  };

  // Lets nobody in any more and wakes all who wait. Any thread; waits for calls of use, which are short.
  void close();
  // Closes all that there are in the process.
  static void close_all();
  // Waits until the loop is done with the client; not for the caller's own use of it, when it is the loop.
  void drain(bool on_loop);

 private:
  std::atomic<bool> closing_ = false;  // nobody begins any more: those who share the lock do not starve who closes
  mutable std::shared_mutex mutex_;
  std::condition_variable_any unused_;
  wb_client *client_ = nullptr;  // under mutex_
  unsigned loop_uses_ = 0;       // under mutex_

  std::mutex waiters_mutex_;
  std::list<Waiter> waiters_;  // under waiters_mutex_
  bool closed_ = false;        // under waiters_mutex_

  ClientGate *next_, *previous_;  // of all gates, under a lock of theirs
};

}  // namespace qlk

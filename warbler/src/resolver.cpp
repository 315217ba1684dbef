#include "resolver.h"

#include <signal.h>

#include <list>
#include <mutex>
#include <new>
#include <thread>

#include "endpoint.h"
#include "guard.h"

namespace wb {

// Shared by the lookup, the thread that is at it, which may be so for longer than the lookup lives, and the item on the queue.
struct Lookup::State {
  std::string host;
  std::string port;
  bool is_literal = false;
  Done done;  // the loop's
  std::mutex mutex;
  wb_workq *queue;  // under mutex; null once cancelled, after which the queue may be gone
  AddressList list;
  int error = 0;
};

namespace {

// The application's signals are for its own threads.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SignalsBlocked(const SignalsBlocked &) = delete;
  SignalsBlocked &operator=(const SignalsBlocked &) = delete;

 private:
  sigset_t before_;
};

}  // namespace

// The threads, each of which ends when no lookup waits for it.
class Lookup::Threads {
 public:
  // Never destroyed: a lookup may still be under way when the process ends.
  static Threads &all() {
    static auto &threads = *new Threads;
    return threads;
  }

  // Throws std::bad_alloc, or std::system_error when there is no thread at all.
  void add(const std::shared_ptr<State> &state) {
    std::list<std::shared_ptr<State>> entry{state};
    const std::lock_guard lock(mutex_);
    waiting_.splice(waiting_.end(), entry);
    if (running_ == kLookupThreadsMax) return;
    try {
      const SignalsBlocked blocked;
      std::thread([this] { run(); }).detach();
      ++running_;
    } catch (...) {
      if (running_ > 0) return;
      waiting_.pop_back();
      throw;
    }
  }

  // A lookup whose turn has not come is forgotten.
  void remove(const std::shared_ptr<State> &state) {
    const std::lock_guard lock(mutex_);
    waiting_.remove(state);
  }

 private:
  void run() {
    for (;;) {
      std::list<std::shared_ptr<State>> next;
      {
        const std::lock_guard lock(mutex_);
        if (waiting_.empty()) {
          --running_;
          return;
        }
        next.splice(next.end(), waiting_, waiting_.begin());
      }
      // Without memory nothing is reported, and the attempt ends by its deadline.
      resolve(next.front());
    }
  }

  std::mutex mutex_;
  std::list<std::shared_ptr<State>> waiting_;  // under mutex_
  unsigned running_ = 0;                       // under mutex_
};

Lookup::Lookup(wb_workq &queue, const std::string &host, unsigned port, Done done)
    : threads_(Threads::all()), state_(std::make_shared<State>()) {
  state_->host = host;
  state_->port = std::to_string(port);
  state_->done = std::move(done);
  state_->queue = &queue;
  state_->is_literal = is_address_literal(host);
  if (!state_->is_literal) {
    threads_.add(state_);
  } else if (!resolve(state_)) {
    throw std::bad_alloc();
  }
}

Lookup::~Lookup() {
  threads_.remove(state_);
  const std::lock_guard lock(state_->mutex);
  state_->queue = nullptr;
}

bool Lookup::resolve(const std::shared_ptr<State> &state) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_ADDRCONFIG | AI_NUMERICSERV;
  if (state->is_literal) hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  addrinfo *list = nullptr;
  const int error = getaddrinfo(state->host.c_str(), state->port.c_str(), &hints, &list);
  const std::lock_guard lock(state->mutex);
  state->list.reset(error == 0 ? list : nullptr);
  state->error = error;
  if (state->queue == nullptr) return true;
  return guarded(nullptr, __func__, [&] {
    auto item = std::make_unique<std::shared_ptr<State>>(state);
    if (!state->queue->put(deliver, item.get())) return false;
    item.release();
    return true;
  });
}

void Lookup::deliver(void *arg, bool cancelled) {
  const std::unique_ptr<std::shared_ptr<State>> item(static_cast<std::shared_ptr<State> *>(arg));
  State &state = **item;
  AddressList list;
  {
    const std::lock_guard lock(state.mutex);
    if (cancelled || state.queue == nullptr) return;
    state.queue = nullptr;
    list = std::move(state.list);
  }
  // Moved out, so that it may destroy the lookup that holds it.
  const Done done = std::move(state.done);
  done(std::move(list), state.error);
}

}  // namespace wb

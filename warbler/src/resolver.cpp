#include "resolver.h"

#include <signal.h>

#include <mutex>
#include <thread>

#include "endpoint.h"
#include "guard.h"

namespace wb {

// Shared by the lookup, its thread, which may outlive it for as long as the system's resolver takes, and the item on the queue.
struct Lookup::State {
  std::string host;
  std::string port;
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

Lookup::Lookup(wb_workq &queue, const std::string &host, unsigned port, Done done) : state_(std::make_shared<State>()) {
  state_->host = host;
  state_->port = std::to_string(port);
  state_->done = std::move(done);
  state_->queue = &queue;
  if (is_address_literal(host)) {
    resolve(state_);
    return;
  }
  const SignalsBlocked blocked;
  std::thread([state = state_] { resolve(state); }).detach();
}

Lookup::~Lookup() {
  const std::lock_guard lock(state_->mutex);
  state_->queue = nullptr;
}

void Lookup::resolve(const std::shared_ptr<State> &state) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_ADDRCONFIG | AI_NUMERICSERV;
  if (is_address_literal(state->host)) hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  addrinfo *list = nullptr;
  const int error = getaddrinfo(state->host.c_str(), state->port.c_str(), &hints, &list);
  const std::lock_guard lock(state->mutex);
  state->list.reset(error == 0 ? list : nullptr);
  state->error = error;
  if (state->queue == nullptr) return;
  // Without memory for the item nothing is reported, and the attempt ends by its deadline.
  guarded(nullptr, __func__, [&] {
    auto item = std::make_unique<std::shared_ptr<State>>(state);
    state->queue->put(deliver, item.get());
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

#include "client_gate.h"

#include <utility>

namespace qlk {

namespace {

std::mutex all_mutex;
ClientGate *all = nullptr;  // the first; under all_mutex

}  // namespace

ClientGate::ClientGate() : previous_(nullptr) {
  const std::lock_guard lock(all_mutex);
  next_ = std::exchange(all, this);
  if (next_ != nullptr) next_->previous_ = this;
}

ClientGate::~ClientGate() {
  const std::lock_guard lock(all_mutex);
  (previous_ != nullptr ? previous_->next_ : all) = next_;
  if (next_ != nullptr) next_->previous_ = previous_;
}

ClientGate::Waiting::Waiting(ClientGate &gate, Waiter wake) : gate_(gate) {
  place_ = entry_.insert(entry_.end(), std::move(wake));
  const std::lock_guard lock(gate_.waiters_mutex_);
  if (gate_.closed_) return;
  gate_.waiters_.splice(gate_.waiters_.end(), entry_);
  admitted_ = true;
}

ClientGate::Waiting::~Waiting() {
  if (!admitted_) return;
  const std::lock_guard lock(gate_.waiters_mutex_);
  entry_.splice(entry_.end(), gate_.waiters_, place_);
}

void ClientGate::close() {
  closing_ = true;
  {
    const std::unique_lock lock(mutex_);
    client_ = nullptr;
  }
  const std::lock_guard lock(waiters_mutex_);
  closed_ = true;
  for (const Waiter &wake : waiters_) wake();
}

void ClientGate::close_all() {
  const std::lock_guard lock(all_mutex);
  for (ClientGate *gate = all; gate != nullptr; gate = gate->next_) gate->close();
}

void ClientGate::drain(bool on_loop) {
  if (on_loop) return;
  std::unique_lock lock(mutex_);
  unused_.wait(lock, [this] { return loop_uses_ == 0; });
}

}  // namespace qlk

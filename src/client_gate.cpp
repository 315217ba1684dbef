#include "client_gate.h"

#include <algorithm>

namespace qlk {

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
  {
    const std::unique_lock lock(mutex_);
    client_ = nullptr;
  }
  const std::lock_guard lock(waiters_mutex_);
  closed_ = true;
  for (const Waiter &wake : waiters_) wake();
}

void ClientGate::drain(bool on_loop) {
  if (on_loop) return;
  std::unique_lock lock(mutex_);
  unused_.wait(lock, [this] { return loop_uses_ == 0; });
}

void OpenGates::add(const std::shared_ptr<ClientGate> &gate) {
  const std::lock_guard lock(mutex_);
  if (gates_.size() >= swept_) {
    std::erase_if(gates_, [](const std::weak_ptr<ClientGate> &other) { return other.expired(); });
    swept_ = std::max(swept_, 2 * gates_.size());
  }
  gates_.push_back(gate);
}

void OpenGates::close_all() {
  std::vector<std::weak_ptr<ClientGate>> gates;
  {
    const std::lock_guard lock(mutex_);
    gates.swap(gates_);
  }
  for (const std::weak_ptr<ClientGate> &held : gates) {
    if (const std::shared_ptr<ClientGate> gate = held.lock(); gate != nullptr) gate->close();
  }
}

}  // namespace qlk

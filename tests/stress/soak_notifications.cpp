#include "soak_notifications.h"

#include <algorithm>
#include <cstdlib>

namespace soak {

namespace {

constexpr uint64_t kUnderWay = 20;
constexpr std::chrono::seconds kArrival{30};

}  // namespace

Notifications::Notifications(grid_test::Client &teller, std::initializer_list<grid_test::Client *> listeners) : teller_(teller) {
  const auto heard = [](wb_dom_node *told, void *by) {
    auto &listener = *static_cast<Listener *>(by);
    listener.owner->receive(listener, grid_test::text_of(told));
  };
  for (grid_test::Client *client : listeners) {
    listeners_.push_back({.owner = this, .client = client});
    quillon_connection_register_notification_handler(client->connection, grid_test::kNamespace, "told", heard,
                                                     &listeners_.back());
  }
}

void Notifications::run(quillon_capability *capability) {
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return phase.is_over || (may_tell_ && has_room()); });
    if (phase.is_over) return;
    is_telling_ = true;
    const std::string text = std::to_string(series_) + " " + std::to_string(sent_);
    lock.unlock();
    const Moment moment;
    const QUILLON_STATUS status = quillon_connection_notify(teller_.connection, capability, grid_test::payload("told", text));
    if (status == QUILLON_STATUS_OK) {
      ++counts.sent;
    } else {
      if (!moment.is_of_restart()) complain("a notification was not sent", status);
      pause_a_little();  // nobody is there
    }
    lock.lock();
    if (status == QUILLON_STATUS_OK) ++sent_;
    is_telling_ = false;
    changed_.notify_all();
  }
}

void Notifications::resume() {
  const std::lock_guard lock(mutex_);
  may_tell_ = true;
  changed_.notify_all();
}

bool Notifications::pause() {
  std::unique_lock lock(mutex_);
  may_tell_ = false;
  return changed_.wait_for(lock, kPatience, [this] { return !is_telling_; });
}

void Notifications::end_run() {
  const std::lock_guard lock(mutex_);
  phase.is_over = true;
  changed_.notify_all();
}

void Notifications::end_series(const grid_test::Client *away) {
  std::unique_lock lock(mutex_);
  const auto is_missing = [&](const Listener &listener) { return listener.client != away && heard_by(listener) < sent_; };
  changed_.wait_for(lock, kArrival, [&] { return std::none_of(listeners_.begin(), listeners_.end(), is_missing); });
  for (const Listener &listener : listeners_) {
    if (is_missing(listener)) counts.lost += sent_ - heard_by(listener);
    if (listener.series == series_) counts.lost += listener.skipped;
  }
  begin_series();
}

void Notifications::give_up_series() {
  const std::lock_guard lock(mutex_);
  begin_series();
}

void Notifications::count_gaps() {
  const std::lock_guard lock(mutex_);
  for (Listener &listener : listeners_) {
    counts.lost += listener.skipped;
    listener.skipped = 0;
  }
}

void Notifications::receive(Listener &listener, const std::string &text) {
  char *end = nullptr;
  const uint64_t series = std::strtoul(text.c_str(), &end, 10), number = std::strtoul(end, nullptr, 10);
  ++counts.received;
  const std::lock_guard lock(mutex_);
  if (series > listener.series) {
    listener.series = series;
    listener.next = listener.skipped = 0;
  }
  if (series < listener.series || number < listener.next) {
    ++counts.repeated;
    return;
  }
  listener.skipped += number - listener.next;
  listener.next = number + 1;
  changed_.notify_all();
}

bool Notifications::has_room() const {
  return std::all_of(listeners_.begin(), listeners_.end(),
                     [this](const Listener &listener) { return sent_ < heard_by(listener) + kUnderWay; });
}

void Notifications::begin_series() {
  ++series_;
  sent_ = 0;
}

}  // namespace soak

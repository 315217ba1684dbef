// The notifications of a soak: numbered by their sender, and looked at by everyone who receives them.
#pragma once

#include <condition_variable>
#include <deque>
#include <initializer_list>
#include <mutex>

#include "grid_client.h"
#include "soak_counts.h"

namespace soak {

// Sends as fast as all listeners receive: so many may be under way, and no more. A notification bears the number of its series,
// which no upheaval interrupts, and its own in it.
class Notifications {
 public:
  // Registers handlers with the listeners, who need not be connected yet.
  Notifications(grid_test::Client &teller, std::initializer_list<grid_test::Client *> listeners);

  // Sends until the run is over, whenever it may.
  void run(quillon_capability *capability);
  void resume();
  // After the return none is being sent. False when that did not come.
  bool pause();
  void end_run();

  // While paused: all that were sent arrive, but for those to whoever was away, and those that did not are counted as lost. Ends
  // the series.
  void end_series(const grid_test::Client *away = nullptr);
  // The same, but what has not arrived may be lost.
  void give_up_series();
  // Counts as lost what was missing up to now.
  void count_gaps();

 private:
  struct Listener {
    Notifications *owner;
    const grid_test::Client *client;
    uint64_t series = 0, next = 0, skipped = 0;
  };

  void receive(Listener &listener, const std::string &text);
  // How many of the series a listener has received or missed.
  uint64_t heard_by(const Listener &listener) const { return listener.series == series_ ? listener.next : 0; }
  bool has_room() const;
  void begin_series();

  grid_test::Client &teller_;
  std::mutex mutex_;  // of all that follows
  std::condition_variable changed_;
  std::deque<Listener> listeners_;
  bool may_tell_ = false, is_telling_ = false;
  uint64_t series_ = 1, sent_ = 0;
};

}  // namespace soak

// Dials addresses until one answers: one after the other, or in a race, in which the next begins while the ones before are still
// at it.
#pragma once

#include <sys/socket.h>

#include <deque>
#include <list>

#include "loop_gate.h"
#include "resolver.h"

namespace wb {

class Connector final : public Buriable {
 public:
  using Clock = std::chrono::steady_clock;
  // What became of it. fd is a connected, non-blocking socket for the receiver, or -1 when no address answered.
  struct Outcome {
    int fd;
    size_t host;       // whose address answered
    std::string text;  // the address in numbers, or what failed
  };
  using Done = std::function<void(const Outcome &outcome)>;

  // With a gap of 0 each address gets its share of the time until the deadline. With any other the next one begins when the gap
  // is over or the one before has failed, and the first that answers wins.
  Connector(event_base *base, std::shared_ptr<LoopGate> gate, std::chrono::milliseconds gap, Clock::time_point deadline,
            Done done);
  ~Connector();
  Connector(const Connector &) = delete;
  Connector &operator=(const Connector &) = delete;

  // All within a pass; done may run at once, and may bury the connector. Adds the addresses of a host, whose place among all
  // hosts decides when they have their turn, and begins. more: there are hosts yet to be added, so that it does not give up
  // before.
  void add(size_t host, const AddressList &addresses, bool more);
  // The same for a host that has no address, and why.
  void add_failure(const std::string &why, bool more);

 private:
  struct Target {
    size_t host;
    sockaddr_storage address;
    socklen_t size;
  };
  struct Attempt {
    int fd = -1;
    size_t host = 0;
    std::string text;
    std::shared_ptr<LoopEvent> ready;
  };
  using Attempts = std::list<Attempt>;

  bool is_race() const { return gap_.count() > 0; }
  void interleave_families();
  void go_on();
  void wait_for_turn();
  bool dial(const Target &target);
  void on_ready(Attempts::iterator attempt, short what);
  void note_failure(const std::string &address, int error);
  void drop(Attempts::iterator attempt);
  void drop_all();
  void report(const Outcome &outcome);
  template <typename Function>
  void run(Function &&function);
  std::chrono::milliseconds patience() const;

  event_base *const base_;
  const std::shared_ptr<LoopGate> gate_;
  const std::chrono::milliseconds gap_;
  const Clock::time_point deadline_;
  const Done done_;
  std::deque<Target> waiting_;  // in the order of their turns
  Attempts attempts_;
  std::shared_ptr<LoopEvent> turn_;         // of the next in a race
  sa_family_t family_dialled_ = AF_UNSPEC;  // last
  std::string failures_;
  bool more_ = false;
};

// Sets what a socket of a long-lived session needs: no delay of small writes, and a vanished peer noticed by the kernel within
// about idle_seconds of trying.
void tune_socket(int fd, unsigned idle_seconds);

}  // namespace wb

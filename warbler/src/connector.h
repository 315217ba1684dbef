// Dials the addresses of a list one after the other until one answers.
#pragma once

#include "loop_gate.h"
#include "resolver.h"

namespace wb {

class Connector final : public Buriable {
 public:
  using Clock = std::chrono::steady_clock;
  // fd is a connected, non-blocking socket for the receiver, or -1 when no address answered; text tells the address, or what
  // failed.
  using Done = std::function<void(int fd, const std::string &text)>;

  // Each address gets its share of the time until the deadline. Begins with start.
  Connector(event_base *base, std::shared_ptr<LoopGate> gate, AddressList addresses, Clock::time_point deadline, Done done);
  ~Connector();
  Connector(const Connector &) = delete;
  Connector &operator=(const Connector &) = delete;

  // Within a pass; done may run at once, and may bury the connector.
  void start() { try_next(); }

 private:
  void try_next();
  void on_ready(short what);
  void note_failure(int error);
  void drop_socket();
  void report(int fd);
  std::chrono::milliseconds share() const;

  event_base *const base_;
  const std::shared_ptr<LoopGate> gate_;
  const AddressList addresses_;
  const Clock::time_point deadline_;
  const Done done_;
  const addrinfo *next_;
  std::string address_;  // the one that is tried, in numbers
  std::string failures_;
  int fd_ = -1;
  std::shared_ptr<LoopEvent> ready_;
};

// Sets what a socket of a long-lived session needs: no delay of small writes, and a vanished peer noticed by the kernel within
// about idle_seconds of trying.
void tune_socket(int fd, unsigned idle_seconds);

}  // namespace wb

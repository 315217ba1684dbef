// What the connections of all peers have in common, whatever they speak: a socket, how it is left, and the meeting of faults.
#pragma once

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <qlk/testpeer/script.hpp>

#include "peer_socket.h"

namespace testpeer {

// How often each fault was met, on all connections of a peer.
class FaultsMet {
 public:
  // Of that key, before this time.
  unsigned count(const std::string &key);

 private:
  std::mutex mutex_;
  std::map<std::string, unsigned> counts_;
};

class PeerLink {
 public:
  virtual ~PeerLink() = default;
  PeerLink(const PeerLink &) = delete;
  PeerLink &operator=(const PeerLink &) = delete;

  // The connection from its beginning to its end, on a thread of its own.
  virtual void run() = 0;
  // In the place of run: there is no thread for it.
  virtual void finish() = 0;
  virtual bool has_ended() const = 0;
  // Everything that waits, now or later, fails. Any thread.
  void abandon() { socket_.abandon(); }

 protected:
  enum class Ending { none, close, truncate, reset };
  struct Ended {};     // thrown: there is nothing more to do
  struct Silenced {};  // thrown: nothing is answered any more
  // What stands in a fault's texts for what is known only now.
  using Values = std::vector<std::pair<std::string_view, std::string>>;

  // Takes the descriptor over, unless it throws.
  PeerLink(int descriptor, std::chrono::milliseconds write_deadline, PeerSocket::OnSegment on_segment)
      : socket_(descriptor, write_deadline, std::move(on_segment)) {}

  virtual bool send(std::string_view bytes) = 0;
  // Closes in order, and says why if the protocol has words for that.
  virtual void stream_error(const std::string &condition, const std::string &text) = 0;

  // Whether the normal answer is still to be given.
  bool meet(FaultsMet &met, const std::string &key, const Fault &fault, const std::string &answer, const Values &values);
  // Any thread.
  void end_with(Ending ending);
  // The end was asked for: it is time to leave.
  bool is_ending() const { return ending_ != Ending::none; }
  // Once our direction is closed.
  [[noreturn]] void leave();

  PeerSocket socket_;

 private:
  bool act(const Fault::Action &action, const std::string &answer, const Values &values);

  std::atomic<Ending> ending_ = Ending::none;
};

}  // namespace testpeer

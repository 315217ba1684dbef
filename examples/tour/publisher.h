// A publisher in a process of its own, so that it can be killed as a real one would be.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <string>

#include "grid.h"

namespace tour {

// The operation that needs the controller's permission, and the name of its request.
inline constexpr char kWarning[] = "warning";

// What the child process runs: joins as user, publishes, answers queries, and does what it is told on standard input:
// "notify COUNT" or "reconnect".
int run_publisher(const Grid &grid, const std::string &user);

// The parent's handle on such a process.
class PublisherProcess {
 public:
  // program is the path of this program.
  PublisherProcess(const std::string &program, const Grid &grid, const std::string &user);
  ~PublisherProcess();
  PublisherProcess(const PublisherProcess &) = delete;
  PublisherProcess &operator=(const PublisherProcess &) = delete;

  // Prints what the publisher says until it has said the word; ends the program when it leaves before.
  void wait_for(const std::string &word);
  void send_notifications(size_t count);
  // Lets it wait until the server is gone, and come back by its reconnection object.
  void reconnect();
  // Leaves the publisher no time to say farewell.
  void kill();
  // Lets it disconnect and end.
  void stop();

 private:
  const std::string user_;
  pid_t pid_ = -1;
  FILE *to_ = nullptr, *from_ = nullptr;
};

}  // namespace tour

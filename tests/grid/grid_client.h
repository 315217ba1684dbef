// A client of the local grid, and what it saw, for the tests that run against the real server.
#pragma once

#include <quillon.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "local_grid.h"

namespace grid_test {

constexpr std::chrono::seconds kPatience{20};

// What happened, in order, told by the library's threads and waited for by the test's.
template <typename T>
class Record {
 public:
  void add(T entry) {
    const std::lock_guard lock(mutex_);
    entries_.push_back(std::move(entry));
    changed_.notify_all();
  }
  // The entries once the condition holds for them, or as they are when time is over.
  std::vector<T> wait_until(const std::function<bool(const std::vector<T> &)> &condition,
                            std::chrono::milliseconds patience = kPatience) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, patience, [&] { return condition(entries_); });
    return entries_;
  }
  std::vector<T> wait_for(size_t count, std::chrono::milliseconds patience = kPatience) {
    return wait_until([count](const std::vector<T> &entries) { return entries.size() >= count; }, patience);
  }
  std::vector<T> all() {
    const std::lock_guard lock(mutex_);
    return entries_;
  }
  void clear() {
    const std::lock_guard lock(mutex_);
    entries_.clear();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<T> entries_;
};

// Waits until the condition holds; false when it does not in time.
bool eventually(const std::function<bool()> &condition, std::chrono::milliseconds patience = kPatience);

inline constexpr char kNamespace[] = "urn:test:weather";

// <name xmlns="urn:test:weather">text</name> in a context of its own.
wb_dom_node *payload(const char *name, const std::string &text);
std::string text_of(const wb_dom_node *node);

class Client {
 public:
  // Enrols the user if need be. The connection is created, not connected.
  Client(test_support::LocalGrid &grid, const std::string &user);
  ~Client();
  Client(const Client &) = delete;
  Client &operator=(const Client &) = delete;

  QUILLON_STATUS connect() { return quillon_connection_connect(connection); }
  QUILLON_STATUS disconnect() { return quillon_connection_disconnect(connection); }
  bool is_connected() { return quillon_connection_is_connected(connection); }
  void destroy_connection();

  // A plain capability of the test's namespace, destroyed with the client.
  quillon_capability *add_capability(const std::string &name);

  // Asks the capability's publishers; on OK answer is the reply's text.
  QUILLON_STATUS ask(quillon_capability *capability, const std::string &text, std::string &answer);
  // Answers every <ask> with "user: text".
  void serve();
  // Records the texts of every <told>.
  void listen();

  quillon_config *config = nullptr;
  quillon_connection *connection = nullptr;
  const std::string user;
  Record<QUILLON_STATUS> account, disconnected;
  Record<int> connected;
  Record<std::string> told;
  std::atomic<int> asked{0};

 private:
  std::vector<quillon_capability *> capabilities_;
};

// The number of publishers that the library knows for the capability.
int32_t publishers(quillon_capability *capability);

}  // namespace grid_test

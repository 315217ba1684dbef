// A connection of the stress with all that is its own, and what its callbacks see.
#pragma once

#include <atomic>
#include <deque>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "grid_objects.h"
#include "quillon_connection.h"
#include "servers.h"

namespace stress {

struct Watch;

// An asynchronous query, and how often it was called back.
struct Question {
  Watch *watch = nullptr;
  size_t number = 0;
  unsigned followers = 0;  // that its callback asks, one after the other
  std::atomic<bool> is_begun = false;
  std::atomic<unsigned> ended = 0;
};

// What callbacks are given. It outlives its connection, so that a call that comes too late is seen.
struct Watch {
  quillon_connection *connection = nullptr;             // for callbacks
  std::atomic<bool> is_gone = false, is_quiet = false;  // quiet: its callbacks do nothing any more but count
  std::atomic<unsigned> late = 0, connected = 0, disconnected = 0, told = 0, received = 0, traced = 0, reported = 0, ended = 0;

  // How often it was, now.
  unsigned seen(std::atomic<unsigned> &counter) {
    if (is_gone) ++late;
    return ++counter;
  }
  static Watch &of(void *watch) { return *static_cast<Watch *>(watch); }

  Question &add_question(unsigned followers);
  // For when nobody asks any more, and nothing is called back: each query that began has ended once, and no other.
  void expect_each_question_ended_once();
  // The asynchronous queries, begun or not.
  size_t questions();

 private:
  std::mutex mutex_;
  std::deque<Question> questions_;  // under mutex_
};

struct ConfigDestroy {
  void operator()(quillon_config *config) const { quillon_config_destroy(config); }
};

struct Member {
  std::shared_ptr<quillon_config> config;  // a download may use it for longer
  test_support::Capability capability;
  test_support::Connection connection;
  Watch *watch = nullptr;
};

// The hosts are tried in random order.
Member make_member(std::vector<std::string> hosts, Watch &watch, Random &random);

void set_callbacks(quillon_connection *connection, Watch &watch, bool has_account_cb = true);
void register_handlers(quillon_connection *connection, Watch &watch);
void set_reports(quillon_reconnection *reconnection, Watch &watch);
void set_trace(quillon_connection *connection, Watch &watch, bool is_on);
void set_credentials(quillon_config *config, const testpeer::Credentials &credentials);
quillon_statistics statistics_of(const quillon_connection *connection);

// The call came to OK, or to one of its other statuses.
void expect_status(QUILLON_STATUS status, std::initializer_list<QUILLON_STATUS> others, const char *call);

// The calls of which something is to be expected. What is asked bears a number, as the answer must.
QUILLON_STATUS connect(quillon_connection *connection);
QUILLON_STATUS drain(quillon_connection *connection, unsigned milliseconds);
QUILLON_STATUS notify(quillon_connection *connection, quillon_capability *capability);
// Without a capability the controller is asked.
QUILLON_STATUS ask(quillon_connection *connection, quillon_capability *capability, const char *name = "question");
QUILLON_STATUS begin_to_ask(quillon_capability *capability, Watch &watch, unsigned milliseconds, unsigned followers,
                            quillon_pending_query **pending = nullptr, const char *name = "question");

// What callbacks may do to their own connection, by a number that is as good as random.
void do_within_callback(quillon_connection *connection, size_t number);

// Of all connections.
extern std::atomic<size_t> answers, asynchronous_answers, sessions;

}  // namespace stress

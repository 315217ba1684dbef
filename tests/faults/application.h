// An application with one connection, and what it sees of the faults: statuses, callbacks, time, and what is left behind.
#pragma once

#include <gtest/gtest.h>

#include <qlk/testpeer.hpp>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "grid_objects.h"
#include "quillon_connection.h"
#include "quillon_grid.h"
#include "quillon_log_capture.h"

namespace faults {

using namespace std::chrono_literals;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;
using Statuses = std::vector<QUILLON_STATUS>;
using testpeer::Fault;
using testpeer::Options;
using testpeer::ScriptedPeer;
using testpeer::Stage;

// A bound for what comes at once: only a test that fails comes near it.
constexpr seconds kSoon(30);
// What a test that fails lets a stage or an answer take; the time-outs that rows wait for.
constexpr unsigned kPatient = 30, kImpatient = 1;

constexpr char kQuestion[] = "question";  // a query that the peer answers with itself

// The certificates of all tests, made once.
struct Identities {
  testpeer::CertificateAuthority authority{"The Authority"}, other{"Another Authority"};
  testpeer::Credentials server = authority.server(GRID_DOMAIN), client = authority.client("alice", GRID_DOMAIN);

  static Identities &get();
};

// A good server, which is the controller too.
Options correct();
Options with(Stage stage, const Fault &fault);
Options with_request(const std::string &request, const Fault &fault);
Options with_reply(const std::string &request, const testpeer::Reply &reply);

// Of the hostile stanzas those that each meet another check of the parser: where it is known to see all of them, these are
// enough.
std::vector<testpeer::HostileBytes> telling_hostile_stanzas();

// Descriptors and threads of this process.
struct Resources {
  size_t descriptors = 0, threads = 0;

  static Resources now();
  bool operator==(const Resources &) const = default;
  bool exceed(const Resources &other) const { return descriptors > other.descriptors || threads > other.threads; }
};

struct Seen {
  Statuses disconnected, account;
  unsigned connected = 0, returned = 0;  // calls of connect_cb; connects that have returned
  std::string order;                     // of the two callbacks: '+' for connect_cb, '-' for disconnect_cb
};

class Application {
 public:
  Application();
  ~Application();
  Application(const Application &) = delete;
  Application &operator=(const Application &) = delete;

  quillon_connection *connection();
  quillon_config *config() { return config_.get(); }
  // Others may be inside calls that have begun.
  void destroy_connection();

  // The host of the next connects.
  void use(const std::string &host);
  // How long, in seconds, the opening of a session may take, and an answer.
  void allow(unsigned opening, unsigned answer);
  // How long a link may be silent before it is probed, in seconds.
  void probe_after(unsigned idle);

  QUILLON_STATUS connect();
  QUILLON_STATUS disconnect() { return quillon_connection_disconnect(connection()); }
  bool is_connected() { return quillon_connection_is_connected(connection()); }
  // A query to the controller, which a good peer sends back as it came.
  QUILLON_STATUS ask(const std::string &name = kQuestion);

  Seen seen() const;
  // What was seen is as the predicate wants it, now or before the deadline.
  bool wait_until(const std::function<bool(const Seen &)> &predicate, seconds deadline = kSoon) const;
  // The session has ended: disconnect_cb was called, and the library is done with it.
  bool wait_ended(seconds deadline = kSoon);
  void forget_seen();
  // Run within the two callbacks, once those are noted.
  void run_within(std::function<void()> disconnect_cb, std::function<void()> account_cb);

  std::string log() const { return log_.all(); }

 private:
  void note(const std::function<void(Seen &)> &change);
  void run(const std::function<void()> Application::*function);
  void put(const char *key, std::string &place, unsigned value);

  const test_support::QuillonLogCapture log_;
  std::unique_ptr<quillon_config, void (*)(quillon_config *)> config_;
  test_support::Connection connection_;
  std::string opening_, probe_;  // what the connection's table points to

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  Seen seen_;
  std::function<void()> within_disconnect_cb_, within_account_cb_;
};

// What every row has in common. The resources are counted once the connection has been up and down again, without any server in
// the process, and at the end, when all servers are gone again.
class FaultTest : public testing::Test {
 protected:
  FaultTest();

  // The same connection connects to a good server, asks, and disconnects, while the faulty one is still there; nothing is left
  // behind.
  void expect_recovery(std::unique_ptr<ScriptedPeer> faulty = nullptr, const Options &good = correct());
  // Nothing is left behind. All servers of the test must be gone.
  void expect_nothing_left();

  Application application_;

 private:
  Resources before_;
};

// The whole seconds that have passed since it was made.
class Stopwatch {
 public:
  seconds passed() const { return std::chrono::duration_cast<seconds>(Clock::now() - start_); }

 private:
  const Clock::time_point start_ = Clock::now();
};

// Names of parametrised tests.
constexpr auto kNameOfRow = [](const auto &row) { return row.param.name; };

}  // namespace faults

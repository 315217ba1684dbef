// A tour of the grid: everything it prints has just come over the wire. Usage: tour QUILLON-GRID-COMMAND FOLDER
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

#include "member.h"
#include "publisher.h"

namespace {

using tour::Grid;
using tour::Member;

constexpr std::chrono::seconds kPatience{20};

// What the library's threads tell the tour's.
class Board {
 public:
  void note(const std::string &text) {
    const std::lock_guard lock(mutex_);
    notes_.push_back(text);
    changed_.notify_all();
  }
  // The notes, once there are so many; ends the program when they do not come.
  std::vector<std::string> wait_for(size_t count) {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, kPatience, [&] { return notes_.size() >= count; })) {
      std::fprintf(stderr, "waited in vain: %zu of %zu came\n", notes_.size(), count);
      std::exit(1);
    }
    return notes_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> notes_;
};

void note_account(quillon_connection *, QUILLON_STATUS status, void *board) {
  static_cast<Board *>(board)->note(quillon_status_get_message(status));
}

void note_reading(wb_dom_node *notification, void *board) { static_cast<Board *>(board)->note(Member::text_of(notification)); }

// Bob's account waits for the administrator while his connect does.
void connect_pending(const Grid &grid, Member &bob, Board &account) {
  quillon_connection_set_account_cb(bob.connection(), note_account);
  quillon_connection_set_account_cb_user_data(bob.connection(), &account);
  QUILLON_STATUS status = QUILLON_STATUS_UNKNOWN;
  std::thread connecting([&] { status = quillon_connection_connect(bob.connection()); });
  Member::say("bob", "told by the controller: " + account.wait_for(1)[0]);
  grid.administrate("approve bob");
  Member::say("admin", "approved bob");
  connecting.join();
  Member::expect_ok(status, "connect bob");
  Member::say("bob", "told by the controller: " + account.wait_for(2)[1] + "; connected");
}

std::string publishers_of(quillon_capability *capability) {
  quillon_array *jids = quillon_capability_copy_jids(capability);
  std::string text;
  for (int32_t i = 0; i < quillon_array_size(jids); ++i) {
    if (i > 0) text += ", ";
    text += quillon_string_cstr(static_cast<const quillon_string *>(quillon_array_get(jids, i)));
  }
  quillon_array_destroy(jids);
  return text.empty() ? "nobody" : text;
}

// Waits until the library has learnt of so many publishers.
void wait_for_publishers(quillon_capability *capability, int32_t count) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  for (;;) {
    quillon_array *jids = quillon_capability_copy_jids(capability);
    const int32_t known = quillon_array_size(jids);
    quillon_array_destroy(jids);
    if (known >= count) return;
    if (std::chrono::steady_clock::now() > deadline) {
      std::fprintf(stderr, "waited in vain for %d publishers\n", count);
      std::exit(1);
    }
    std::this_thread::yield();
  }
}

void ask(Member &bob, const std::string &day) {
  const auto began = std::chrono::steady_clock::now();
  wb_dom_node *answer = nullptr;
  Member::expect_ok(quillon_connection_query(bob.connection(), bob.capability(), Member::payload("day", day), &answer), "ask");
  const auto took = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - began);
  char line[256];
  std::snprintf(line, sizeof line, "asked about %s: %s (%.1f ms)", day.c_str(), Member::text_of(answer).c_str(),
                static_cast<double>(took.count()) / 1000);
  Member::say("bob", line);
  wb_dom_context_destroy(wb_dom_get_context(answer));
}

int run_tour(const std::string &program, const Grid &grid) {
  for (const char *user : {"alice", "bob", "carol"}) grid.administrate(std::string("enroll ") + user);
  for (const char *user : {"alice", "carol"}) grid.administrate(std::string("approve ") + user);
  Member::say("admin", "enrolled alice, bob and carol; approved alice and carol");

  tour::PublisherProcess alice(program, grid, "alice");
  alice.wait_for("ready");

  Board account, readings;
  Member bob(grid, "bob");
  Member::expect_ok(
      quillon_connection_register_notification_handler(bob.connection(), tour::kNamespace, "reading", note_reading, &readings),
      "register the notification handler");
  connect_pending(grid, bob, account);
  Member::expect_ok(quillon_capability_subscribe(bob.capability(), bob.connection()), "subscribe");
  wait_for_publishers(bob.capability(), 1);
  Member::say("bob", std::string("subscribed to ") + tour::kCapability + "; published by " + publishers_of(bob.capability()));

  alice.send_notifications(10);
  alice.wait_for("sent");
  std::string received;
  for (const std::string &reading : readings.wait_for(10)) received += " " + reading;
  Member::say("bob", "received the notifications" + received);

  for (int day = 1; day <= 10; ++day) ask(bob, "day " + std::to_string(day));

  tour::PublisherProcess carol(program, grid, "carol");
  carol.wait_for("ready");
  wait_for_publishers(bob.capability(), 2);
  Member::say("bob", "learnt that it is published by " + publishers_of(bob.capability()));
  alice.kill();
  Member::say("admin", "killed alice's process");
  ask(bob, "day 11");

  carol.stop();
  Member::say("carol", "disconnected");
  Member::expect_ok(quillon_connection_disconnect(bob.connection()), "disconnect bob");
  Member::say("bob", "disconnected");
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc == 5 && std::string(argv[3]) == "--publisher") return tour::run_publisher(Grid(argv[1], argv[2]), argv[4]);
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s QUILLON-GRID-COMMAND FOLDER\n", argv[0]);
    return 2;
  }
  return run_tour(argv[0], Grid(argv[1], argv[2]));
}

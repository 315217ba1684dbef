// A tour of the grid: everything it prints has just come over the wire. Usage: tour QUILLON-GRID-COMMAND FOLDER
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "board.h"
#include "catalogue.h"
#include "comeback.h"
#include "download.h"
#include "member.h"
#include "publisher.h"

namespace {

using tour::Board;
using tour::Grid;
using tour::kPatience;
using tour::Member;

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

// Asks the capability's publishers with <name>text</name>.
void ask(const Member &bob, const std::string &text, const char *name = "day") {
  const auto began = std::chrono::steady_clock::now();
  wb_dom_node *answer = nullptr;
  Member::expect_ok(quillon_connection_query(bob.connection(), bob.capability(), Member::payload(name, text), &answer), "ask");
  const auto took = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - began);
  char line[256];
  std::snprintf(line, sizeof line, "asked about %s: %s (%.1f ms)", text.c_str(), Member::text_of(answer).c_str(),
                static_cast<double>(took.count()) / 1000);
  Member::say("bob", line);
  wb_dom_context_destroy(wb_dom_get_context(answer));
}

// The publisher sends so many notifications, and bob's board gets them.
void expect_notifications(tour::PublisherProcess &publisher, Board &readings, size_t count) {
  const size_t before = readings.count();
  publisher.send_notifications(count);
  publisher.wait_for("sent");
  const auto all = readings.wait_for(before + count);
  std::string received;
  for (size_t i = before; i < all.size(); ++i) received += " " + all[i];
  Member::say("bob", "received the notifications" + received);
}

// The publisher asks the controller whether bob may see warnings, and then he may.
void show_rights(const Grid &grid, const Member &bob) {
  ask(bob, "the coast", tour::kWarning);
  grid.administrate(std::string("allow bob ") + tour::kCapability + " " + tour::kWarning);
  Member::say("admin", std::string("allowed bob the operation ") + tour::kWarning + " of " + tour::kCapability);
  ask(bob, "the coast", tour::kWarning);
}

// A token that proves to another service who bob is. It is a secret: its length is all that is shown of it.
void show_token(const Grid &grid, const Member &bob) {
  quillon_authentication_token *token = nullptr;
  Member::expect_ok(quillon_authentication_token_create(&token, bob.connection()), "create a token");
  const char *text = quillon_authentication_token_get(token);
  if (text == nullptr) Member::expect_ok(QUILLON_STATUS_QUILLON_ERROR, "get a token");
  Member::say("bob", "got a token of " + std::to_string(std::string(text).size()) + " characters from the controller");
  Member::say("admin", "the token's owner is " + grid.administrate(std::string("token-owner ") + text));
  quillon_authentication_token_destroy(token);
}

// The server goes and comes back, and so do its clients.
void show_restart(const Grid &grid, tour::PublisherProcess &carol, tour::Comeback &bob) {
  grid.administrate("server-stop");
  Member::say("admin", "stopped the server");
  bob.wait_for_loss();
  grid.administrate("server-start");
  Member::say("admin", "started the server");
  carol.reconnect();
  carol.wait_for("ready");
  bob.bring_back();
}

int run_tour(const std::string &program, const Grid &grid) {
  for (const char *user : {"alice", "bob", "carol"}) grid.administrate(std::string("enroll ") + user);
  for (const char *user : {"alice", "carol"}) grid.administrate(std::string("approve ") + user);
  Member::say("admin", "enrolled alice, bob and carol; approved alice and carol");

  tour::PublisherProcess alice(program, grid, "alice");
  alice.wait_for("ready");

  Board account, readings;
  Member bob(grid, "bob");
  tour::Comeback comeback(bob);
  Member::expect_ok(
      quillon_connection_register_notification_handler(bob.connection(), tour::kNamespace, "reading", note_reading, &readings),
      "register the notification handler");
  connect_pending(grid, bob, account);
  Member::expect_ok(quillon_capability_subscribe(bob.capability(), bob.connection()), "subscribe");
  wait_for_publishers(bob.capability(), 1);
  Member::say("bob", std::string("subscribed to ") + tour::kCapability + "; published by " + publishers_of(bob.capability()));

  expect_notifications(alice, readings, 10);

  for (int day = 1; day <= 10; ++day) ask(bob, "day " + std::to_string(day));

  show_rights(grid, bob);
  show_token(grid, bob);
  tour::show_catalogue(bob);
  tour::show_download(grid, bob, 100000);

  tour::PublisherProcess carol(program, grid, "carol");
  carol.wait_for("ready");
  wait_for_publishers(bob.capability(), 2);
  Member::say("bob", "learnt that it is published by " + publishers_of(bob.capability()));
  alice.kill();
  Member::say("admin", "killed alice's process");
  ask(bob, "day 11");

  show_restart(grid, carol, comeback);
  ask(bob, "day 12");
  expect_notifications(carol, readings, 3);

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

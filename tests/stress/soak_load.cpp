// soak_load SECONDS RESTART-SECONDS: all that the library does, through a local grid of its own, whose server is restarted again
// and again. Every second a line tells what the process holds and how it was served; tests/soak makes a picture and a verdict of
// them.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "grid_client.h"
#include "grid_download.h"
#include "soak_counts.h"
#include "soak_notifications.h"
#include "soak_questions.h"
#include "wait_for.h"

namespace {

using namespace soak;
using grid_test::Client;
using test_support::wait_for;

constexpr unsigned kAskers = 2;
constexpr uint64_t kAnswersForAVisit = 1500, kAnswersForADocument = 400;
constexpr uint32_t kDrainMilliseconds = 60'000;

// ---- Beside the members

// A client that comes, asks the controller, and goes: every second one by a drain. Tells what did not succeed.
QUILLON_STATUS visit(Client &visitor) {
  // No capability of its own: destroying one ends the announcements of its namesakes in the whole process.
  visitor.serve();
  wb_dom_node *answer = nullptr;
  QUILLON_STATUS status = visitor.connect();
  if (status != QUILLON_STATUS_OK) return status;
  status = quillon_connection_query_capabilities(visitor.connection, &answer);
  wb_dom_context_destroy(wb_dom_get_context(answer));
  if (status != QUILLON_STATUS_OK || ++counts.visits % 2 != 0) return status;
  return quillon_connection_drain(visitor.connection, kDrainMilliseconds);
}

void visit_on_and_on(test_support::LocalGrid &grid) {
  for (Pace pace(kAnswersForAVisit); pace.wait();) {
    const Moment moment;
    Client visitor(grid, "dave");
    const QUILLON_STATUS status = visit(visitor);
    if (status != QUILLON_STATUS_OK && !moment.is_of_restart()) complain("a visit failed", status);
  }
}

// Documents of different lengths, each item looked at; every tenth is broken off.
void download_on_and_on(test_support::LocalGrid &grid) {
  grid_test::Download download(grid, "reader", "reader");
  Pace pace(kAnswersForADocument);
  for (size_t number = 0; pace.wait(); ++number) {
    const size_t records = 100 + number % 7 * 100;
    download.open("records='" + std::to_string(records) + "'");
    if (number % 10 == 9) {
      download.next();
    } else {
      const size_t items = download.read_numbered();
      counts.items += items;
      if (items == records && download.status == QUILLON_STATUS_OK) {
        ++counts.documents;
      } else {
        complain("a document ended early", download.status);
      }
    }
    if (const QUILLON_STATUS status = quillon_bulkdownload_close(download.bulk); status != QUILLON_STATUS_OK) {
      complain("a document could not be closed", status);
    }
  }
}

// ---- The members

// A client that is brought back by a reconnection, or by hand.
class Member : public Client {
 public:
  Member(test_support::LocalGrid &grid, const std::string &name, bool is_kept_up) : Client(grid, name) {
    serve();
    if (!is_kept_up) return;
    quillon_reconnection_create(&reconnection_, connection);
    quillon_reconnection_set_delays(reconnection_, 50, 150, 1000);
    quillon_reconnection_set_jitter(reconnection_, true);
    const auto count = [](const quillon_reconnection_report *report, void *member) {
      if (report->state == QUILLON_RECONNECTION_STATE_UP) ++static_cast<Member *>(member)->returns_;
    };
    quillon_reconnection_set_report_cb(reconnection_, count, this);
  }
  ~Member() { leave(); }
  Member(const Member &) = delete;
  Member &operator=(const Member &) = delete;

  void start() {
    if (reconnection_ != nullptr) require(quillon_reconnection_start(reconnection_) == QUILLON_STATUS_OK, "a reconnection");
    return_after(0);
  }

  // For good: afterwards no callback runs.
  void leave() {
    if (reconnection_ != nullptr) quillon_reconnection_destroy(std::exchange(reconnection_, nullptr));
    destroy_connection();
  }

  uint64_t returns() const { return returns_; }

  // Once more than so many returns ago: the end of the session before may not have been seen yet.
  void return_after(uint64_t returns) {
    if (reconnection_ != nullptr) {
      require(wait_for([&] { return returns_ > returns && is_connected(); }, kPatience), "a return");
      if (returns != 0) ++counts.returns;
    } else {
      require(wait_for([this] { return !is_connected(); }, kPatience), "the end of a session");
      require(wait_for([this] { return connect() == QUILLON_STATUS_OK; }, kPatience), "a connect");
    }
    // What the client records would be the only thing that grows.
    account.clear();
    connected.clear();
    disconnected.clear();
  }

 private:
  quillon_reconnection *reconnection_ = nullptr;
  std::atomic<uint64_t> returns_ = 0;
};

struct Members {
  explicit Members(test_support::LocalGrid &grid)
      : answering(grid, "alice", true),
        asking(grid, "bob", true),
        telling(grid, "carol", false),
        notifications(telling, {&answering, &asking, &telling}) {
    for (Member *member : all) member->start();
    // Capabilities are remembered for the whole process: with the first restart all its members announce what one of them does.
    publish(answering, "Soak");
    publish(telling, "Told");
    asked = answers_of(asking, "Soak");
    for (Member *member : all) told = answers_of(*member, "Told");
    questions = std::make_unique<Questions>(asking, asked);
  }

  ~Members() {
    for (Member *member : all) member->leave();
  }
  Members(const Members &) = delete;
  Members &operator=(const Members &) = delete;

  static void publish(Member &member, const char *name) {
    require(quillon_capability_publish(member.add_capability(name), member.connection) == QUILLON_STATUS_OK, "a publication");
  }

  static quillon_capability *answers_of(Member &member, const char *name) {
    quillon_capability *capability = member.add_capability(name);
    require(quillon_capability_subscribe(capability, member.connection) == QUILLON_STATUS_OK, "a subscription");
    return capability;
  }

  void begin() {
    phase.may_ask = phase.is_calm = true;
    notifications.resume();
  }

  void pause_notifications() {
    phase.is_calm = false;
    require(notifications.pause(), "the end of a notify");
  }

  // Nothing more is sent, and what was sent arrives.
  void quieten() {
    pause_notifications();
    phase.may_ask = false;
    notifications.end_series();
    require(wait_for([this] { return questions->is_at_rest(); }, kPatience), "the end of all queries");
  }

  void wait_for_publishers() {
    require(wait_for([this] { return grid_test::publishers(asked) != 0; }, kPatience), "a publisher");
  }

  // Every second time in the midst of the traffic.
  void restart(test_support::LocalGrid &grid) {
    const bool is_sudden = counts.restarts % 2 == 1;
    ++phase.upheavals;
    if (is_sudden) {
      notifications.count_gaps();
    } else {
      quieten();
    }
    const uint64_t answering_returns = answering.returns(), asking_returns = asking.returns();
    grid.server_stop();
    pause_notifications();
    phase.may_ask = false;
    const auto is_away = [](Member *member) { return !member->is_connected(); };
    require(wait_for([&] { return std::all_of(all.begin(), all.end(), is_away); }, kPatience), "the end of the sessions");
    note_low();
    grid.server_start();
    answering.return_after(answering_returns);
    asking.return_after(asking_returns);
    telling.return_after(0);
    wait_for_publishers();
    if (is_sudden) notifications.give_up_series();
    ++counts.restarts;
    ++phase.upheavals;
    begin();
  }

  // The queries go on: none that was sent may stay without an answer.
  void drain_asker() {
    pause_notifications();
    notifications.end_series();
    ++phase.departures;
    const uint64_t returns = asking.returns();
    require(quillon_connection_drain(asking.connection, kDrainMilliseconds) == QUILLON_STATUS_OK, "the end of a drain");
    asking.return_after(returns);
    wait_for_publishers();
    ++counts.drains;
    ++phase.departures;
    begin();
  }

  // What was sent before arrives all the same, but at the one who sent it.
  void renew_teller() {
    pause_notifications();
    require(quillon_connection_renew(telling.connection, kDrainMilliseconds) == QUILLON_STATUS_OK, "the end of a renewal");
    notifications.end_series(&telling);
    ++counts.renewals;
    begin();
  }

  size_t queue_highest() {
    quillon_handler_queue_usage queue = {};
    quillon_connection_get_handler_queue_usage(asking.connection, QUILLON_HANDLER_QUEUE_NOTIFICATIONS, &queue);
    return queue.highest;
  }

  Member answering, asking, telling;
  const std::vector<Member *> all = {&answering, &asking, &telling};
  Notifications notifications;  // of telling, to all
  quillon_capability *asked = nullptr, *told = nullptr;
  std::unique_ptr<Questions> questions;
};

// Restarts, and half-way between them a drain or a renewal.
void disturb(Members &members, test_support::LocalGrid &grid, Clock::time_point begun, Clock::time_point end,
             std::chrono::seconds between_restarts) {
  unsigned halves = 1;
  for (auto next = begun + between_restarts / 2; next < end; next = begun + ++halves * between_restarts / 2) {
    std::this_thread::sleep_until(next);  // Delay: the time between disturbances
    if (halves % 2 == 0) {
      members.restart(grid);
    } else if (halves % 4 == 1) {
      members.drain_asker();
    } else {
      members.renew_teller();
    }
  }
  std::this_thread::sleep_until(end);  // Delay: the length of the run
}

int run(std::chrono::seconds time, std::chrono::seconds between_restarts) {
  test_support::LocalGrid grid;
  Members members(grid);
  members.begin();
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < kAskers; ++i) threads.emplace_back([&, i] { ask_on_and_on(members.asking, members.asked, i); });
  threads.emplace_back([&] { members.questions->run(); });
  threads.emplace_back([&] { members.notifications.run(members.told); });
  threads.emplace_back([&] { visit_on_and_on(grid); });
  threads.emplace_back([&] { download_on_and_on(grid); });
  const auto begun = Clock::now();
  const auto print = [&] { print_sample(std::chrono::duration<double>(Clock::now() - begun).count(), members.queue_highest()); };
  threads.emplace_back([&] {
    while (!phase.is_over) {
      const auto second = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begun) + 1s;
      std::this_thread::sleep_until(begun + second);  // Delay: a sample each second
      print();
    }
  });
  int code = 0;
  try {
    disturb(members, grid, begun, begun + time, between_restarts);
    members.quieten();
  } catch (const std::exception &failed) {
    std::fprintf(stderr, "soak_load: %s\n", failed.what());
    code = 1;
  }
  members.notifications.end_run();
  for (std::thread &thread : threads) thread.join();
  print();  // with the last losses
  return testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed() ? 1 : code;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 3) return std::fprintf(stderr, "usage: soak_load SECONDS RESTART-SECONDS\n"), 2;
  quillon_log_set_level(QUILLON_LOG_NONE);
  unsetenv("GLIBC_TUNABLES");  // what this program's allocator was told is not meant for the servers
  try {
    return run(std::chrono::seconds(std::strtol(argv[1], nullptr, 10)), std::chrono::seconds(std::strtol(argv[2], nullptr, 10)));
  } catch (const std::exception &failed) {
    std::fprintf(stderr, "soak_load: %s\n", failed.what());
    return 1;
  }
}

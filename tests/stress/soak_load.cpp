// soak_load SECONDS RESTART-SECONDS: queries and notifications through a local grid of its own, whose server is restarted again
// and again. Every second a line tells what the process holds and how it was served; tests/soak makes a picture and a verdict of
// them.
#include <malloc.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "grid_client.h"

namespace {

using namespace std::chrono_literals;
using grid_test::Client;
using Clock = std::chrono::steady_clock;

constexpr unsigned kAskers = 2;
constexpr auto kPaceOfNotifications = 5ms;

// ---- What is counted

std::atomic<bool> is_over = false, is_calm = false, is_telling = false;  // calm: the server is up, and all are connected
std::atomic<uint64_t> upheavals = 0;                                     // odd while the server is being restarted
std::atomic<uint64_t> answers = 0, disturbed = 0, wrong = 0, sent = 0, received = 0, restarts = 0, visits = 0;
// Notifications bear the numbers from 0 to sent - 1, and arrive in that order.
std::atomic<uint64_t> expected = 0, skipped = 0, lost = 0, repeated = 0;

// The latencies of one second, in microseconds.
class Latencies {
 public:
  void add(uint32_t microseconds) {
    const std::lock_guard lock(mutex_);
    if (count_ < values_.size()) values_[count_++] = microseconds;
  }

  struct Summary {
    uint32_t median = 0, high = 0;  // of a hundred, the ninety-ninth
  };
  Summary take() {
    const std::lock_guard lock(mutex_);
    if (count_ == 0) return {};
    const auto at = [this](size_t place) {
      std::nth_element(values_.begin(), values_.begin() + static_cast<ptrdiff_t>(place),
                       values_.begin() + static_cast<ptrdiff_t>(count_));
      return values_[place];
    };
    const Summary summary = {at(count_ / 2), at(count_ * 99 / 100)};
    count_ = 0;
    return summary;
  }

 private:
  std::mutex mutex_;
  std::array<uint32_t, 65536> values_{};  // its memory is there from the beginning on
  size_t count_ = 0;
};

Latencies latencies;

size_t count_entries(const char *folder) {
  size_t count = 0;
  for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator(folder)) ++count;
  return count;
}

size_t resident_kib() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::strtoul(line.c_str() + 6, nullptr, 10);
  }
  return 0;
}

void print_sample(double seconds, Client &asker) {
  const Latencies::Summary latency = latencies.take();
  quillon_handler_queue_usage queue = {};
  quillon_connection_get_handler_queue_usage(asker.connection, QUILLON_HANDLER_QUEUE_NOTIFICATIONS, &queue);
  std::printf("%.1f %zu %zu %zu %zu %u %u %lu %lu %lu %lu %lu %lu %lu %lu %lu %zu %d\n", seconds, resident_kib(),
              mallinfo2().uordblks / 1024, count_entries("/proc/self/fd"), count_entries("/proc/self/task"), latency.median,
              latency.high, answers.load(), disturbed.load(), wrong.load(), sent.load(), received.load(), lost.load(),
              repeated.load(), restarts.load(), visits.load(), queue.highest, is_calm ? 1 : 0);
  std::fflush(stdout);
}

// ---- What the threads do

// A run in which something does not come to an end has failed.
void require(bool came, const char *what) {
  if (!came) throw std::runtime_error(std::string("did not come: ") + what);
}

constexpr std::chrono::minutes kPatience{2};

// Delay: how often a condition is looked at again.
void pause_a_little() { std::this_thread::sleep_for(10ms); }

void ask_on_and_on(Client &client, quillon_capability *capability, unsigned number) {
  for (uint64_t i = 0; !is_over; ++i) {
    if (!is_calm) {
      pause_a_little();
      continue;
    }
    const std::string text = std::to_string(number) + "-" + std::to_string(i);
    std::string reply;
    const uint64_t upheaval = upheavals;
    const auto begun = Clock::now();
    const QUILLON_STATUS status = client.ask(capability, text, reply);
    if (status == QUILLON_STATUS_OK) {
      latencies.add(static_cast<uint32_t>(std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - begun).count()));
      ++(reply.ends_with(": " + text) ? answers : wrong);
    } else {
      const bool is_restart = upheaval % 2 == 1 || upheavals != upheaval;
      ++(is_restart ? disturbed : wrong);
      pause_a_little();  // nobody is there
      if (!is_restart) std::fprintf(stderr, "a query came to %d\n", status);
    }
  }
}

void tell_on_and_on(Client &client, quillon_capability *capability) {
  for (auto next = Clock::now(); !is_over; next += kPaceOfNotifications) {
    is_telling = true;  // before the look at is_calm, so that a restart knows when it has ended
    if (!is_calm) {
      is_telling = false;
      pause_a_little();
      next = Clock::now();
      continue;
    }
    if (quillon_connection_notify(client.connection, capability, grid_test::payload("told", std::to_string(sent))) ==
        QUILLON_STATUS_OK)
      ++sent;
    is_telling = false;
    std::this_thread::sleep_until(next);  // Delay: the pace of the notifications
  }
}

// Clients that come, ask once, and go.
void visit_on_and_on(test_support::LocalGrid &grid) {
  while (!is_over) {
    for (int i = 0; i < 100 && !is_over; ++i) pause_a_little();  // the pace of the visits
    if (!is_calm) continue;
    Client visitor(grid, "dave");
    visitor.serve();
    // No capability of its own: destroying one ends the announcements of its namesakes in the whole process.
    wb_dom_node *answer = nullptr;
    if (visitor.connect() != QUILLON_STATUS_OK) continue;
    if (quillon_connection_query_capabilities(visitor.connection, &answer) == QUILLON_STATUS_OK) ++visits;
    wb_dom_context_destroy(wb_dom_get_context(answer));
  }
}

void connect_again(Client &client) {
  require(grid_test::eventually([&] { return client.connect() == QUILLON_STATUS_OK; }, kPatience), "a connect");
}

// On the one thread of the handlers.
void count_notification(wb_dom_node *told, void *) {
  ++received;
  const uint64_t number = std::strtoul(grid_test::text_of(told).c_str(), nullptr, 10), next = expected;
  if (number < next) {
    ++repeated;
    return;
  }
  skipped += number - next;
  expected = number + 1;
}

struct Members {
  explicit Members(test_support::LocalGrid &grid) : answering(grid, "alice"), asking(grid, "bob"), telling(grid, "carol") {
    // Capabilities are remembered for the whole process: with the first restart all its members publish what one of them does.
    for (Client *client : {&answering, &asking, &telling}) client->serve();
    quillon_connection_register_notification_handler(asking.connection, grid_test::kNamespace, "told", count_notification,
                                                     nullptr);
    for (Client *client : {&answering, &asking, &telling}) connect_again(*client);
    answered = answering.add_capability("Soak");
    asked = asking.add_capability("Soak");
    told = telling.add_capability("Told");
    heard = asking.add_capability("Told");
    quillon_capability_publish(answered, answering.connection);
    quillon_capability_publish(told, telling.connection);
    quillon_capability_subscribe(asked, asking.connection);
    quillon_capability_subscribe(heard, asking.connection);
  }

  // Every second time in the midst of the traffic.
  void restart(test_support::LocalGrid &grid) {
    const bool is_sudden = restarts % 2 == 1;
    ++upheavals;
    lost += skipped.exchange(0);
    if (!is_sudden) quieten(true);
    grid.server_stop();
    is_calm = false;
    grid.server_start();
    for (Client *client : {&answering, &asking, &telling}) {
      // The end of the old session may not have been seen yet.
      require(grid_test::eventually([&] { return !client->is_connected(); }, kPatience), "the end of a session");
      connect_again(*client);
    }
    require(grid_test::eventually([&] { return grid_test::publishers(asked) != 0; }, kPatience), "a publisher");
    if (is_sudden) quieten(false);
    ++restarts;
    ++upheavals;
    is_calm = true;
  }

  // Nothing more is sent. What was sent arrives, unless the server went meanwhile.
  void quieten(bool is_served) {
    is_calm = false;
    require(grid_test::eventually([] { return !is_telling; }, kPatience), "the end of a notify");
    if (is_served && !grid_test::eventually([] { return expected >= sent; })) lost += sent - expected;
    const auto has_handled_all = [this] {
      quillon_handler_queue_usage queue = {.depth = 1, .highest = 0, .dropped = 0};
      quillon_connection_get_handler_queue_usage(asking.connection, QUILLON_HANDLER_QUEUE_NOTIFICATIONS, &queue);
      return queue.depth == 0;
    };
    require(grid_test::eventually(has_handled_all, kPatience), "the end of the notifications' queue");
    pause_a_little();  // the last one may be in its handler
    const uint64_t gaps = skipped.exchange(0);
    if (is_served) lost += gaps;
    expected = sent.load();
  }

  Client answering, asking, telling;
  quillon_capability *answered, *asked, *told, *heard;
};

int run(std::chrono::seconds time, std::chrono::seconds between_restarts) {
  test_support::LocalGrid grid;
  Members members(grid);
  is_calm = true;
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < kAskers; ++i) threads.emplace_back([&, i] { ask_on_and_on(members.asking, members.asked, i); });
  threads.emplace_back([&] { tell_on_and_on(members.telling, members.told); });
  threads.emplace_back([&] { visit_on_and_on(grid); });
  const auto begun = Clock::now();
  std::thread sampling([&] {
    for (int i = 1; !is_over; ++i) {
      std::this_thread::sleep_until(begun + std::chrono::seconds(i));  // Delay: a sample each second
      print_sample(std::chrono::duration<double>(Clock::now() - begun).count(), members.asking);
    }
  });
  int code = 0;
  try {
    for (auto next = begun + between_restarts; next < begun + time; next += between_restarts) {
      std::this_thread::sleep_until(next);  // Delay: the time between restarts
      members.restart(grid);
    }
    std::this_thread::sleep_until(begun + time);  // Delay: the length of the run
    members.quieten(true);
  } catch (const std::exception &failed) {
    std::fprintf(stderr, "soak_load: %s\n", failed.what());
    code = 1;
  }
  is_over = true;
  for (std::thread &thread : threads) thread.join();
  sampling.join();
  print_sample(std::chrono::duration<double>(Clock::now() - begun).count(), members.asking);  // with the last losses
  return code;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 3) return std::fprintf(stderr, "usage: soak_load SECONDS RESTART-SECONDS\n"), 2;
  quillon_log_set_level(QUILLON_LOG_NONE);
  try {
    return run(std::chrono::seconds(std::strtol(argv[1], nullptr, 10)), std::chrono::seconds(std::strtol(argv[2], nullptr, 10)));
  } catch (const std::exception &failed) {
    std::fprintf(stderr, "soak_load: %s\n", failed.what());
    return 1;
  }
}

#include "operations.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <iterator>
#include <numeric>
#include <thread>

#include "brief.h"

namespace stress {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr unsigned kWorkers = 10, kLong = 60'000;  // milliseconds
// Only a test that fails comes near it: a connect may have to wait for others, and each of them for several time-outs.
constexpr std::chrono::seconds kAtMost(60);
constexpr size_t kPendingMax = 50;

quillon_connection *connection_of(const Member &member) { return member.connection.get(); }

uint64_t sum_of(const quillon_query_counts &counts) {
  return counts.answered + counts.refused + counts.not_sent + counts.timed_out + counts.unknown;
}

}  // namespace

// ---- The table

struct Stress::Operation {
  enum class Lock { shared, exclusive, none };

  const char *name;
  unsigned weight;
  void (*run)(Stress &stress, Slot &slot, Random &random);
  Lock lock = Lock::shared;
};

const Stress::Operation Stress::kOperations[] = {
    {"connect", 15, [](Stress &, Slot &slot, Random &) { connect(connection_of(slot.member)); }},
    {"disconnect", 4,
     [](Stress &, Slot &slot, Random &) {
       EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_disconnect(connection_of(slot.member)));
     }},
    {"ask", 15, [](Stress &, Slot &slot, Random &) { ask(connection_of(slot.member), nullptr); }},
    {"ask a publisher", 6, [](Stress &, Slot &slot, Random &) { ask(connection_of(slot.member), slot.member.capability.get()); }},
    {"begin to ask", 14, [](Stress &stress, Slot &slot, Random &random) { stress.begin_query(slot, random); }},
    {"cancel", 5, [](Stress &stress, Slot &slot, Random &random) { stress.cancel_query(slot, random); }},
    {"notify", 8, [](Stress &, Slot &slot, Random &) { notify(connection_of(slot.member), slot.member.capability.get()); }},
    {"subscribe", 5,
     [](Stress &, Slot &slot, Random &) {
       expect_status(
           quillon_capability_subscribe(slot.member.capability.get(), connection_of(slot.member)),
           {QUILLON_STATUS_UNKNOWN, QUILLON_STATUS_SEND_TIMEOUT, QUILLON_STATUS_SEND_ERROR, QUILLON_STATUS_NOT_AUTHORIZED,
            QUILLON_STATUS_QUILLON_ERROR, QUILLON_STATUS_XMPP_ERROR, QUILLON_STATUS_NO_CONNECTION},
           "subscribe");
     }},
    {"publish", 2,
     [](Stress &, Slot &slot, Random &) {
       expect_status(quillon_capability_publish(slot.member.capability.get(), connection_of(slot.member)),
                     {QUILLON_STATUS_UNKNOWN, QUILLON_STATUS_SEND_TIMEOUT, QUILLON_STATUS_SEND_ERROR,
                      QUILLON_STATUS_QUILLON_ERROR, QUILLON_STATUS_XMPP_ERROR, QUILLON_STATUS_NO_CONNECTION},
                     "publish");
     }},
    {"ask the controller", 5, [](Stress &stress, Slot &slot, Random &random) { stress.ask_controller(slot, random); }},
    {"set callbacks", 3,
     [](Stress &, Slot &slot, Random &random) {
       set_callbacks(connection_of(slot.member), *slot.member.watch, once_in(random, 2));
     }},
    {"register handlers", 3,
     [](Stress &, Slot &slot, Random &) { register_handlers(connection_of(slot.member), *slot.member.watch); }},
    {"trace", 3,
     [](Stress &, Slot &slot, Random &random) { set_trace(connection_of(slot.member), *slot.member.watch, once_in(random, 2)); }},
    {"look", 5, [](Stress &stress, Slot &slot, Random &random) { stress.look(slot, random); }},
    {"drain", 3, [](Stress &, Slot &slot, Random &random) { drain(connection_of(slot.member), pick(random, 300)); }},
    {"renew", 3, [](Stress &stress, Slot &slot, Random &random) { stress.renew(slot, random); }},
    {"keep up", 4, [](Stress &stress, Slot &slot, Random &random) { stress.keep_up(slot, random); }},
    {"reload credentials", 3, [](Stress &stress, Slot &slot, Random &random) { stress.reload_credentials(slot, random); }},
    {"download", 8, [](Stress &stress, Slot &slot, Random &random) { stress.download(slot, random); }},
    {"remake", 4, [](Stress &stress, Slot &slot, Random &random) { stress.remake(slot, random); }, Operation::Lock::exclusive},
    {"remake the capability", 1, [](Stress &stress, Slot &slot, Random &random) { stress.remake_capability(slot, random); },
     Operation::Lock::exclusive},
    {"end soon", 6, [](Stress &stress, Slot &slot, Random &random) { stress.end_soon(slot, random); }, Operation::Lock::none},
};

void Stress::work(Random &random) {
  static const unsigned weights = std::accumulate(std::begin(kOperations), std::end(kOperations), 0U,
                                                  [](unsigned sum, const Operation &each) { return sum + each.weight; });
  const Operation *operation = kOperations;
  for (unsigned choice = pick(random, weights); choice >= operation->weight; ++operation) choice -= operation->weight;
  Slot &slot = slots_[pick(random, static_cast<unsigned>(slots_.size()))];
  std::shared_lock shared(slot.mutex, std::defer_lock);
  std::unique_lock exclusive(slot.mutex, std::defer_lock);
  if (operation->lock == Operation::Lock::shared) shared.lock();
  if (operation->lock == Operation::Lock::exclusive) exclusive.lock();
  const auto begun = Clock::now();
  operation->run(*this, slot, random);
  const auto passed = Clock::now() - begun;
  EXPECT_LT(passed, kAtMost) << operation->name;
  ++operations_;
  const std::lock_guard lock(slowest_mutex_);
  if (passed > slowest_.first) slowest_ = {passed, operation->name};
}

// ---- What needs more than a line

Watch &Stress::new_watch() {
  const std::lock_guard lock(watches_mutex_);
  return *watches_.emplace_back(std::make_unique<Watch>());
}

void Stress::begin_query(Slot &slot, Random &random) {
  quillon_pending_query *pending = nullptr;
  quillon_capability *const capability = once_in(random, 3) ? slot.member.capability.get() : nullptr;
  const char *const name = once_in(random, 5) ? "unanswered" : "question";
  begin_to_ask(capability, *slot.member.watch, pick(random, 2000), pick(random, 4), &pending, name);
  if (pending == nullptr) return;
  const std::lock_guard lock(pending_mutex_);
  pending_.push_back(pending);
}

// Of whichever connection, perhaps after its end.
void Stress::cancel_query(Slot &, Random &random) {
  quillon_pending_query *pending = nullptr;
  {
    const std::lock_guard lock(pending_mutex_);
    if (pending_.empty()) return;
    const bool is_old = pending_.size() > kPendingMax || once_in(random, 4);
    pending = is_old ? pending_.front() : pending_.back();
    is_old ? pending_.pop_front() : pending_.pop_back();
  }
  if (!once_in(random, 4)) {
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_pending_query_cancel(pending));
  }
  quillon_pending_query_destroy(pending);
}

// The library's own questions.
void Stress::ask_controller(Slot &slot, Random &random) {
  quillon_connection *const connection = connection_of(slot.member);
  if (once_in(random, 3)) {
    static_cast<void>(quillon_connection_is_authorized(connection, "Stress", "ask", "alice"));
  } else if (once_in(random, 2)) {
    quillon_authentication_token *token = nullptr;
    ASSERT_EQ(QUILLON_STATUS_OK, quillon_authentication_token_create(&token, connection));
    static_cast<void>(quillon_authentication_token_get(token));
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_authentication_token_destroy(token));
  } else {
    wb_dom_node *received = nullptr;
    const QUILLON_STATUS status = quillon_connection_query_capabilities(connection, &received);
    const test_support::Node response(received);
    EXPECT_EQ(status == QUILLON_STATUS_OK, response != nullptr);
  }
}

void Stress::keep_up(Slot &slot, Random &random) {
  Watch &watch = new_watch();
  watch.connection = connection_of(slot.member);
  quillon_reconnection *reconnection = nullptr;
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_reconnection_create(&reconnection, watch.connection));
  set_reports(reconnection, watch);
  for (unsigned turns = 1 + pick(random, 2); turns > 0; --turns) {
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_reconnection_start(reconnection));
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_reconnection_set_delays(reconnection, 1 + pick(random, 50), 150, 200));
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_reconnection_set_jitter(reconnection, once_in(random, 2)));
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_reconnection_set_next_host_at_once(reconnection, once_in(random, 2)));
    std::this_thread::sleep_for(std::chrono::milliseconds(pick(random, 200)));  // Delay: it runs at random length
    if (once_in(random, 2)) {
      EXPECT_EQ(QUILLON_STATUS_OK, quillon_reconnection_stop(reconnection));
    }
  }
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_reconnection_destroy(reconnection));
  watch.is_gone = true;
}

void Stress::renew(Slot &slot, Random &random) {
  expect_status(quillon_connection_renew(connection_of(slot.member), pick(random, 300)),
                {QUILLON_STATUS_NO_CONNECTION, QUILLON_STATUS_CONNECTION_ERROR, QUILLON_STATUS_SEND_TIMEOUT,
                 QUILLON_STATUS_XMPP_ERROR, QUILLON_STATUS_QUILLON_ERROR, QUILLON_STATUS_SEND_ERROR, QUILLON_STATUS_UNKNOWN},
                "renew");
}

// From one certificate to another, or to none that is there, while connects and downloads use them.
void Stress::reload_credentials(Slot &slot, Random &random) {
  quillon_config *const config = slot.member.config.get();
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_config_set_live_credentials(config, once_in(random, 2)));
  const auto use = [&](const testpeer::Credentials &credentials) {
    const std::lock_guard lock(names_mutex_);
    set_credentials(config, credentials);
  };
  if (once_in(random, 4)) {
    use({.certificate = "missing.pem", .key = "missing.key"});
    expect_status(quillon_config_reload_credentials(config), {QUILLON_STATUS_CONNECTION_ERROR_CLIENT}, "reload");
  }
  use(once_in(random, 2) ? Identities::get().client : Identities::get().next_client);
  expect_status(quillon_config_reload_credentials(config), {QUILLON_STATUS_CONNECTION_ERROR_CLIENT}, "reload");
  quillon_credentials_info info;
  info.size = sizeof info;
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_config_get_credentials_info(config, &info));
  EXPECT_EQ(info.sets > 0, info.subject[0] != '\0');
  EXPECT_EQ(info.last_status != QUILLON_STATUS_OK, info.failure[0] != '\0');
}

void Stress::look(Slot &slot, Random &random) {
  quillon_connection *const connection = connection_of(slot.member);
  quillon_handler_queue_usage usage = {};
  EXPECT_EQ(QUILLON_STATUS_OK,
            quillon_connection_get_handler_queue_usage(connection, QUILLON_HANDLER_QUEUE_NOTIFICATIONS, &usage));
  EXPECT_LE(usage.depth, usage.highest + kWorkers);
  const quillon_statistics now = statistics_of(connection);
  EXPECT_LE(now.queries_in_flight, now.queries_in_flight_highest + kWorkers);
  EXPECT_LE(now.sessions, now.session_attempts);
  EXPECT_LE(quillon_statistics_latency_quantile(&now, 0.5), quillon_statistics_latency_quantile(&now, 1));
  static_cast<void>(quillon_connection_is_connected(connection));
  quillon_connection_wakeup(connection);
  constexpr QUILLON_LOG_LEVEL kLevels[] = {QUILLON_LOG_NONE, QUILLON_LOG_NONE, QUILLON_LOG_INFO, QUILLON_LOG_DEBUG};
  quillon_log_set_level(kLevels[pick(random, std::size(kLevels))]);
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_init()) << "it is up";
}

// ---- Downloads

void Stress::open_download(Download &download, const std::string &url) {
  if (download.bulk == nullptr) {
    ASSERT_EQ(QUILLON_STATUS_OK, quillon_bulkdownload_create(&download.bulk, download.config.get()));
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_bulkdownload_set_request(download.bulk, test_support::parse("<give/>").get()));
  }
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_bulkdownload_set_url(download.bulk, url.c_str()));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_bulkdownload_open(download.bulk));
  download.is_open = true;
  download.items = 0;
}

// False when there is none.
bool Stress::read_item(Download &download) {
  wb_dom_node *node = nullptr;
  const QUILLON_STATUS status = quillon_bulkdownload_next(download.bulk, &node);
  const test_support::Node item(node);
  expect_status(status, {QUILLON_STATUS_XML_ERROR, QUILLON_STATUS_REST_ERROR, QUILLON_STATUS_REST_INIT_ERROR}, "next");
  if (item == nullptr) return false;
  ++items_;
  EXPECT_STREQ(std::to_string(++download.items).c_str(), wb_dom_get_attribute(item.get(), "n"));
  return true;
}

void Stress::close_download(Download &download) {
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_bulkdownload_close(download.bulk));
  download.is_open = false;
}

// Opened by one thread, read by others, and closed or destroyed at any moment by one more.
void Stress::download(Slot &slot, Random &random) {
  Download &download = downloads_[pick(random, static_cast<unsigned>(downloads_.size()))];
  const std::lock_guard lock(download.mutex);
  if (!download.is_open) {
    if (download.bulk == nullptr) download.config = slot.member.config;
    download.is_silent = once_in(random, 8);
    return open_download(download, servers_.random_document(random, download.is_silent));
  }
  if (!download.is_silent && !once_in(random, 4)) {
    for (unsigned items = pick(random, 400); items > 0 && read_item(download); --items) {
    }
    return;
  }
  if (once_in(random, 2)) return close_download(download);
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_bulkdownload_destroy(&download.bulk));
  download.is_open = false;
}

// ---- Ends

void Stress::remake(Slot &slot, Random &random) {
  Watch &watch = new_watch();
  if (once_in(random, 2)) slot.member.capability.reset();
  slot.member.connection.reset();
  slot.member.watch->is_gone = true;
  slot.member.watch->expect_each_question_ended_once();
  slot.member = {};
  slot.member = make_member(servers_.hosts(), watch, random);
  ++made_;
}

void Stress::remake_capability(Slot &slot, Random &) {
  slot.member.capability.reset();
  slot.member.capability = test_support::make_capability("urn:stress", "Stress");
}

void Stress::end_soon(Slot &, Random &random) {
  Watch &watch = new_watch();
  const std::vector<std::string> hosts = once_in(random, 2) ? servers_.hosts() : std::vector{servers_.good_host()};
  end_soon_in_some_way(make_member(hosts, watch, random), servers_, random, kAtMost);
  ++made_;
}

// ---- The course of it

Stress::Stress(unsigned seed) : servers_(seed) {
  Random random(seed);
  for (Slot &slot : slots_) slot.member = make_member(servers_.hosts(), new_watch(), random);
}

Stress::~Stress() {
  for (quillon_pending_query *pending : pending_) quillon_pending_query_destroy(pending);
}

void Stress::run(unsigned seed, std::chrono::seconds time) {
  const auto end = Clock::now() + time;
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < kWorkers; ++i) {
    threads.emplace_back([this, end, seed, i] {
      Random random(seed + 1 + i);
      while (Clock::now() < end) work(random);
    });
  }
  threads.emplace_back([this, end, seed] {
    Random random(seed + 1000);
    while (Clock::now() < end) {
      servers_.harm(random);
      std::this_thread::sleep_for(std::chrono::milliseconds(50 + pick(random, 200)));  // Delay: the pace of the faults
    }
  });
  for (std::thread &thread : threads) thread.join();
}

void Stress::expect_recovery() {
  quillon_log_set_level(QUILLON_LOG_NONE);
  for (Download &download : downloads_) {
    if (download.bulk != nullptr) quillon_bulkdownload_destroy(&download.bulk);
    download.config.reset();
    download.is_open = false;
  }
  for (Slot &slot : slots_) {
    Member &member = slot.member;
    quillon_connection *const connection = connection_of(member);
    member.watch->is_quiet = true;
    // A callback that runs may connect meanwhile.
    EXPECT_TRUE(testpeer::eventually(kAtMost, [&] { return drain(connection, kLong) == QUILLON_STATUS_OK; }));
    EXPECT_LE(member.watch->connected, member.watch->disconnected);
    set_credentials(member.config.get(), Identities::get().client);
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_config_reload_credentials(member.config.get()));
    quillon_config_set_host(member.config.get(), servers_.good_host().c_str());
    EXPECT_EQ(QUILLON_STATUS_OK, connect(connection));
    EXPECT_EQ(QUILLON_STATUS_OK, ask(connection, nullptr));
    EXPECT_EQ(QUILLON_STATUS_OK, begin_to_ask(nullptr, *member.watch, kLong, 3));
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_renew(connection, kLong));
    EXPECT_EQ(QUILLON_STATUS_OK, ask(connection, nullptr));
    EXPECT_EQ(QUILLON_STATUS_OK, drain(connection, kLong));
    const quillon_statistics now = statistics_of(connection);
    EXPECT_EQ(0U, now.queries_in_flight);
    EXPECT_EQ(member.watch->questions(), sum_of(now.asynchronous_queries));
    downloads_[0].config = member.config;
    open_download(downloads_[0], servers_.good_document());
    while (read_item(downloads_[0])) {
    }
    EXPECT_EQ(Servers::kItems, downloads_[0].items);
    quillon_bulkdownload_destroy(&downloads_[0].bulk);
    member.connection.reset();  // before what it uses
    member.watch->is_gone = true;
  }
  expect_all_is_over();
}

void Stress::expect_restart() {
  Random random;
  Watch &watch = new_watch();
  Member member = make_member({servers_.good_host()}, watch, random);
  EXPECT_EQ(QUILLON_STATUS_OK, connect(connection_of(member)));
  EXPECT_EQ(QUILLON_STATUS_OK, begin_to_ask(nullptr, watch, kLong, 0, nullptr, "unanswered"));
  downloads_[0].config = member.config;
  open_download(downloads_[0], servers_.good_document());
  EXPECT_TRUE(read_item(downloads_[0]));
  quillon_shutdown();
  while (read_item(downloads_[0])) {
  }
  EXPECT_EQ(Servers::kItems, downloads_[0].items);
  quillon_bulkdownload_destroy(&downloads_[0].bulk);
  member.connection.reset();
  watch.is_gone = true;

  EXPECT_EQ(QUILLON_STATUS_OK, quillon_init());
  Watch &next = new_watch();
  member = make_member({servers_.good_host()}, next, random);
  EXPECT_EQ(QUILLON_STATUS_OK, connect(connection_of(member)));
  EXPECT_EQ(QUILLON_STATUS_OK, ask(connection_of(member), nullptr));
  member.connection.reset();
  next.is_gone = true;
  expect_all_is_over();
}

void Stress::expect_all_is_over() {
  for (const auto &watch : watches_) {
    EXPECT_EQ(0U, watch->late);
    watch->expect_each_question_ended_once();
  }
}

void Stress::report() const {
  std::cout << operations_ << " operations, " << answers << " answers, " << asynchronous_answers << " asynchronous answers, "
            << sessions << " sessions, " << made_ << " connections made anew, " << items_ << " items downloaded; '"
            << slowest_.second << "' took longest, "
            << std::chrono::duration_cast<std::chrono::milliseconds>(slowest_.first).count() << " ms\n";
  EXPECT_LT(0U, operations_);
}

}  // namespace stress

// Many threads connect, query, notify, set callbacks, subscribe, disconnect, destroy and make anew, all at once and on the same
// connections, while their servers fail at random. Every call returns in time and with one of its statuses, every answer is that
// to the question, nothing is called back for a connection that is gone, and in the end all works and nothing is left behind.
#include <gtest/gtest.h>

#include <qlk/testpeer.hpp>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

#include "grid_objects.h"
#include "quillon_connection.h"
#include "quillon_grid.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using testpeer::Fault;
using testpeer::Options;
using testpeer::ScriptedPeer;
using testpeer::Stage;
using Random = std::mt19937;

constexpr size_t kSlots = 3, kWorkers = 6, kBadPeers = 4;
// Only a test that fails comes near it: a connect may have to wait for others, and each of them for several time-outs.
constexpr std::chrono::seconds kAtMost(120);

unsigned number_from(const char *variable, unsigned otherwise) {
  const char *text = std::getenv(variable);
  return text != nullptr && *text != '\0' ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : otherwise;
}

unsigned pick(Random &random, unsigned count) { return std::uniform_int_distribution<unsigned>(0, count - 1)(random); }

struct Identities {
  testpeer::CertificateAuthority authority{"The Authority"};
  testpeer::Credentials server = authority.server(GRID_DOMAIN), client = authority.client("alice", GRID_DOMAIN);
};

Identities &identities() {
  static Identities made;
  return made;
}

// ---- The servers

Fault random_fault(Random &random) {
  switch (pick(random, 8)) {
    case 0:
      return Fault::reset();
    case 1:
      return Fault::close();
    case 2:
      return Fault::truncate();
    case 3:
      return Fault::half_close();
    case 4:
      return Fault::cut(pick(random, 200)).then(Fault::close());
    case 5:
      return Fault::delay(std::chrono::milliseconds(pick(random, 300)));
    case 6:
      return Fault::stream_error("resource-constraint");
    default:
      return Fault::silent();
  }
}

Options options_of_peer(Random &random, bool is_good) {
  Options options = {.domain = GRID_DOMAIN,
                     .certificate = identities().server,
                     .client_authority = identities().authority.certificate(),
                     .act_as_controller = true,
                     .controller = CONTROLLER_JID,
                     .publishers = {"bob@" GRID_DOMAIN "/qlk"},
                     .echo_queries = true};
  if (is_good) return options;
  constexpr Stage kStages[] = {
      Stage::accept, Stage::stream_open, Stage::features,    Stage::starttls,      Stage::stream_open_tls,
      Stage::sasl,   Stage::bind,        Stage::established, Stage::tls_handshake, Stage::stream_open_sasl};
  options.faults.emplace(kStages[pick(random, std::size(kStages))], random_fault(random).times(1 + pick(random, 8)));
  constexpr const char *kRequests[] = {"connectRequest", "presence", "question", "subscribeRequest", "message"};
  options.request_faults.emplace(kRequests[pick(random, std::size(kRequests))], random_fault(random).times(1 + pick(random, 20)));
  return options;
}

// What a server does to a session that is up.
void harm(testpeer::Connection &session, Random &random) {
  switch (pick(random, 8)) {
    case 0:
      return session.reset();
    case 1:
      return session.close();
    case 2:
      return session.truncate();
    case 3:
      return session.close_stream();
    case 4:
      return session.stream_error("system-shutdown");
    case 5:
      session.send("<message><<");
      return;
    case 6:
      session.stop_reading();
      return session.resume_reading();
    default:
      for (int i = 0; i < 100; ++i) {
        session.send("<message from='" CONTROLLER_JID
                     "'><grid xmlns='quillon' type='notification'>"
                     "<news xmlns='urn:stress'/></grid></message>"
                     "<iq type='get' id='stress' from='bob@" GRID_DOMAIN
                     "/qlk'><grid xmlns='quillon' type='request'>"
                     "<asked xmlns='urn:stress'/></grid></iq>");
      }
  }
}

// ---- A connection

// What callbacks are given. It outlives its connection, so that a call that comes too late is seen.
struct Watch {
  std::atomic<bool> is_gone = false;
  std::atomic<unsigned> late = 0, connected = 0, disconnected = 0, received = 0, traced = 0;

  void seen(std::atomic<unsigned> &counter) {
    ++counter;
    if (is_gone) ++late;
  }
  static Watch &of(void *watch) { return *static_cast<Watch *>(watch); }
};

void on_connect(quillon_connection *, void *watch) { Watch::of(watch).seen(Watch::of(watch).connected); }
void on_disconnect(quillon_connection *, QUILLON_STATUS, void *watch) { Watch::of(watch).seen(Watch::of(watch).disconnected); }
void on_account(quillon_connection *, QUILLON_STATUS, void *watch) { Watch::of(watch).seen(Watch::of(watch).received); }
void on_stanza(quillon_connection *, QUILLON_TRACE_DIRECTION, const char *, size_t, void *watch) {
  Watch::of(watch).seen(Watch::of(watch).traced);
}
void on_news(wb_dom_node *, void *watch) { Watch::of(watch).seen(Watch::of(watch).received); }
wb_dom_node *on_query(wb_dom_node *request, void *watch) {
  Watch::of(watch).seen(Watch::of(watch).received);
  return request;
}

struct ConfigDestroy {
  void operator()(quillon_config *config) const { quillon_config_destroy(config); }
};

struct Member {
  std::unique_ptr<quillon_config, ConfigDestroy> config;
  test_support::Capability capability;
  test_support::Connection connection;
  Watch *watch = nullptr;
};

Member make_member(const std::vector<std::string> &hosts, Watch &watch, Random &random) {
  Member member;
  quillon_config *config = nullptr;
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_config_create(&config));
  member.config.reset(config);
  std::vector<const char *> texts;
  texts.reserve(hosts.size());
  for (const std::string &host : hosts) texts.push_back(host.c_str());
  std::shuffle(texts.begin(), texts.end(), random);
  quillon_config_set_hosts(config, texts.data(), static_cast<int>(texts.size()));
  quillon_config_set_user_name(config, "alice");
  quillon_config_set_client_cert_chain_filename(config, identities().client.certificate.c_str());
  quillon_config_set_client_cert_key_filename(config, identities().client.key.c_str());
  quillon_config_set_server_cert_chain_filename(config, identities().authority.certificate().c_str());
  quillon_config_set_send_timeout_seconds(config, 2);
  const auto overflow = pick(random, 2) == 0 ? QUILLON_HANDLER_QUEUE_OVERFLOW_DROP : QUILLON_HANDLER_QUEUE_OVERFLOW_CLOSE;
  quillon_config_set_handler_queue_bound(config, static_cast<int>(pick(random, 3) * 50), overflow);
  member.capability = test_support::make_capability("urn:stress", "Stress");
  member.connection = test_support::make_connection();
  member.watch = &watch;
  quillon_connection *connection = member.connection.get();
  static char timeout[] = "2";  // seconds
  EXPECT_TRUE(wb_htable_put(connection->wb_config, "connect_timeout_seconds", timeout, nullptr, nullptr));
  quillon_connection_set_config(connection, config);
  quillon_connection_set_connect_cb_user_data(connection, &watch);
  quillon_connection_set_disconnect_cb_user_data(connection, &watch);
  quillon_connection_set_account_cb_user_data(connection, &watch);
  quillon_connection_set_connect_cb(connection, on_connect);
  quillon_connection_set_disconnect_cb(connection, on_disconnect);
  quillon_connection_set_account_cb(connection, on_account);
  return member;
}

// ---- What the threads do

size_t count_entries(const char *folder) {
  size_t count = 0;
  for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator(folder)) ++count;
  return count;
}

class Stress {
 public:
  explicit Stress(unsigned seed) {
    Random random(seed);
    for (size_t i = 0; i <= kBadPeers; ++i) {
      peers_.push_back(std::make_unique<ScriptedPeer>(options_of_peer(random, i == 0)));
      hosts_.push_back(peers_.back()->host());
    }
    for (Slot &slot : slots_) slot.member = make_member(hosts_, new_watch(), random);
  }

  void run(unsigned seed, std::chrono::seconds time) {
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
        if (const auto session = peers_[pick(random, static_cast<unsigned>(peers_.size()))]->newest()) harm(*session, random);
        std::this_thread::sleep_for(std::chrono::milliseconds(20 + pick(random, 100)));  // Delay: the pace of the faults
      }
    });
    for (std::thread &thread : threads) thread.join();
  }

  // The faults are over: each connection works with the good server.
  void expect_recovery() {
    for (Slot &slot : slots_) {
      EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_disconnect(slot.member.connection.get()));
      EXPECT_LE(slot.member.watch->connected, slot.member.watch->disconnected);
      quillon_config_set_host(slot.member.config.get(), hosts_[0].c_str());
      EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_connect(slot.member.connection.get()));
      EXPECT_EQ(QUILLON_STATUS_OK, ask(slot.member));
      EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_disconnect(slot.member.connection.get()));
      EXPECT_EQ(0U, statistics_of(slot.member.connection.get()).queries_in_flight);
      slot.member.connection.reset();  // before what it uses
      slot.member.watch->is_gone = true;
    }
    for (const auto &watch : watches_) EXPECT_EQ(0U, watch->late);
  }

  void report() const {
    std::cout << operations_ << " operations, " << answered_ << " answers, " << connected_ << " sessions, " << made_
              << " connections made anew\n";
    EXPECT_LT(0U, operations_);
  }

 private:
  struct Slot {
    std::shared_mutex mutex;  // exclusive to destroy: other calls must have returned
    Member member;
  };

  Watch &new_watch() {
    const std::lock_guard lock(watches_mutex_);
    return *watches_.emplace_back(std::make_unique<Watch>());
  }

  void expect_one_of(QUILLON_STATUS status, const std::set<QUILLON_STATUS> &statuses, const char *call) {
    EXPECT_TRUE(status == QUILLON_STATUS_OK || statuses.count(status) == 1) << call << " came to " << status;
  }

  // A question with a number of its own, whose answer must be the same.
  QUILLON_STATUS ask(const Member &member) {
    const std::string number = std::to_string(++asked_);
    test_support::Node request = test_support::parse("<question xmlns='urn:stress' number='" + number + "'/>");
    wb_dom_node *received = nullptr;
    const QUILLON_STATUS status = quillon_connection_query_controller(member.connection.get(), request.release(), &received);
    const test_support::Node answer(received);
    EXPECT_EQ(status == QUILLON_STATUS_OK, answer != nullptr);
    if (answer != nullptr) {
      EXPECT_STREQ(number.c_str(), wb_dom_get_attribute(answer.get(), "number"));
      ++answered_;
    }
    return status;
  }

  // The statuses that a request may come to while its session fails.
  static const std::set<QUILLON_STATUS> &failures() {
    static const std::set<QUILLON_STATUS> statuses = {QUILLON_STATUS_SEND_TIMEOUT,   QUILLON_STATUS_SEND_ERROR,
                                                      QUILLON_STATUS_UNKNOWN,        QUILLON_STATUS_XMPP_ERROR,
                                                      QUILLON_STATUS_QUILLON_ERROR,  QUILLON_STATUS_NO_CONNECTION,
                                                      QUILLON_STATUS_NOT_AUTHORIZED, QUILLON_STATUS_CAPABILITY_NOT_FOUND};
    return statuses;
  }

  void work(Random &random) {
    Slot &slot = slots_[pick(random, kSlots)];
    const auto begun = Clock::now();
    const unsigned choice = pick(random, 100);
    if (choice < 6) {
      remake(slot, random);
    } else if (choice < 8) {
      destroy_in_callback(random);
    } else {
      const std::shared_lock lock(slot.mutex);
      use(slot.member, choice, random);
    }
    EXPECT_LT(Clock::now() - begun, kAtMost) << "operation " << choice;
    ++operations_;
  }

  void use(const Member &member, unsigned choice, Random &random) {
    quillon_connection *connection = member.connection.get();
    if (choice < 25) {
      const QUILLON_STATUS status = quillon_connection_connect(connection);
      std::set<QUILLON_STATUS> statuses = failures();
      statuses.insert(QUILLON_STATUS_CONNECTION_ERROR);
      expect_one_of(status, statuses, "connect");
      if (status == QUILLON_STATUS_OK) ++connected_;
    } else if (choice < 30) {
      EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_disconnect(connection));
    } else if (choice < 60) {
      expect_one_of(ask(member), failures(), "query");
    } else if (choice < 75) {
      test_support::Node news = test_support::parse("<news xmlns='urn:stress'/>");
      expect_one_of(quillon_connection_notify(connection, member.capability.get(), news.release()), failures(), "notify");
    } else if (choice < 80) {
      expect_one_of(quillon_capability_subscribe(member.capability.get(), connection), failures(), "subscribe");
    } else if (choice < 83) {
      expect_one_of(quillon_capability_publish(member.capability.get(), connection), failures(), "publish");
    } else if (choice < 90) {
      set_callbacks(connection, *member.watch, pick(random, 2) == 0);
    } else if (choice < 95) {
      register_handlers(connection, *member.watch);
    } else {
      quillon_handler_queue_usage usage = {};
      EXPECT_EQ(QUILLON_STATUS_OK,
                quillon_connection_get_handler_queue_usage(connection, QUILLON_HANDLER_QUEUE_NOTIFICATIONS, &usage));
      EXPECT_LE(usage.depth, usage.highest + kWorkers);
      const quillon_statistics now = statistics_of(connection);
      EXPECT_LE(now.queries_in_flight, now.queries_in_flight_highest + kWorkers);
      quillon_connection_set_stanza_trace(connection, pick(random, 2) == 0 ? on_stanza : nullptr, member.watch);
      static_cast<void>(quillon_connection_is_connected(connection));
      quillon_connection_wakeup(connection);
    }
  }

  static quillon_statistics statistics_of(const quillon_connection *connection) {
    quillon_statistics now;
    now.size = sizeof now;
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_get_statistics(connection, &now));
    return now;
  }

  static void set_callbacks(quillon_connection *connection, Watch &watch, bool none) {
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_set_account_cb(connection, none ? nullptr : on_account));
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_set_account_cb_user_data(connection, &watch));
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_set_disconnect_cb(connection, on_disconnect));
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_set_connect_cb(connection, on_connect));
  }

  static void register_handlers(quillon_connection *connection, Watch &watch) {
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_register_query_handler(connection, "urn:stress", "asked", on_query, &watch));
    if (watch.received % 4 != 0) return;  // notification handlers add up
    EXPECT_EQ(QUILLON_STATUS_OK,
              quillon_connection_register_notification_handler(connection, "urn:stress", "news", on_news, &watch));
  }

  void remake(Slot &slot, Random &random) {
    Watch &watch = new_watch();
    const std::unique_lock lock(slot.mutex);
    slot.member.connection.reset();
    slot.member.watch->is_gone = true;
    slot.member = {};
    slot.member = make_member(hosts_, watch, random);
    ++made_;
  }

  // A connection that ends itself as soon as it is part of the grid.
  void destroy_in_callback(Random &random) {
    struct Ending {
      test_support::Connection connection;
      Watch *watch;
    };
    Watch &watch = new_watch();
    Member member = make_member({hosts_[0]}, watch, random);
    Ending ending = {std::move(member.connection), &watch};
    quillon_connection *connection = ending.connection.get();
    quillon_connection_set_connect_cb_user_data(connection, &ending);
    quillon_connection_set_connect_cb(connection, [](quillon_connection *, void *given) {
      auto &it = *static_cast<Ending *>(given);
      it.connection.reset();
      it.watch->is_gone = true;
    });
    std::set<QUILLON_STATUS> statuses = failures();
    statuses.insert(QUILLON_STATUS_CONNECTION_ERROR);
    expect_one_of(quillon_connection_connect(connection), statuses, "connect");
    ending.connection.reset();
    watch.is_gone = true;
    ++made_;
  }

  std::vector<std::unique_ptr<ScriptedPeer>> peers_;
  std::vector<std::string> hosts_;
  std::mutex watches_mutex_;
  std::vector<std::unique_ptr<Watch>> watches_;
  std::array<Slot, kSlots> slots_;
  std::atomic<size_t> asked_ = 0, operations_ = 0, answered_ = 0, connected_ = 0, made_ = 0;
};

TEST(Stress, ManyThreadsAndRandomFaults) {
  const unsigned seed = number_from("QLK_STRESS_SEED", std::random_device()());
  const std::chrono::seconds time(number_from("QLK_STRESS_SECONDS", 5));
  std::cout << "QLK_STRESS_SEED=" << seed << std::endl;
  quillon_log_set_level(QUILLON_LOG_NONE);
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_init());
  identities();
  std::thread([] {}).join();  // with the first thread a sanitizer starts one of its own
  const size_t descriptors = count_entries("/proc/self/fd"), threads = count_entries("/proc/self/task");
  {
    Stress stress(seed);
    stress.run(seed, time);
    stress.expect_recovery();
    stress.report();
  }
  EXPECT_TRUE(testpeer::eventually(
      30s, [&] { return count_entries("/proc/self/fd") == descriptors && count_entries("/proc/self/task") == threads; }))
      << count_entries("/proc/self/fd") << " descriptors and " << count_entries("/proc/self/task") << " threads, at first "
      << descriptors << " and " << threads;
}

}  // namespace

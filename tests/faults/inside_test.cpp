// The view inside a connection: its statistics by a known exchange, and the keys of its TLS sessions.
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <fstream>
#include <numeric>
#include <thread>

#include "application.h"

namespace faults {
namespace {

constexpr uint32_t kLong = 30'000, kShort = 200;  // milliseconds

class Inside : public testing::Test {
 protected:
  ~Inside() override { application_.destroy_connection(); }

  quillon_connection *connection() { return application_.connection(); }

  quillon_statistics read() {
    quillon_statistics statistics;
    statistics.size = sizeof statistics;
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_get_statistics(connection(), &statistics));
    return statistics;
  }
  template <typename Condition>
  bool reads(Condition &&condition) {
    return testpeer::eventually(kSoon, [&] { return condition(read()); });
  }

  QUILLON_STATUS begin(const std::string &name, uint32_t milliseconds = kLong, quillon_pending_query **pending = nullptr) {
    test_support::Node request = test_support::parse("<" + name + " xmlns='urn:test'/>");
    const QUILLON_STATUS status = quillon_connection_query_controller_async(
        connection(), request.get(), milliseconds, [](const quillon_query_result *, void *) {}, nullptr, pending);
    if (status == QUILLON_STATUS_OK) static_cast<void>(request.release());
    return status;
  }

  Application application_;
};

using Counts = std::array<uint64_t, 5>;
Counts all_of(const quillon_query_counts &counts) {
  return {counts.answered, counts.refused, counts.not_sent, counts.timed_out, counts.unknown};
}

template <typename Numbers>
uint64_t sum_of(const Numbers &numbers) {
  return std::accumulate(std::begin(numbers), std::end(numbers), uint64_t{0});
}

TEST_F(Inside, CountsAKnownExchange) {
  // All the while another thread looks.
  std::atomic<bool> looks = true;
  std::thread looking([&] {
    constexpr quillon_stanza_trace_cb kDrop = [](quillon_connection *, QUILLON_TRACE_DIRECTION, const char *, size_t, void *) {};
    for (bool traced = true; looks; traced = !traced) {
      read();
      quillon_connection_set_stanza_trace(connection(), traced ? kDrop : nullptr, nullptr);
      std::this_thread::sleep_for(1ms);  // Delay: what is looked at has to get on.
    }
  });

  Options options = correct();
  options.approval_status = "pending";
  options.faults.emplace(Stage::features, Fault::delay(300ms));
  options.request_replies = {{"refused", {.error = "service-unavailable"}}, {"silent", {.copies = 0}}};
  const ScriptedPeer peer(options);
  application_.use(peer.host());
  application_.allow(kPatient, kImpatient);

  // Joining: the two questions that it asks the controller are answered.
  EXPECT_EQ(QUILLON_CONNECTION_PHASE_DOWN, read().phase);
  QUILLON_STATUS status = QUILLON_STATUS_MAX;
  std::thread connecting([&] { status = application_.connect(); });
  EXPECT_TRUE(reads([](const auto &now) { return now.phase_milliseconds[QUILLON_CONNECTION_PHASE_CONNECTING] > 0; }));
  EXPECT_TRUE(reads([](const auto &now) { return now.phase == QUILLON_CONNECTION_PHASE_PENDING; }));
  EXPECT_TRUE(reads([](const auto &now) { return now.phase_milliseconds[QUILLON_CONNECTION_PHASE_PENDING] >= 100; }));
  peer.notify("<connectionUpdateNotification xmlns='" GRID_NS "'><status>enabled</status></connectionUpdateNotification>");
  connecting.join();
  EXPECT_EQ(QUILLON_STATUS_OK, status) << application_.log();
  EXPECT_EQ(QUILLON_CONNECTION_PHASE_CONNECTED, read().phase);
  EXPECT_GE(read().phase_milliseconds[QUILLON_CONNECTION_PHASE_CONNECTING], 300U);
  EXPECT_EQ((Counts{2, 0, 0, 0, 0}), all_of(read().synchronous_queries));

  // What may become of a query while there is a session, both ways.
  EXPECT_EQ(QUILLON_STATUS_OK, application_.ask());
  EXPECT_EQ(QUILLON_STATUS_XMPP_ERROR, application_.ask("refused"));
  EXPECT_EQ(QUILLON_STATUS_SEND_TIMEOUT, application_.ask("silent"));
  EXPECT_EQ((Counts{3, 1, 0, 1, 0}), all_of(read().synchronous_queries));
  quillon_pending_query *pending = nullptr;
  EXPECT_EQ(QUILLON_STATUS_OK, begin("silent", kLong, &pending));
  for (const char *name : {kQuestion, kQuestion, "refused"}) EXPECT_EQ(QUILLON_STATUS_OK, begin(name));
  EXPECT_EQ(QUILLON_STATUS_OK, begin("silent", kShort));
  EXPECT_EQ(QUILLON_STATUS_OK, begin(kQuestion, 0));
  EXPECT_TRUE(reads([](const auto &now) { return all_of(now.asynchronous_queries) == Counts{2, 1, 1, 1, 0}; }));
  EXPECT_TRUE(reads([](const auto &now) { return now.queries_in_flight == 1; }));
  quillon_pending_query_cancel(pending);
  quillon_pending_query_destroy(pending);
  EXPECT_TRUE(reads([](const auto &now) { return now.queries_in_flight == 0 && now.completion_queue.depth == 0; }));
  EXPECT_EQ((Counts{2, 1, 1, 1, 1}), all_of(read().asynchronous_queries));
  EXPECT_GE(read().queries_in_flight_highest, 2U);
  EXPECT_GE(read().completion_queue.highest, 1U);

  // The answered ones have latencies.
  quillon_statistics now = read();
  EXPECT_EQ(5U, sum_of(now.latency));
  EXPECT_GT(now.latency_sum, 0U);
  EXPECT_GE(5 * quillon_statistics_latency_quantile(&now, 1), now.latency_sum);

  // What came is counted to the byte, and what went.
  const uint64_t stanzas = now.stanzas_received, bytes = now.bytes_received;
  const std::string message = "<message from='" CONTROLLER_JID "'/>";
  peer.send(message + message);
  EXPECT_TRUE(reads([&](const auto &later) { return later.stanzas_received == stanzas + 2; }));
  EXPECT_EQ(bytes + 2 * message.size(), read().bytes_received);
  EXPECT_TRUE(
      reads([](const auto &later) { return later.notification_queue.depth == 0 && later.notification_queue.highest > 0; }));
  EXPECT_EQ(QUILLON_STATUS_OK, application_.disconnect());
  EXPECT_TRUE(peer.wait_all_ended(kSoon));
  now = read();
  EXPECT_EQ(peer.stanzas().size(), now.stanzas_sent);
  EXPECT_EQ(peer.newest()->transcript().received.size(), now.bytes_sent);
  EXPECT_EQ(0U, now.bytes_waiting);
  EXPECT_GT(now.bytes_waiting_highest, 0U);
  EXPECT_EQ(QUILLON_CONNECTION_PHASE_DOWN, now.phase);

  // Without a session nothing is sent; one that breaks leaves the outcome open.
  EXPECT_EQ(QUILLON_STATUS_OK, begin(kQuestion));
  EXPECT_EQ(QUILLON_STATUS_SEND_TIMEOUT, application_.ask());
  EXPECT_EQ((Counts{3, 1, 1, 1, 0}), all_of(read().synchronous_queries));
  EXPECT_TRUE(reads([](const auto &later) { return all_of(later.asynchronous_queries) == Counts{2, 1, 2, 1, 1}; }));
  const ScriptedPeer breaking(with_request("lost", Fault::reset()));
  application_.use(breaking.host());
  application_.allow(kPatient, kPatient);
  EXPECT_EQ(QUILLON_STATUS_OK, application_.connect()) << application_.log();
  EXPECT_EQ(QUILLON_STATUS_SEND_TIMEOUT, application_.ask("lost"));
  EXPECT_EQ((Counts{5, 1, 1, 1, 1}), all_of(read().synchronous_queries));
  EXPECT_TRUE(reads([](const auto &later) { return later.phase == QUILLON_CONNECTION_PHASE_DOWN; }));
  now = read();
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_drain(connection(), 0));
  EXPECT_EQ(QUILLON_STATUS_NO_CONNECTION, begin(kQuestion));
  EXPECT_EQ(QUILLON_STATUS_NO_CONNECTION, application_.ask());
  EXPECT_EQ((Counts{5, 1, 2, 1, 1}), all_of(read().synchronous_queries));
  EXPECT_EQ((Counts{2, 1, 3, 1, 1}), all_of(read().asynchronous_queries));
  EXPECT_EQ(2U, now.sessions);
  EXPECT_EQ(2U, now.session_attempts);
  EXPECT_EQ(1U, now.reconnects);
  looks = false;
  looking.join();
}

// Whole milliseconds of each of them may lack a part.
TEST_F(Inside, ThePhasesTogetherAreAllTheTime) {
  constexpr uint64_t kRounding = QUILLON_CONNECTION_PHASE_MAX;
  const auto begun = Clock::now();
  const uint64_t before = sum_of(read().phase_milliseconds);
  EXPECT_TRUE(reads([&](const auto &now) { return sum_of(now.phase_milliseconds) >= before + 50; }));
  const uint64_t after = sum_of(read().phase_milliseconds);
  const auto passed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begun).count();
  EXPECT_LE(after, before + static_cast<uint64_t>(passed) + kRounding);
}

TEST_F(Inside, TakesRecordsOfOtherVersions) {
  struct Later {
    quillon_statistics known;
    uint64_t unknown = 7;
  } later;
  later.known.size = sizeof later;
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_get_statistics(connection(), &later.known));
  EXPECT_EQ(sizeof later.known, later.known.size);
  EXPECT_EQ(0U, later.unknown);
  later.known.size = sizeof later.known - 1;
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_connection_get_statistics(connection(), &later.known));
}

TEST(LatencyQuantile, IsTheEndOfItsBucket) {
  quillon_statistics statistics = {};
  EXPECT_EQ(0U, quillon_statistics_latency_quantile(&statistics, 0.5));
  statistics.latency[0] = 1;
  statistics.latency[10] = 98;
  statistics.latency[QUILLON_LATENCY_BUCKETS - 1] = 1;
  const std::pair<double, uint64_t> expected[] = {{0, 1},          {0.01, 1}, {0.5, 1024}, {0.99, 1024},
                                                  {1, UINT64_MAX}, {1.1, 0},  {-1, 0}};
  for (const auto &[part, microseconds] : expected)
    EXPECT_EQ(microseconds, quillon_statistics_latency_quantile(&statistics, part)) << part;
}

TEST_F(Inside, WritesTheKeysOfTlsSessions) {
  std::string folder = testing::TempDir() + "qlk-keys-XXXXXX";
  ASSERT_NE(nullptr, mkdtemp(folder.data()));
  const std::string file = folder + "/keys", readable = folder + "/readable", other = folder + "/other";
  std::ofstream(readable).close();
  chmod(readable.c_str(), 0644);
  std::ofstream(other).close();
  chmod(other.c_str(), 0600);
  const std::string link = folder + "/link", second_name = folder + "/second name";
  ASSERT_EQ(0, symlink(file.c_str(), link.c_str()));
  ASSERT_EQ(0, ::link(other.c_str(), second_name.c_str()));
  const ScriptedPeer peer(correct());
  application_.use(peer.host());
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_config_set_tls_key_log(application_.config(), file.c_str()));
  for (const std::string &wrong : {readable, folder, folder + "/none/keys", link, second_name})
    EXPECT_EQ(QUILLON_STATUS_UNKNOWN, quillon_config_set_tls_key_log(application_.config(), wrong.c_str())) << wrong;
  for (size_t session = 1; session <= 3; ++session) {
    EXPECT_EQ(QUILLON_STATUS_OK, application_.connect()) << application_.log();
    EXPECT_EQ(QUILLON_STATUS_OK, application_.disconnect());
    size_t keys = 0;
    std::ifstream lines(file);
    for (std::string line; std::getline(lines, line);) keys += line.starts_with("CLIENT_TRAFFIC_SECRET_0 ") ? 1 : 0;
    EXPECT_EQ(std::min<size_t>(session, 2), keys);
    if (session == 2) {
      EXPECT_EQ(QUILLON_STATUS_OK, quillon_config_set_tls_key_log(application_.config(), nullptr));
    }
  }
  struct stat made = {};
  EXPECT_EQ(0, stat(file.c_str(), &made));
  EXPECT_EQ(0600, static_cast<int>(made.st_mode & 07777));
  EXPECT_NE(std::string::npos, application_.log().find("the keys of this TLS session are written to"));
  for (const std::string &name : {file, readable}) unlink(name.c_str());
  rmdir(folder.c_str());
}

}  // namespace
}  // namespace faults

// More arrives than the application's handlers can bear: what waits is told, and bounded where the application wants it.
#include <atomic>

#include "application.h"

namespace faults {
namespace {

constexpr int kWarning = 5, kBound = 10;
constexpr size_t kFlood = 30;
constexpr char kTooSlow[] = "which is too slow for them", kDropping[] = "further ones are dropped";

// A handler that waits until it is let go, and notes what it was given.
class SlowHandler {
 public:
  void handle(const wb_dom_node *payload) {
    std::unique_lock lock(mutex_);
    const char *number = wb_dom_get_attribute(payload, "number");
    handled_.emplace_back(number != nullptr ? number : "");
    changed_.notify_all();
    EXPECT_TRUE(changed_.wait_for(lock, kSoon, [this] { return is_open_; }));
  }

  void open(bool is_open) {
    const std::lock_guard lock(mutex_);
    is_open_ = is_open;
    changed_.notify_all();
  }

  bool wait_handled(size_t count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kSoon, [&] { return handled_.size() >= count; });
  }

  // What was handled since the last call.
  std::vector<std::string> take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(handled_, {});
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> handled_;
  bool is_open_ = false;
};

struct FloodRow {
  std::string name;
  QUILLON_HANDLER_QUEUE queue;
  int bound;
  QUILLON_HANDLER_QUEUE_OVERFLOW overflow = QUILLON_HANDLER_QUEUE_OVERFLOW_DROP;
  size_t reserve = 0;     // for the controller, in whose name the flood comes then
  bool in_bytes = false;  // the limits are such that two stanzas, which take 3 KiB each, are as much as may wait

  size_t may_wait() const { return in_bytes ? 2 : bound == 0 ? kFlood : static_cast<size_t>(bound); }
  friend void PrintTo(const FloodRow &row, std::ostream *out) { *out << row.name; }
};

class Flood : public FaultTest, public testing::WithParamInterface<FloodRow> {
 protected:
  Flood() {
    quillon_connection_register_notification_handler(
        application_.connection(), "urn:flood", "drop",
        [](wb_dom_node *payload, void *slow) { static_cast<SlowHandler *>(slow)->handle(payload); }, &slow_);
    quillon_connection_register_query_handler(
        application_.connection(), "urn:flood", "drop",
        [](wb_dom_node *payload, void *slow) -> wb_dom_node * {
          static_cast<SlowHandler *>(slow)->handle(payload);
          return nullptr;
        },
        &slow_);
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_config_set_handler_queue_warning(application_.config(), kWarning));
    EXPECT_EQ(QUILLON_STATUS_OK,
              quillon_config_set_handler_queue_bound(application_.config(), GetParam().bound, GetParam().overflow));
    const bool in_bytes = GetParam().in_bytes;
    EXPECT_EQ(QUILLON_STATUS_OK,
              quillon_config_set_handler_queue_bytes(application_.config(), in_bytes ? 6000 : 0, in_bytes ? 7000 : 0));
  }
  ~Flood() override { slow_.open(true); }

  static std::string stanza(size_t number) {
    const std::string payload = "<drop xmlns='urn:flood' number='" + std::to_string(number) + "'/>";
    if (GetParam().queue == QUILLON_HANDLER_QUEUE_QUERIES)
      return "<iq type='get' id='flood' from='bob@" GRID_DOMAIN "/qlk'><grid xmlns='quillon' type='request'>" + payload +
             "</grid></iq>";
    if (GetParam().reserve > 0)
      return "<message from='" CONTROLLER_JID "'><grid xmlns='quillon' type='notification'>" + payload + "</grid></message>";
    return "<message from='" PUBSUB_JID
           "'><event xmlns='http://jabber.org/protocol/pubsub#event'><items node='n'><item>"
           "<grid xmlns='quillon' type='notification'>" +
           payload + "</grid></item></items></event></message>";
  }

  // Keeps the handler busy with one stanza, and sends the others at once.
  void flood(ScriptedPeer &peer) {
    slow_.open(false);
    peer.send(stanza(0));
    ASSERT_TRUE(slow_.wait_handled(1)) << application_.log();
    std::string stanzas;
    for (size_t i = 1; i <= kFlood + GetParam().reserve; ++i) stanzas += stanza(i);
    peer.send(stanzas);
  }

  quillon_handler_queue_usage usage() {
    quillon_handler_queue_usage usage = {};
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_get_handler_queue_usage(application_.connection(), GetParam().queue, &usage));
    return usage;
  }

  bool wait_usage(size_t depth, size_t highest, uint64_t dropped) {
    return testpeer::eventually(kSoon, [&] {
      const quillon_handler_queue_usage now = usage();
      return now.depth == depth && now.highest == highest && now.dropped == dropped;
    });
  }

  // The handler is let go, and has everything that waited: the oldest, in their order.
  void expect_handled(size_t waited) {
    slow_.open(true);
    EXPECT_TRUE(slow_.wait_handled(1 + waited)) << application_.log();
    std::vector<std::string> expected;
    for (size_t i = 0; i <= waited; ++i) expected.push_back(std::to_string(i));
    EXPECT_EQ(expected, slow_.take());
    EXPECT_EQ(0U, usage().depth);
    EXPECT_EQ(0U, usage().bytes);
  }

  size_t logged(std::string_view part) const {
    size_t count = 0;
    const std::string log = application_.log();
    for (size_t at = log.find(part); at != log.npos; at = log.find(part, at + 1)) ++count;
    return count;
  }

  SlowHandler slow_;
};

TEST_P(Flood, IsToldAndBounded) {
  const FloodRow &row = GetParam();
  auto peer = std::make_unique<ScriptedPeer>(correct());
  application_.use(peer->host());
  ASSERT_EQ(QUILLON_STATUS_OK, application_.connect()) << application_.log();
  const size_t waiting = row.may_wait();
  for (size_t crossing = 1; crossing <= 2; ++crossing) {
    ASSERT_NO_FATAL_FAILURE(flood(*peer));
    ASSERT_TRUE(wait_usage(waiting, waiting, crossing * (kFlood - waiting))) << application_.log();
    EXPECT_LE(waiting * sizeof(void *) * 20, usage().bytes);
    EXPECT_EQ(usage().bytes, usage().highest_bytes);
    EXPECT_EQ(QUILLON_STATUS_OK, application_.ask());  // nothing else is held up
    expect_handled(waiting);
    EXPECT_EQ(crossing, logged(kTooSlow)) << application_.log();
    EXPECT_EQ(waiting == kFlood ? 0U : crossing, logged(kDropping)) << application_.log();
  }
  EXPECT_EQ(Statuses(), application_.seen().disconnected);
  EXPECT_EQ(QUILLON_STATUS_OK, application_.disconnect());
  expect_recovery(std::move(peer));
}

const FloodRow kBorneFloods[] = {
    {"NotificationsUnbounded", QUILLON_HANDLER_QUEUE_NOTIFICATIONS, 0},
    {"NotificationsBounded", QUILLON_HANDLER_QUEUE_NOTIFICATIONS, kBound},
    {"QueriesUnbounded", QUILLON_HANDLER_QUEUE_QUERIES, 0},
    {"QueriesBounded", QUILLON_HANDLER_QUEUE_QUERIES, kBound},
    {.name = "NotificationsBoundedInBytes", .queue = QUILLON_HANDLER_QUEUE_NOTIFICATIONS, .bound = 0, .in_bytes = true},
    {.name = "QueriesBoundedInBytes", .queue = QUILLON_HANDLER_QUEUE_QUERIES, .bound = kBound, .in_bytes = true},
};

INSTANTIATE_TEST_SUITE_P(Borne, Flood, testing::ValuesIn(kBorneFloods), kNameOfRow);

class ClosingFlood : public Flood {};

// The session ends once, whatever comes after the stanza that was too much, and what waited is handled.
TEST_P(ClosingFlood, EndsTheSession) {
  auto peer = std::make_unique<ScriptedPeer>(correct());
  application_.use(peer->host());
  ASSERT_EQ(QUILLON_STATUS_OK, application_.connect()) << application_.log();
  ASSERT_NO_FATAL_FAILURE(flood(*peer));
  ASSERT_TRUE(application_.wait_ended()) << application_.log();
  EXPECT_EQ(Statuses{QUILLON_STATUS_CONNECTION_ERROR}, application_.seen().disconnected);
  EXPECT_FALSE(application_.is_connected());
  EXPECT_EQ(1U, logged("the session is ended: a handler queue is full")) << application_.log();
  EXPECT_EQ(1U, logged(kDropping)) << application_.log();
  EXPECT_LE(1U, usage().dropped);
  expect_handled(GetParam().may_wait() + GetParam().reserve);
  expect_recovery(std::move(peer));
}

const FloodRow kEndingFloods[] = {
    {"Notifications", QUILLON_HANDLER_QUEUE_NOTIFICATIONS, kBound, QUILLON_HANDLER_QUEUE_OVERFLOW_CLOSE},
    {"Queries", QUILLON_HANDLER_QUEUE_QUERIES, kBound, QUILLON_HANDLER_QUEUE_OVERFLOW_CLOSE},
    {"WordsOfTheController", QUILLON_HANDLER_QUEUE_NOTIFICATIONS, kBound, QUILLON_HANDLER_QUEUE_OVERFLOW_DROP, 1000},
    {.name = "NotificationsInBytes",
     .queue = QUILLON_HANDLER_QUEUE_NOTIFICATIONS,
     .bound = 0,
     .overflow = QUILLON_HANDLER_QUEUE_OVERFLOW_CLOSE,
     .in_bytes = true},
};

INSTANTIATE_TEST_SUITE_P(Each, ClosingFlood, testing::ValuesIn(kEndingFloods), kNameOfRow);

class FloodOfNotifications : public Flood {};

// A publisher that talks too much cannot keep the controller's words from us.
TEST_P(FloodOfNotifications, LeavesRoomForTheController) {
  auto peer = std::make_unique<ScriptedPeer>(correct());
  application_.use(peer->host());
  ASSERT_EQ(QUILLON_STATUS_OK, application_.connect()) << application_.log();
  ASSERT_NO_FATAL_FAILURE(flood(*peer));
  const size_t waiting = GetParam().may_wait();
  ASSERT_TRUE(wait_usage(waiting, waiting, kFlood - waiting)) << application_.log();
  peer->send("<message from='" CONTROLLER_JID
             "'><grid xmlns='quillon' type='notification'>"
             "<connectionUpdateNotification xmlns='" GRID_NS
             "'><status>enabled</status></connectionUpdateNotification></grid></message>");
  ASSERT_TRUE(wait_usage(waiting + 1, waiting + 1, kFlood - waiting)) << application_.log();
  slow_.open(true);
  EXPECT_TRUE(application_.wait_until([](const Seen &seen) { return seen.account == Statuses{QUILLON_STATUS_ACCOUNT_ENABLED}; }));
  EXPECT_EQ(QUILLON_STATUS_OK, application_.disconnect());
  expect_recovery(std::move(peer));
}

INSTANTIATE_TEST_SUITE_P(Bounded, FloodOfNotifications, testing::Values(kBorneFloods[1], kBorneFloods[4]), kNameOfRow);

TEST(HandlerQueue, RefusesWhatIsNoLimitAndNoQueue) {
  Application application;
  quillon_config *config = application.config();
  quillon_connection *connection = application.connection();
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_config_set_handler_queue_warning(nullptr, 1));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_config_set_handler_queue_warning(config, -1));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_config_set_handler_queue_bound(nullptr, 1, QUILLON_HANDLER_QUEUE_OVERFLOW_DROP));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_config_set_handler_queue_bound(config, -1, QUILLON_HANDLER_QUEUE_OVERFLOW_DROP));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_config_set_handler_queue_bound(config, 1, QUILLON_HANDLER_QUEUE_OVERFLOW_MAX));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_config_set_handler_queue_bytes(nullptr, 1, 1));
  quillon_handler_queue_usage usage = {};
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS,
            quillon_connection_get_handler_queue_usage(nullptr, QUILLON_HANDLER_QUEUE_QUERIES, &usage));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS,
            quillon_connection_get_handler_queue_usage(connection, QUILLON_HANDLER_QUEUE_QUERIES, nullptr));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS,
            quillon_connection_get_handler_queue_usage(connection, QUILLON_HANDLER_QUEUE_MAX, &usage));
}

}  // namespace
}  // namespace faults

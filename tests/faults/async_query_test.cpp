// Asynchronous queries: each call ends once, with the outcome that its publishers, its time and its session lead to.
#include <quillon_async.h>

#include <atomic>
#include <future>
#include <thread>
#include <tuple>

#include "application.h"

namespace faults {
namespace {

using testpeer::Connection;
using testpeer::Stanza;

constexpr uint32_t kLong = 30'000;  // milliseconds; only a test that fails comes near it

struct Ended {
  QUILLON_QUERY_OUTCOME outcome = QUILLON_QUERY_OUTCOME_MAX;
  QUILLON_STATUS status = QUILLON_STATUS_MAX;
  std::string publisher, response;

  bool operator==(const Ended &) const = default;
  friend void PrintTo(const Ended &ended, std::ostream *out) {
    *out << ended.outcome << ", " << ended.status << ", " << ended.publisher << ", " << ended.response;
  }
};

// The one asked at an address that begins with the word.
std::string publisher(const std::string &word) { return word + "@" GRID_DOMAIN "/qlk"; }

const Ended kAnswered = {QUILLON_QUERY_OUTCOME_ANSWERED, QUILLON_STATUS_OK, publisher("good"), "<ask xmlns=\"urn:test\"/>"};
const Ended kLost = {QUILLON_QUERY_OUTCOME_UNKNOWN, QUILLON_STATUS_CONNECTION_ERROR, publisher("silent"), ""};

// Publishers that do as they are called; those of other names echo.
bool act(Connection &connection, const Stanza &stanza) {
  const std::string to = stanza.attribute("to");
  static std::mutex mutex;
  static std::optional<Stanza> kept;  // of the one that answers when the next is asked
  const auto is = [&](const char *word) { return to.starts_with(word); };
  if (is("slow") || is("silent")) {
    const std::lock_guard lock(mutex);
    if (is("silent") && kept.has_value())
      connection.reply(*std::exchange(kept, std::nullopt),
                       {.payload = "<grid xmlns='quillon' type='response'><late xmlns='urn:test'/></grid>"});
    if (is("slow")) kept = stanza;
    return true;
  }
  if (is("refusing")) connection.reply(stanza, {.error = "service-unavailable"});
  if (is("odd")) {
    connection.send("<iq type='result' id='" + stanza.attribute("id") + "' from='" + to +
                    "'><grid xmlns='quillon' type='other'/></iq>");
  }
  return is("refusing") || is("odd");
}

Options publishers_that_act(const std::vector<std::string> &words) {
  Options options = correct();
  options.echo_queries = true;
  options.on_stanza = act;
  options.max_bytes = 50'000;
  for (const std::string &word : words) options.publishers.push_back(publisher(word));
  return options;
}

class AsyncQuery : public testing::Test {
 protected:
  ~AsyncQuery() override { application_.destroy_connection(); }

  void connect(const std::vector<std::string> &words) {
    peer_ = std::make_unique<ScriptedPeer>(publishers_that_act(words));
    application_.use(peer_->host());
    application_.allow(kPatient, kImpatient);
    ASSERT_EQ(QUILLON_STATUS_OK, application_.connect()) << application_.log();
    ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_subscribe(capability_.get(), connection()));
  }
  quillon_connection *connection() { return application_.connection(); }

  QUILLON_STATUS ask(uint32_t milliseconds = kLong, quillon_pending_query **pending = nullptr, const std::string &text = {}) {
    test_support::Node request = test_support::parse("<ask xmlns='urn:test'>" + text + "</ask>");
    const QUILLON_STATUS status =
        quillon_connection_query_async(connection(), capability_.get(), request.get(), milliseconds, on_done, this, pending);
    if (status == QUILLON_STATUS_OK) static_cast<void>(request.release());
    return status;
  }

  std::vector<Ended> ended() const {
    const std::lock_guard lock(mutex_);
    return ended_;
  }
  // All that have ended, once so many have.
  std::vector<Ended> wait_for(size_t count) const {
    EXPECT_TRUE(testpeer::eventually(kSoon, [&] { return ended().size() >= count; })) << application_.log();
    return ended();
  }
  bool wait_asked(const std::string &word, size_t count = 1) const {
    return testpeer::eventually(kSoon, [&] {
      size_t asked = 0;
      for (const Stanza &stanza : peer_->stanzas()) asked += stanza.attribute("to") == publisher(word) ? 1 : 0;
      return asked >= count;
    });
  }

  static void on_done(const quillon_query_result *result, void *self) {
    auto &test = *static_cast<AsyncQuery *>(self);
    {
      const std::lock_guard lock(test.mutex_);
      test.ended_.push_back({result->outcome, result->status, result->publisher != nullptr ? result->publisher : "",
                             test_support::serialize(result->response)});
    }
    if (test.in_callback_) test.in_callback_();
  }

  Application application_;
  const test_support::Capability capability_ = test_support::make_capability("urn:test", "C");
  std::unique_ptr<ScriptedPeer> peer_;
  std::function<void()> in_callback_;

 private:
  mutable std::mutex mutex_;
  std::vector<Ended> ended_;
};

struct OutcomeRow {
  std::string name;
  std::vector<std::string> publishers;
  Ended expected;
  uint32_t milliseconds = kLong;
  std::string text = {};

  friend void PrintTo(const OutcomeRow &row, std::ostream *out) { *out << row.name; }
};

class Outcomes : public AsyncQuery, public testing::WithParamInterface<OutcomeRow> {};

TEST_P(Outcomes, AreDefinite) {
  const OutcomeRow &row = GetParam();
  connect(row.publishers);
  ASSERT_EQ(QUILLON_STATUS_OK, ask(row.milliseconds, nullptr, row.text));
  wait_for(1);
  application_.destroy_connection();
  EXPECT_EQ(std::vector{row.expected}, ended()) << application_.log();
}

const OutcomeRow kOutcomes[] = {
    {"Answered", {"good"}, kAnswered},
    {"AnsweredAfterARefusal", {"refusing", "good"}, kAnswered},
    {"AnsweredAfterSilence", {"silent", "good"}, kAnswered},
    {"AnsweredLate",
     {"slow", "silent"},
     {QUILLON_QUERY_OUTCOME_ANSWERED, QUILLON_STATUS_OK, publisher("slow"), "<late xmlns=\"urn:test\"/>"}},
    {"AllRefuse",
     {"refusing", "refusing2"},
     {QUILLON_QUERY_OUTCOME_REFUSED, QUILLON_STATUS_XMPP_ERROR, publisher("refusing2"), ""}},
    {"NoResponse", {"odd", "good"}, {QUILLON_QUERY_OUTCOME_REFUSED, QUILLON_STATUS_QUILLON_ERROR, publisher("odd"), ""}},
    {"Silence", {"silent"}, {QUILLON_QUERY_OUTCOME_UNKNOWN, QUILLON_STATUS_SEND_TIMEOUT, publisher("silent"), ""}, 300},
    {"SilenceAndARefusal",
     {"silent", "refusing"},
     {QUILLON_QUERY_OUTCOME_UNKNOWN, QUILLON_STATUS_SEND_TIMEOUT, publisher("refusing"), ""},
     2000},
    {"Nobody", {}, {QUILLON_QUERY_OUTCOME_NOT_SENT, QUILLON_STATUS_CAPABILITY_NOT_FOUND, "", ""}},
    {"NoTime", {"good"}, {QUILLON_QUERY_OUTCOME_NOT_SENT, QUILLON_STATUS_SEND_TIMEOUT, "", ""}, 0},
    {"TooLarge", {"good"}, {QUILLON_QUERY_OUTCOME_NOT_SENT, QUILLON_STATUS_UNKNOWN, "", ""}, kLong, std::string(60'000, 'x')},
    {"TooLargeForTheSecondToo",
     {"good", "good2"},
     {QUILLON_QUERY_OUTCOME_NOT_SENT, QUILLON_STATUS_UNKNOWN, "", ""},
     kLong,
     std::string(60'000, 'x')},
};
INSTANTIATE_TEST_SUITE_P(Publishers, Outcomes, testing::ValuesIn(kOutcomes), kNameOfRow);

TEST_F(AsyncQuery, WithoutASessionNothingIsSent) {
  ASSERT_NO_FATAL_FAILURE(connect({"good"}));
  ASSERT_EQ(QUILLON_STATUS_OK, application_.disconnect());
  ASSERT_EQ(QUILLON_STATUS_OK, ask());
  EXPECT_EQ((std::vector<Ended>{{QUILLON_QUERY_OUTCOME_NOT_SENT, QUILLON_STATUS_NO_CONNECTION, "", ""}}), wait_for(1));
}

TEST_F(AsyncQuery, ALostSessionEndsAllThatIsInFlight) {
  ASSERT_NO_FATAL_FAILURE(connect({"silent"}));
  application_.allow(kPatient, kPatient);
  for (int i = 0; i < 3; ++i) ASSERT_EQ(QUILLON_STATUS_OK, ask());
  ASSERT_TRUE(wait_asked("silent", 3));
  peer_->newest()->reset();
  EXPECT_EQ(std::vector(3, kLost), wait_for(3));
}

TEST_F(AsyncQuery, OneIsCancelledAndTheHandleOutlivesAll) {
  ASSERT_NO_FATAL_FAILURE(connect({"silent"}));
  quillon_pending_query *pending[2] = {};
  for (quillon_pending_query *&handle : pending) ASSERT_EQ(QUILLON_STATUS_OK, ask(kLong, &handle));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_pending_query_cancel(pending[0]));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_pending_query_cancel(pending[0])) << "it has ended";
  const Ended cancelled = {QUILLON_QUERY_OUTCOME_UNKNOWN, QUILLON_STATUS_UNKNOWN, publisher("silent"), ""};
  EXPECT_EQ(std::vector{cancelled}, wait_for(1));
  application_.destroy_connection();
  EXPECT_EQ((std::vector{cancelled, kLost}), ended());
  for (quillon_pending_query *handle : pending) {
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_pending_query_cancel(handle));
    quillon_pending_query_destroy(handle);
  }
  EXPECT_EQ(2U, ended().size());
}

TEST_F(AsyncQuery, DestroyingCallsAllBackAndThenNoMore) {
  ASSERT_NO_FATAL_FAILURE(connect({"silent"}));
  for (int i = 0; i < 20; ++i) ASSERT_EQ(QUILLON_STATUS_OK, ask());
  application_.destroy_connection();
  EXPECT_EQ(std::vector(20, kLost), ended());
}

TEST_F(AsyncQuery, ACallbackDestroysTheConnectionAndTheOthersAreCalledBackWithin) {
  ASSERT_NO_FATAL_FAILURE(connect({"silent"}));
  std::promise<size_t> ended_within;
  in_callback_ = [&] {
    if (ended().size() > 1) return;
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_disconnect(connection()));
    application_.destroy_connection();
    ended_within.set_value(ended().size());
  };
  for (int i = 0; i < 5; ++i) ASSERT_EQ(QUILLON_STATUS_OK, ask());
  quillon_pending_query *pending = nullptr;
  ASSERT_EQ(QUILLON_STATUS_OK, ask(kLong, &pending));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_pending_query_cancel(pending));
  auto result = ended_within.get_future();
  ASSERT_EQ(std::future_status::ready, result.wait_for(kSoon));
  EXPECT_EQ(6U, result.get());
  quillon_pending_query_destroy(pending);
}

TEST_F(AsyncQuery, ACallbackAsksAndWaitsAndBeginsOthers) {
  ASSERT_NO_FATAL_FAILURE(connect({"refusing", "good"}));
  std::atomic<int> answered = 0;
  in_callback_ = [&] {
    answered += application_.ask() == QUILLON_STATUS_OK ? 1 : 0;
    if (ended().size() < 4) {
      EXPECT_EQ(QUILLON_STATUS_OK, ask());
    }
  };
  ASSERT_EQ(QUILLON_STATUS_OK, ask());
  EXPECT_EQ(std::vector(4, kAnswered), wait_for(4));
  EXPECT_TRUE(testpeer::eventually(kSoon, [&] { return answered == 4; }));
  size_t refused = 0;
  for (const Stanza &stanza : peer_->stanzas()) refused += stanza.attribute("to") == publisher("refusing") ? 1 : 0;
  EXPECT_EQ(1U, refused) << "who answered last is asked first";
}

// The time of one runs while the callback of another blocks.
TEST_F(AsyncQuery, ACallbackThatBlocksKeepsNobodyFromBeingPassedOver) {
  ASSERT_NO_FATAL_FAILURE(connect({"silent", "good"}));
  in_callback_ = [&] {
    if (ended().size() == 1) {
      EXPECT_TRUE(wait_asked("good"));
    }
  };
  quillon_pending_query *pending = nullptr;
  ASSERT_EQ(QUILLON_STATUS_OK, ask(kLong, &pending));
  ASSERT_EQ(QUILLON_STATUS_OK, ask());
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_pending_query_cancel(pending));
  quillon_pending_query_destroy(pending);
  EXPECT_EQ(kAnswered, wait_for(2).at(1));
}

TEST_F(AsyncQuery, ACallbackThatIsTooSlowIsWarnedOfOnce) {
  constexpr size_t kCount = 6;
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_handler_queue_warning(application_.config(), 3));
  ASSERT_NO_FATAL_FAILURE(connect({"good"}));
  in_callback_ = [&] {
    const auto waiting = [&] {
      quillon_statistics now = {};
      now.size = sizeof now;
      quillon_connection_get_statistics(application_.connection(), &now);
      return now.completion_queue.depth;
    };
    if (ended().size() == 1) {
      EXPECT_TRUE(testpeer::eventually(kSoon, [&] { return waiting() == kCount - 1; }));
    }
  };
  for (size_t i = 0; i < kCount; ++i) ASSERT_EQ(QUILLON_STATUS_OK, ask());
  wait_for(kCount);
  const std::string log = application_.log();
  const size_t told = log.find("3 answered queries wait for their callback");
  ASSERT_NE(std::string::npos, told) << log;
  EXPECT_EQ(log.find("which is too slow for them"), log.rfind("which is too slow for them")) << log;
}

TEST_F(AsyncQuery, ThousandsAreInFlightFromOneThread) {
  ASSERT_NO_FATAL_FAILURE(connect({"good"}));
  constexpr size_t kCount = 2000;
  for (size_t i = 0; i < kCount; ++i) ASSERT_EQ(QUILLON_STATUS_OK, ask());
  EXPECT_EQ(std::vector(kCount, kAnswered), wait_for(kCount));
}

TEST_F(AsyncQuery, ThreadsAskCancelAndLoseTheSession) {
  ASSERT_NO_FATAL_FAILURE(connect({"silent", "good", "refusing"}));
  constexpr size_t kThreads = 4, kCalls = 50;
  std::vector<std::thread> threads;
  for (size_t n = 0; n < kThreads; ++n) {
    threads.emplace_back([this] {
      for (size_t i = 0; i < kCalls; ++i) {
        quillon_pending_query *pending = nullptr;
        EXPECT_EQ(QUILLON_STATUS_OK, ask(i % 3 == 0 ? 20 : kLong, &pending));
        if (i % 5 == 0) quillon_pending_query_cancel(pending);
        quillon_pending_query_destroy(pending);
      }
    });
  }
  peer_->newest()->reset();
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(kThreads * kCalls, wait_for(kThreads * kCalls).size());
  application_.destroy_connection();
  EXPECT_EQ(kThreads * kCalls, ended().size()) << "each once";
}

TEST_F(AsyncQuery, TheControllerIsAskedToo) {
  ASSERT_NO_FATAL_FAILURE(connect({}));
  test_support::Node request = test_support::parse("<ask xmlns='urn:test'/>");
  ASSERT_EQ(QUILLON_STATUS_OK,
            quillon_connection_query_controller_async(connection(), request.release(), kLong, on_done, this, nullptr));
  EXPECT_EQ((std::vector<Ended>{{QUILLON_QUERY_OUTCOME_ANSWERED, QUILLON_STATUS_OK, CONTROLLER_JID, kAnswered.response}}),
            wait_for(1));
}

// ---- Leaving in order

class Drain : public AsyncQuery {
 protected:
  ~Drain() override { application_.destroy_connection(); }  // its handler is this one's

  QUILLON_STATUS drain(uint32_t milliseconds = kLong) { return quillon_connection_drain(connection(), milliseconds); }

  // Receives notifications until the test lets it go on.
  void listen(std::function<void()> handler) {
    handler_ = std::move(handler);
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_register_notification_handler(
                                     connection(), "urn:test", "news",
                                     [](wb_dom_node *, void *self) {
                                       ++static_cast<Drain *>(self)->heard_;
                                       static_cast<Drain *>(self)->handler_();
                                     },
                                     this));
  }
  std::atomic<int> heard_ = 0;

 private:
  std::function<void()> handler_;
};

TEST_F(Drain, LetsCallsEndAndRefusesNewOnesUntilItConnectsAgain) {
  ASSERT_NO_FATAL_FAILURE(connect({"refusing", "good"}));
  for (int i = 0; i < 100; ++i) ASSERT_EQ(QUILLON_STATUS_OK, ask());
  EXPECT_EQ(QUILLON_STATUS_OK, drain());
  EXPECT_EQ(std::vector(100, kAnswered), ended());
  EXPECT_FALSE(application_.is_connected());
  EXPECT_EQ(QUILLON_STATUS_NO_CONNECTION, ask());
  EXPECT_EQ(QUILLON_STATUS_NO_CONNECTION, application_.ask());
  EXPECT_EQ(QUILLON_STATUS_OK, drain()) << "again";
  ASSERT_EQ(QUILLON_STATUS_OK, application_.connect());
  EXPECT_EQ(QUILLON_STATUS_OK, application_.ask());
  ASSERT_EQ(QUILLON_STATUS_OK, ask());
  EXPECT_EQ(101U, wait_for(101).size());
}

TEST_F(Drain, CutsShortWhatIsLeftAtTheDeadline) {
  ASSERT_NO_FATAL_FAILURE(connect({"silent"}));
  std::promise<void> go_on;
  listen([released = go_on.get_future().share()] { released.wait(); });
  peer_->notify("<news xmlns='urn:test'/>");
  ASSERT_TRUE(testpeer::eventually(kSoon, [this] { return heard_ == 1; }));
  for (int i = 0; i < 10; ++i) peer_->notify("<news xmlns='urn:test'/>");
  ASSERT_TRUE(testpeer::eventually(kSoon, [this] {
    quillon_handler_queue_usage usage = {};
    quillon_connection_get_handler_queue_usage(connection(), QUILLON_HANDLER_QUEUE_NOTIFICATIONS, &usage);
    return usage.depth == 10;
  }));
  for (int i = 0; i < 3; ++i) ASSERT_EQ(QUILLON_STATUS_OK, ask());
  auto drained = std::async(std::launch::async, [this] { return drain(300); });
  ASSERT_TRUE(application_.wait_ended());
  EXPECT_EQ((std::vector(3, Ended{QUILLON_QUERY_OUTCOME_UNKNOWN, QUILLON_STATUS_SEND_TIMEOUT, publisher("silent"), ""})),
            wait_for(3));
  EXPECT_EQ(std::future_status::timeout, drained.wait_for(100ms)) << "a handler still runs";
  go_on.set_value();
  EXPECT_EQ(QUILLON_STATUS_SEND_TIMEOUT, drained.get());
  ASSERT_EQ(QUILLON_STATUS_OK, application_.connect());
  peer_->notify("<news xmlns='urn:test'/>");
  EXPECT_TRUE(testpeer::eventually(kSoon, [this] { return heard_ == 2; })) << "what waited is gone, what comes is heard";
}

TEST_F(Drain, TellsOfASessionThatDoesNotEndWhileTheEventLoopIsHeldUp) {
  ASSERT_NO_FATAL_FAILURE(connect({}));
  struct Holding {
    testpeer::Latch is_inside, may_go_on;
  } holding;
  const auto hold = [](quillon_connection *, QUILLON_TRACE_DIRECTION, const char *, size_t, void *given) {
    static_cast<Holding *>(given)->is_inside.count_down();
    static_cast<Holding *>(given)->may_go_on.wait(kSoon);
  };
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_connection_set_stanza_trace(connection(), hold, &holding));
  peer_->notify("<news xmlns='urn:test'/>");
  ASSERT_TRUE(holding.is_inside.wait(kSoon));
  EXPECT_EQ(QUILLON_STATUS_SEND_TIMEOUT, drain());
  EXPECT_EQ(QUILLON_STATUS_SEND_TIMEOUT, quillon_connection_renew(connection(), kLong));
  EXPECT_TRUE(application_.is_connected());
  holding.may_go_on.count_down();
  EXPECT_TRUE(application_.wait_ended());
  EXPECT_EQ(QUILLON_STATUS_OK, application_.connect());
  EXPECT_EQ(QUILLON_STATUS_OK, drain());
  application_.destroy_connection();
}

// Each waits for the others' threads, but not for those that wait for it.
TEST_F(Drain, MayBeCalledByAllCallbacksAtOnce) {
  ASSERT_NO_FATAL_FAILURE(connect({"silent"}));
  std::atomic<int> inside = 0, drained = 0, cut_short = 0;
  const auto drain_together = [&] {
    if (++inside > 3) return;  // called back within the drain
    EXPECT_TRUE(testpeer::eventually(kSoon, [&] { return inside >= 3; }));
    cut_short += drain(300) == QUILLON_STATUS_SEND_TIMEOUT ? 1 : 0;
    ++drained;
  };
  in_callback_ = drain_together;
  listen(drain_together);
  quillon_pending_query *pending = nullptr;
  ASSERT_EQ(QUILLON_STATUS_OK, ask(kLong, &pending));
  ASSERT_EQ(QUILLON_STATUS_OK, ask());
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_pending_query_cancel(pending));
  quillon_pending_query_destroy(pending);
  peer_->notify("<news xmlns='urn:test'/>");
  drain_together();
  EXPECT_TRUE(testpeer::eventually(kSoon, [&] { return drained == 3; }));
  EXPECT_LE(1, cut_short) << "the first whose deadline passed";
  EXPECT_EQ(2U, ended().size());
  EXPECT_FALSE(application_.is_connected());
}

TEST_F(Drain, ACallbackMayDestroyTheConnectionMeanwhile) {
  ASSERT_NO_FATAL_FAILURE(connect({"silent"}));
  std::atomic<bool> destroyed = false;
  in_callback_ = [&] {
    if (destroyed.exchange(true)) return;
    application_.destroy_connection();
  };
  for (int i = 0; i < 3; ++i) ASSERT_EQ(QUILLON_STATUS_OK, ask());
  EXPECT_EQ(QUILLON_STATUS_OK, drain(100));
  EXPECT_EQ(3U, wait_for(3).size());
}

enum class Place { handler, completion, thread };

struct LeavingRow {
  const char *name;
  Place drains, destroys;
};

// One thread of the connection, or one of the application, drains it while another destroys it.
class Leaving : public Drain, public testing::WithParamInterface<std::tuple<LeavingRow, bool>> {
 protected:
  // Runs it there, once.
  void run(Place place, const std::function<void()> &work) {
    if (place == Place::thread) {
      threads_.push_back(std::async(std::launch::async, work));
    } else if (place == Place::handler) {
      listen(work);
      peer_->notify("<news xmlns='urn:test'/>");
    } else {
      in_callback_ = [this, work] {
        if (!called_back_.exchange(true)) work();
      };
      quillon_pending_query *pending = nullptr;
      ASSERT_EQ(QUILLON_STATUS_OK, ask(kLong, &pending));
      EXPECT_EQ(QUILLON_STATUS_OK, quillon_pending_query_cancel(pending));
      quillon_pending_query_destroy(pending);
    }
  }

 private:
  std::atomic<bool> called_back_ = false;
  std::vector<std::future<void>> threads_;
};

TEST_P(Leaving, EndsTheDrain) {
  const LeavingRow row = std::get<0>(GetParam());
  const bool waits_for_the_deadline = std::get<1>(GetParam());
  const uint32_t milliseconds = waits_for_the_deadline ? 200 : 3 * kLong;
  ASSERT_NO_FATAL_FAILURE(connect({"silent"}));
  ASSERT_EQ(QUILLON_STATUS_OK, ask()) << "something to wait for";
  std::atomic<bool> is_destroying = false, destroyed = false, drained = false;
  run(row.destroys, [&] {
    is_destroying = true;
    EXPECT_TRUE(testpeer::eventually(kSoon, [&] { return ask() == QUILLON_STATUS_NO_CONNECTION; })) << "it drains";
    // Delay: the drain's deadline is to pass while this thread still keeps it.
    if (waits_for_the_deadline) std::this_thread::sleep_for(std::chrono::milliseconds(2 * milliseconds));
    application_.destroy_connection();
    destroyed = true;
  });
  ASSERT_TRUE(testpeer::eventually(kSoon, [&] { return is_destroying.load(); }));
  run(row.drains, [&] {
    drain(milliseconds);
    drained = true;
  });
  EXPECT_TRUE(testpeer::eventually(kSoon, [&] { return destroyed && drained; }));
}

constexpr LeavingRow kLeavings[] = {{"HandlerByCompletion", Place::handler, Place::completion},
                                    {"HandlerByThread", Place::handler, Place::thread},
                                    {"CompletionByHandler", Place::completion, Place::handler},
                                    {"CompletionByThread", Place::completion, Place::thread},
                                    {"ThreadByHandler", Place::thread, Place::handler},
                                    {"ThreadByCompletion", Place::thread, Place::completion},
                                    {"ThreadByThread", Place::thread, Place::thread}};

INSTANTIATE_TEST_SUITE_P(Places, Leaving, testing::Combine(testing::ValuesIn(kLeavings), testing::Bool()), [](const auto &row) {
  return std::string(std::get<0>(row.param).name) + (std::get<1>(row.param) ? "BehindTheDeadline" : "BeforeTheDeadline");
});

TEST_F(Drain, IsRefusedOnTheEventLoop) {
  ASSERT_NO_FATAL_FAILURE(connect({}));
  std::atomic<QUILLON_STATUS> status = QUILLON_STATUS_MAX;
  quillon_connection_set_disconnect_cb(connection(), [](quillon_connection *ended, QUILLON_STATUS, void *arg) {
    *static_cast<std::atomic<QUILLON_STATUS> *>(arg) = quillon_connection_drain(ended, 1000);
  });
  quillon_connection_set_disconnect_cb_user_data(connection(), &status);
  EXPECT_EQ(QUILLON_STATUS_OK, drain());
  EXPECT_EQ(QUILLON_STATUS_SEND_ERROR, status);
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_connection_drain(nullptr, 0));
}

TEST_F(AsyncQuery, ChecksArguments) {
  const test_support::Node request = test_support::parse("<ask xmlns='urn:test'/>");
  quillon_pending_query *pending = nullptr;
  const auto status = [&](quillon_connection *asking, quillon_capability *asked, wb_dom_node *payload,
                          quillon_query_done_cb callback) {
    return quillon_connection_query_async(asking, asked, payload, kLong, callback, this, &pending);
  };
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, status(nullptr, capability_.get(), request.get(), on_done));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, status(connection(), nullptr, request.get(), on_done));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, status(connection(), capability_.get(), nullptr, on_done));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, status(connection(), capability_.get(), request.get(), nullptr));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS,
            quillon_connection_query_controller_async(nullptr, request.get(), kLong, on_done, this, nullptr));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_pending_query_cancel(nullptr));
  quillon_pending_query_destroy(nullptr);
  EXPECT_EQ(nullptr, pending);
  EXPECT_EQ(std::vector<Ended>(), ended());
}

}  // namespace
}  // namespace faults

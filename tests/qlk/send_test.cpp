// The send adapter, with and without a session and a running event loop.
#include "connection_fixture.h"
#include "connection_private.h"
#include "oom.h"
#include "quillon_wb_client.h"

namespace {

using qlk::SendFate;
using qlk_test::ConnectionFixture;
using test_support::wait_for;
using testpeer::Element;
using Clock = std::chrono::steady_clock;

struct DataDestroy {
  void operator()(quillon_data *data) const { quillon_wb_client_destroy(data); }
};
using Data = std::unique_ptr<quillon_data, DataDestroy>;

wb_dom_node *make_iq() {
  return test_support::parse("<iq xmlns='jabber:client' type='get' to='silent@" GRID_DOMAIN "/qlk'><grid xmlns='quillon'/></iq>")
      .release();
}

wb_dom_node *make_ping() {
  return test_support::parse("<iq xmlns='jabber:client' type='get' to='" GRID_DOMAIN "'><ping xmlns='urn:xmpp:ping'/></iq>")
      .release();
}

class SendTest : public ConnectionFixture {
 protected:
  Data make_data() {
    quillon_data *data = nullptr;
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_wb_client_create(&data, raw()));
    return Data(data);
  }
  QUILLON_STATUS send_and_wait(quillon_connection *connection, wb_dom_node *iq = make_iq()) {
    qlk::NodePtr reply;
    const QUILLON_STATUS status = qlk::send_and_wait(*connection, qlk::NodePtr(iq), reply, fate_);
    EXPECT_EQ(status == QUILLON_STATUS_OK, reply != nullptr);
    return status;
  }
  QUILLON_STATUS send_and_wait() { return send_and_wait(raw()); }
  QUILLON_STATUS send_and_forget() { return quillon_wb_client_send_and_forget(make_data().get(), make_iq()); }

  bool wait_until_asked() {
    const auto is_asked = [](const Element &stanza) { return stanza.attribute("to") == "silent@" GRID_DOMAIN "/qlk"; };
    return server_->wait_for_stanza(is_asked, std::chrono::seconds(20)).has_value();
  }

  wb_dom_node *reply_ = nullptr;
  SendFate fate_ = SendFate::answered;
};

TEST_F(SendTest, MissingArgumentsAreRefused) {
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_wb_client_create(nullptr, raw()));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_wb_client_send_and_wait(nullptr, nullptr, &reply_));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_wb_client_send_and_forget(nullptr, nullptr));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_wb_client_disconnect(nullptr));
  quillon_wb_client_destroy(nullptr);
}

TEST_F(SendTest, WithoutARunningLoopEachGivesUpInTime) {
  quillon_config_set_send_timeout_seconds(config_.get(), 1);
  const auto began = Clock::now();
  EXPECT_EQ(QUILLON_STATUS_SEND_TIMEOUT, send_and_wait());
  EXPECT_EQ(SendFate::not_sent, fate_);
  EXPECT_EQ(QUILLON_STATUS_UNKNOWN, send_and_forget());
  EXPECT_EQ(QUILLON_STATUS_SEND_TIMEOUT, quillon_wb_client_disconnect(make_data().get()));
  const auto took = Clock::now() - began;
  EXPECT_GE(took, std::chrono::milliseconds(2990));
  EXPECT_LT(took, std::chrono::seconds(5));

  for (const int seconds : {0, -1}) {
    quillon_config_set_send_timeout_seconds(config_.get(), seconds);
    const auto then = Clock::now();
    EXPECT_EQ(QUILLON_STATUS_SEND_TIMEOUT, send_and_wait());
    EXPECT_EQ(QUILLON_STATUS_UNKNOWN, send_and_forget());
    EXPECT_LT(Clock::now() - then, std::chrono::milliseconds(500));
  }
  // What was given up is not sent when the loop runs after all.
  quillon_config_set_send_timeout_seconds(config_.get(), 5);
  serve();
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_connection_connect(raw())) << log_.all();
  for (const Element &stanza : server_->stanzas()) EXPECT_NE("silent@" GRID_DOMAIN "/qlk", stanza.attribute("to"));
}

// Another connection keeps the loop running: the XMPP client itself refuses then, at once.
TEST_F(SendTest, WithoutASessionOfItsOwnTheClientRefuses) {
  serve();
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_connection_connect(raw()));
  const test_support::Connection other = test_support::make_connection();
  quillon_connection_set_config(other.get(), config_.get());
  quillon_data *data = nullptr;
  quillon_wb_client_create(&data, other.get());
  const Data owned(data);
  EXPECT_EQ(QUILLON_STATUS_UNKNOWN, send_and_wait(other.get()));
  EXPECT_EQ(SendFate::not_sent, fate_);
  EXPECT_EQ(1u, log_.count("_send_and_wait_cb"));
  EXPECT_EQ(QUILLON_STATUS_SEND_ERROR, quillon_wb_client_send_and_forget(data, make_iq()));
  EXPECT_EQ(1u, log_.count("_send_and_forget_cb"));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_wb_client_disconnect(data));
  EXPECT_TRUE(quillon_connection_is_connected(raw()));
}

TEST_F(SendTest, ASilentPeerCostsTheTimeoutAndNoMore) {
  serve();
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_connection_connect(raw()));
  quillon_config_set_send_timeout_seconds(config_.get(), 1);
  const auto began = Clock::now();
  EXPECT_EQ(QUILLON_STATUS_SEND_TIMEOUT, send_and_wait());
  EXPECT_EQ(SendFate::timed_out, fate_);
  EXPECT_GE(Clock::now() - began, std::chrono::milliseconds(990));
  EXPECT_LT(Clock::now() - began, std::chrono::milliseconds(2500));
  EXPECT_EQ(1u, log_.count_exact("_iq_response_callback timeout"));
  quillon_config_set_send_timeout_seconds(config_.get(), 0);
  EXPECT_EQ(QUILLON_STATUS_SEND_TIMEOUT, send_and_wait());
  EXPECT_EQ(QUILLON_STATUS_OK, send_and_forget());
  // There was no session yet when it was asked; one came up, and the request went out in it.
  quillon_config_set_send_timeout_seconds(config_.get(), 1);
  raw()->is_xmpp_connected = false;
  EXPECT_EQ(QUILLON_STATUS_SEND_TIMEOUT, send_and_wait());
  EXPECT_EQ(SendFate::timed_out, fate_);
  raw()->is_xmpp_connected = true;
}

TEST_F(SendTest, TheEndOfTheSessionLeavesTheOutcomeOpen) {
  serve();
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_connection_connect(raw()));
  quillon_config_set_send_timeout_seconds(config_.get(), 60);
  auto waiting = qlk_test::run_aside([&] { return send_and_wait(); });
  ASSERT_TRUE(wait_until_asked());
  end_session();
  EXPECT_EQ(QUILLON_STATUS_SEND_TIMEOUT, waiting.get());
  EXPECT_EQ(SendFate::lost, fate_);
}

#if QLK_HAS_OOM
// Whatever the thread that sends lacks memory for, who is told that nothing was sent may ask again.
TEST_F(SendTest, WithoutMemoryItIsKnownWhetherItWasSent) {
  serve();
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_connection_connect(raw()));
  const auto sent = [&] {
    quillon_statistics statistics = {};
    statistics.size = sizeof statistics;
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_get_statistics(raw(), &statistics));
    return statistics.stanzas_sent;
  };
  const auto ping = [&] { EXPECT_EQ(QUILLON_STATUS_OK, send_and_wait(raw(), make_ping())); };
  ping();
  const long all = oom::count(ping);
  for (long nth = 1; nth <= all; ++nth) {
    const uint64_t before = sent();
    qlk::NodePtr iq(make_ping()), reply;
    QUILLON_STATUS status = QUILLON_STATUS_OK;
    {
      const oom::FailNth failing(nth);
      status = qlk::send_and_wait(*raw(), std::move(iq), reply, fate_);
    }
    EXPECT_EQ(before + (fate_ == SendFate::not_sent ? 0 : 1), sent()) << nth << " " << status;
    EXPECT_EQ(fate_ == SendFate::answered, status == QUILLON_STATUS_OK) << nth;
    if (fate_ != SendFate::lost) continue;
    EXPECT_EQ(QUILLON_STATUS_SEND_TIMEOUT, status) << nth;  // what there was no memory to write has ended the session
    ASSERT_TRUE(wait_for([&] { return !quillon_connection_is_connected(raw()); })) << nth;
    ASSERT_EQ(QUILLON_STATUS_OK, quillon_connection_connect(raw())) << nth;
  }
}
#endif

TEST_F(SendTest, DestroyingTheConnectionWakesWhoWaits) {
  serve();
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_connection_connect(raw()));
  quillon_config_set_send_timeout_seconds(config_.get(), 60);
  auto waiting = qlk_test::run_aside([&] {
    const qlk::ConnectionHold hold(*raw());
    return send_and_wait();
  });
  ASSERT_TRUE(wait_until_asked());
  connection_.reset();
  ASSERT_TRUE(qlk_test::is_done(waiting));
  EXPECT_EQ(QUILLON_STATUS_UNKNOWN, waiting.get());
  EXPECT_EQ(SendFate::lost, fate_);
}

// ---- Without waiting

struct Outcome {
  std::mutex mutex;
  std::vector<QUILLON_STATUS> statuses;
  bool had_reply = false;

  static void on_done(void *arg, QUILLON_STATUS status, wb_dom_node *reply) {
    auto &self = *static_cast<Outcome *>(arg);
    const test_support::Node owned(reply);
    const std::lock_guard lock(self.mutex);
    self.statuses.push_back(status);
    self.had_reply = reply != nullptr;
  }
  bool wait() {
    return wait_for([this] {
      const std::lock_guard lock(mutex);
      return !statuses.empty();
    });
  }
};

TEST_F(SendTest, AnAsynchronousSendTellsItsOutcomeOnce) {
  Outcome refused, answered, unanswered, ended;
  qlk::send_async(*raw(), make_iq(), 1, Outcome::on_done, &refused);
  EXPECT_EQ(qlk_test::Statuses{QUILLON_STATUS_NO_CONNECTION}, refused.statuses);

  serve();
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_connection_connect(raw()));
  qlk::send_async(*raw(), make_ping(), 5, Outcome::on_done, &answered);
  ASSERT_TRUE(answered.wait());
  EXPECT_EQ(qlk_test::Statuses{QUILLON_STATUS_OK}, answered.statuses);
  EXPECT_TRUE(answered.had_reply);
  qlk::send_async(*raw(), make_iq(), 1, Outcome::on_done, &unanswered);
  ASSERT_TRUE(unanswered.wait());
  EXPECT_EQ(qlk_test::Statuses{QUILLON_STATUS_SEND_TIMEOUT}, unanswered.statuses);
  qlk::send_async(*raw(), make_iq(), 60, Outcome::on_done, &ended);
  end_session();
  ASSERT_TRUE(ended.wait());
  EXPECT_EQ(qlk_test::Statuses{QUILLON_STATUS_SEND_TIMEOUT}, ended.statuses);
}

}  // namespace

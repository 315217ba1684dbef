// The loop runs out of memory at every moment in turn: whatever was begun is brought to an end, once, and told.
#include "oom.h"

#if QLK_HAS_OOM

#include "client_test_support.h"

using namespace client_test;

namespace {

using Table = std::map<std::string, std::string>;

// Counts what a client tells, without memory of its own: what fails is the client's.
class Witness {
 public:
  explicit Witness(Table table = {}) : client_(settings(std::move(table))) {
    bind("clientConnected", [](wb_event_data *, void *arg) {
      stop_failing();
      ++self(arg).connected_;
    });
    bind("clientDisconnected", [](wb_event_data *, void *arg) {
      stop_failing();
      if (self(arg).answered_ != self(arg).tracked_) self(arg).in_order_ = false;
      ++self(arg).disconnected_;
    });
    bind("reconnectStatusChanged", [](wb_event_data *event, void *arg) {
      wb_reconnect_status status{};
      wb_client_reconnect_get_status(event, &status, nullptr);
      if (status == WB_RECONNECT_STARTING) oom::fail_nth(self(arg).failing_redial_);
    });
  }

  TestClient &client() { return client_; }
  int connected() const { return connected_; }
  int disconnected() const { return disconnected_; }
  int answered() const { return answered_; }
  bool in_order() const { return in_order_; }  // every IQ was called back before the end was told

  // From then on, the loop's nth allocation fails, until something is told.
  void fail(long nth) {
    client_.loop().run([nth] { oom::fail_nth(nth); });
  }
  void stop() {
    client_.loop().run([] { oom::fail_nth(0); });
  }
  void fail_redial(long nth) { failing_redial_ = nth; }
  bool track() {
    const auto count = [](wb_dom_node *, void *arg) { ++self(arg).answered_; };
    wb_dom_node *iq = test_support::parse_stanza("<iq xmlns='jabber:client' type='get' to='bob@grid.test/qlk'/>");
    const bool done = wb_client_track_iq(client_.client(), iq, count, this, 60, nullptr);
    tracked_ += done ? 1 : 0;
    return done;
  }
  bool wait_for_end(int times) const {
    return test_support::wait_for([&] { return disconnected_ == times; });
  }

 private:
  static Witness &self(void *arg) { return *static_cast<Witness *>(arg); }
  static void stop_failing() { oom::fail_nth(0); }
  static test_support::ClientSettings settings(Table table) {
    test_support::ClientSettings made = client_settings(std::move(table));
    made.records = false;
    return made;
  }
  void bind(const char *name, wb_event_callback callback) {
    EXPECT_TRUE(wb_event_bind(wb_client_event(client_.client(), name), callback, this, nullptr));
  }

  std::atomic<int> connected_ = 0, disconnected_ = 0, answered_ = 0, tracked_ = 0;
  std::atomic<bool> in_order_ = true;
  std::atomic<long> failing_redial_ = 0;
  TestClient client_;
};

TEST(ClientMemory, TheEndOfASessionIsTold) {
  constexpr int kTracked = 100;
  for (long nth = 1; nth <= 30; ++nth) {
    FakeServer server(server_options());
    Witness witness;
    ASSERT_TRUE(witness.client().connect(server.host()));
    ASSERT_TRUE(test_support::wait_for([&] { return witness.connected() == 1; }));
    for (int i = 0; i < kTracked; ++i) ASSERT_TRUE(witness.track());
    witness.fail(nth);
    server.close_all();
    ASSERT_TRUE(witness.wait_for_end(1)) << nth;
    EXPECT_EQ(kTracked, witness.answered()) << nth;
    EXPECT_TRUE(witness.in_order()) << nth;
    witness.stop();
    EXPECT_EQ(1, witness.disconnected()) << nth;
  }
}

TEST(ClientMemory, TheApplicationsEndIsTold) {
  for (long nth = 1; nth <= 15; ++nth) {
    const FakeServer server(server_options());
    Witness witness;
    ASSERT_TRUE(witness.client().connect(server.host()));
    ASSERT_TRUE(test_support::wait_for([&] { return witness.connected() == 1; }));
    ASSERT_TRUE(witness.track());
    witness.fail(nth);
    wb_client *client = witness.client().client();
    ASSERT_TRUE(wb_workq_put(
        witness.client().loop().queue(),
        [](void *arg, bool) { wb_client_disconnect(static_cast<wb_client *>(arg), WB_ERR_NONE); }, client, nullptr));
    ASSERT_TRUE(witness.wait_for_end(1)) << nth;
    EXPECT_EQ(1, witness.answered()) << nth;
    witness.stop();
  }
}

// The server makes the client dial twice. Of the many allocations of a connect the first are failed one by one and the others now
// and then.
TEST(ClientMemory, AnAttemptHasOneOutcome) {
  FakeServer::Options options = server_options();
  options.faults_ahead[Stage::proceed] = {Fault::Kind::close, ""};
  const FakeServer server(std::move(options));
  for (long nth = 1; nth < 20000; nth += nth < 80 ? 1 : nth / 8) {
    Witness witness(Table{{"connect_timeout_seconds", "10"}});
    witness.fail(nth);
    ASSERT_TRUE(witness.client().connect(server.host()));
    ASSERT_TRUE(test_support::wait_for([&] { return witness.connected() + witness.disconnected() == 1; })) << nth;
    witness.stop();
    EXPECT_EQ(1, witness.connected() + witness.disconnected()) << nth;
  }
}

// What fails there is the attempt that nobody asked for by a call: its end is told all the same, and another follows.
TEST(ClientMemory, ARedialThatFailsIsToldAndTriedAgain) {
  FakeServer server(server_options());
  Witness witness(Table{{"client_reconnect_countdown", "1"}});
  ASSERT_TRUE(witness.client().connect(server.host()));
  ASSERT_TRUE(test_support::wait_for([&] { return witness.connected() == 1; }));
  witness.fail_redial(1);
  server.close_all();
  for (int ends = 2; ends <= 5; ++ends) {
    ASSERT_TRUE(witness.wait_for_end(ends)) << ends;
    witness.fail_redial(ends);
  }
  witness.fail_redial(0);
  ASSERT_TRUE(test_support::wait_for([&] { return witness.connected() == 2; }));
  EXPECT_EQ(5, witness.disconnected());
}

}  // namespace

#endif

// The end of a session by the application: what is written before it, and a client that is destroyed at any time.
#include <algorithm>
#include <atomic>
#include <ostream>
#include <thread>

#include "client_test_support.h"

using namespace client_test;

namespace {

// ---- The end by the application

TEST(ClientEndByApplication, ClosesTheStream) {
  const FakeServer server(server_options());
  TestClient client(client_settings({{"client_reconnect_countdown", "1"}}));
  ASSERT_NO_FATAL_FAILURE(establish(client, server));
  client.disconnect();
  client.disconnect();
  ASSERT_TRUE(client.wait_for("disconnected")) << client.all();
  client.disconnect();
  EXPECT_EQ((Records{kConnected, "disconnected"}), client.records());
}

TEST(ClientEndByApplication, WaitsBrieflyForTheServer) {
  FakeServer::Options options = server_options();
  options.closes_streams = false;
  const FakeServer server(std::move(options));
  TestClient client(client_settings());
  ASSERT_NO_FATAL_FAILURE(establish(client, server));
  client.disconnect();
  ASSERT_TRUE(client.wait_for("disconnected")) << client.all();
  EXPECT_EQ((Records{kConnected, "disconnected"}), client.records());
}

// The closing tag comes after all that was sent before, however slowly the server reads.
TEST(ClientEndByApplication, WritesWhatWaitsBeforeTheEnd) {
  constexpr int kStanzas = 120;
  FakeServer::Options options = server_options();
  options.small_window = true;
  FakeServer server(std::move(options));
  TestClient client(client_settings());
  ASSERT_NO_FATAL_FAILURE(establish(client, server));
  server.stop_reading();
  client.loop().run([&] {
    for (int i = 0; i < kStanzas / 2; ++i) client.send(message(std::to_string(i), std::string(100'000, 'x')));
  });
  client.loop().run([&] {
    for (int i = kStanzas / 2; i < kStanzas; ++i) client.send(message(std::to_string(i)));
    wb_client_disconnect(client.client(), WB_ERR_NONE);
  });
  server.resume_reading();
  ASSERT_TRUE(client.wait_for("disconnected")) << client.all();
  const std::vector<Element> stanzas = server.stanzas();
  ASSERT_EQ(static_cast<size_t>(kStanzas), stanzas.size());
  EXPECT_EQ(std::to_string(kStanzas - 1), stanzas.back().attribute("id"));
}

// ---- Last words behind a backlog

// Sends until the server, which does not read, has no room left and much waits with the client.
void fill_up(TestClient &client) {
  bool refused = false;
  for (size_t sent = 0; !refused && sent < 64u << 20; sent += 16384) {
    client.loop().run([&] { refused = !client.send(message("filling", std::string(16384, 'x'))); });
  }
  ASSERT_TRUE(refused);
}

struct LastWordsCase {
  const char *name;
  std::function<void(FakeServer &, TestClient &)> end;
  const char *last_word;
  const char *record = "disconnected";
};

void PrintTo(const LastWordsCase &one, std::ostream *out) { *out << one.name; }

const LastWordsCase kLastWordsCases[] = {
    {"ByTheApplication",
     [](FakeServer &, TestClient &client) {
       client.loop().run([&] {
         client.send("<presence xmlns='jabber:client' id='farewell' type='unavailable'/>");
         wb_client_disconnect(client.client(), WB_ERR_NONE);
       });
     },
     "/stream"},
    {"StreamError",
     [](FakeServer &server, TestClient &) {
       server.send_to_all("<stream:error><conflict xmlns='urn:ietf:params:xml:ns:xmpp-streams'/></stream:error>");
     },
     "/stream", "disconnected conflict"},
    {"StreamClosed", [](FakeServer &server, TestClient &) { server.close_all(); }, "/stream"},
    {"NoXml", [](FakeServer &server, TestClient &) { server.send_to_all("<<"); }, "error"},
};

class ClientLastWords : public testing::TestWithParam<LastWordsCase> {};

TEST_P(ClientLastWords, AreWrittenBehindABacklog) {
  FakeServer::Options options = server_options();
  options.small_window = true;
  FakeServer server(std::move(options));
  TestClient client(client_settings({{"max_queue_bytes", "65536"}}));
  ASSERT_NO_FATAL_FAILURE(establish(client, server));
  server.stop_reading();
  ASSERT_NO_FATAL_FAILURE(fill_up(client));
  GetParam().end(server, client);
  // The end has begun: nothing is taken any more, for want of a session and not of room.
  ASSERT_TRUE(test_support::wait_for([&] {
    wb_err err{};
    return !client.send(message("late"), &err) && err.code == WB_ERR_INVALID_STATE;
  }));
  server.resume_reading();
  ASSERT_TRUE(client.wait_for(GetParam().record)) << client.all();
  const std::string last = GetParam().last_word;
  if (last == "/stream") {
    EXPECT_TRUE(test_support::wait_for([&] { return server.closed_streams() == 1; }));
  } else {
    EXPECT_TRUE(server.wait_for_stanza([&](const Element &stanza) { return stanza.name == last; }));
  }
  EXPECT_EQ((Records{kConnected, GetParam().record}), client.records());
}

INSTANTIATE_TEST_SUITE_P(Ends, ClientLastWords, testing::ValuesIn(kLastWordsCases),
                         [](const auto &test) { return test.param.name; });

// A server that reads nothing at all is not waited for.
TEST(ClientEndByApplication, GivesUpWhatCannotBeWritten) {
  FakeServer::Options options = server_options();
  options.small_window = true;
  FakeServer server(std::move(options));
  TestClient client(client_settings({{"max_queue_bytes", "65536"}}));
  ASSERT_NO_FATAL_FAILURE(establish(client, server));
  server.stop_reading();
  ASSERT_NO_FATAL_FAILURE(fill_up(client));
  client.disconnect();
  ASSERT_TRUE(client.wait_for("disconnected")) << client.all();
  server.resume_reading();
  EXPECT_EQ((Records{kConnected, "disconnected"}), client.records());
}

// ---- Destroying

class ClientDestroyed : public testing::TestWithParam<const char *> {};

TEST_P(ClientDestroyed, FromItsOwnCallback) {
  const std::string when = GetParam();
  FakeServer server(server_options());
  TestClient client(client_settings({{"client_reconnect_countdown", "1"}}));
  bool destroyed = false;
  client.set_hook([&](const std::string &record, wb_event_data *) {
    if (record == kConnected && when != record) client.track(request(), "open", 60);
    if (!destroyed && record.starts_with(when)) {
      destroyed = true;
      client.destroy();
    }
  });
  ASSERT_TRUE(client.connect(server.host()));
  ASSERT_TRUE(test_support::wait_for([&] { return server.established() == 1; }));
  if (when != kConnected) {
    ASSERT_TRUE(client.wait_for("connected"));
    if (when == "asked") {
      ASSERT_TRUE(
          client.track("<iq xmlns='jabber:client' type='get' to='grid.test'><ping xmlns='urn:xmpp:ping'/></iq>", when, 60));
    }
    // All in one piece: what follows the stanza is of no interest any more.
    server.send_to_all(
        "<message id='a'/><presence id='a'/><iq type='get' id='a'><grid xmlns='quillon'/></iq>"
        "<message id='a'/><presence id='a'/><iq type='get' id='a'><grid xmlns='quillon'/></iq>");
    if (when != "asked") server.close_all();
  }
  ASSERT_TRUE(client.wait_for("destroyed")) << client.all();
  ASSERT_TRUE(client.wait_for(when)) << client.all();
  client.loop().run([] {});
  const Records records = client.records();
  EXPECT_EQ(1, std::count(records.begin(), records.end(), "destroyed"));
  // What was being told when it happened is the last event; only the IQ that waited is told its fate.
  EXPECT_EQ(1u, client.count(when)) << client.all();
  EXPECT_EQ(when == kConnected ? 0u : 1u, client.count("open: none")) << client.all();
  const bool ended = when == "disconnected" || when == "reconnect" || when == "open";
  EXPECT_EQ(ended && when != "open" ? 1u : 0u, client.count("disconnected")) << client.all();
}

INSTANTIATE_TEST_SUITE_P(Callbacks, ClientDestroyed,
                         testing::Values(kConnected, "disconnected", "reconnect", "message", "presence", "iq", "open", "asked"),
                         [](const auto &test) {
                           return test.param == kConnected ? std::string("connected") : std::string(test.param);
                         });

TEST(ClientDestroy, FromAFunctionOfTheMechanism) {
  static TestClient *client = nullptr;
  static int cleaned = 0;
  const wb_sasl_mech_functions functions{
      [](wb_sasl_mech_instance *, wb_htable *, wb_err *) { return true; }, [](wb_sasl_mech_instance *) { ++cleaned; },
      [](wb_sasl_mech_instance *instance, uint8_t *, size_t, wb_sasl_complete complete, wb_err *) {
        client->destroy();
        complete(instance, nullptr, 0, false, true, WB_SASL_ERR_NONE);
        return true;
      },
      nullptr};
  const FakeServer server(server_options());
  test_support::ClientSettings settings = client_settings();
  settings.mechanism = &functions;
  TestClient made(std::move(settings));
  client = &made;
  ASSERT_TRUE(made.connect(server.host()));
  ASSERT_TRUE(made.wait_for("destroyed")) << made.all();
  made.loop().run([] {});
  EXPECT_EQ(Records{"destroyed"}, made.records());
  EXPECT_EQ(1, cleaned);
}

TEST(ClientDestroy, FunctionsBoundBehindTheOneThatDestroysAreNotCalled) {
  FakeServer server(server_options());
  TestClient client(client_settings());
  std::atomic<int> called = 0;
  ASSERT_TRUE(wb_event_bind(
      wb_client_event(client.client(), "messageReceived"),
      [](wb_event_data *, void *arg) { ++*static_cast<std::atomic<int> *>(arg); }, &called, nullptr));
  client.set_hook([&](const std::string &record, wb_event_data *) {
    if (record == "message second") client.destroy();
  });
  ASSERT_NO_FATAL_FAILURE(establish(client, server));
  server.send_to_all("<message id='first'/><message id='second'/>");
  ASSERT_TRUE(client.wait_for("message second")) << client.all();
  client.loop().run([] {});
  EXPECT_EQ(1, called);
}

TEST(ClientDestroy, FromAnotherThreadAtAnyTime) {
  FakeServer::Options options = server_options();
  options.on_stanza = [](FakeServer::Session &session, const Element &stanza) {
    session.send("<iq type='result' id='" + stanza.attribute("id") + "' from='bob@grid.test/qlk'/><message id='a'/>");
  };
  const FakeServer server(std::move(options));
  for (int round = 0; round < 40; ++round) {
    TestClient client(client_settings());
    // Each answer asks for another, so the client is always busy.
    client.set_hook([&](const std::string &record, wb_event_data *) {
      if (record.starts_with("connected") || record.starts_with("question: result")) client.track(request(), "question", 60);
    });
    ASSERT_TRUE(client.connect(server.host()));
    if (round % 4 != 0) {
      ASSERT_TRUE(client.wait_for("message", static_cast<size_t>(round))) << client.all();
    } else {
      // At some moment of coming up.
      ASSERT_TRUE(test_support::wait_for([&] { return server.connections() > static_cast<unsigned>(round); }));
    }
    client.destroy();
    const Records records = client.records();
    client.loop().run([] {});
    EXPECT_EQ(records, client.records());
    EXPECT_EQ(0u, client.count("disconnected"));
    if (client.count("connected") != 0) {
      EXPECT_EQ("question: none", records.back()) << client.all();
    }
  }
}

}  // namespace

// Faults of a session that is up: idle, under hostile XML, under answers that nobody asked for, and while it is being ended.
#include <algorithm>
#include <atomic>
#include <thread>

#include "application.h"

namespace faults {
namespace {

using testpeer::Connection;
using testpeer::HostileBytes;
using testpeer::Stanza;

std::string grid_message(const std::string &from, const std::string &content) {
  return "<message from='" + from + "'><grid xmlns='quillon' type='notification'>" + content + "</grid></message>";
}

// ---- What ends a session

struct EndRow {
  std::string name;
  std::function<void(Connection &)> act;
  Statuses disconnected = {QUILLON_STATUS_CONNECTION_ERROR};

  friend void PrintTo(const EndRow &row, std::ostream *out) { *out << row.name; }
};

class Ending : public FaultTest, public testing::WithParamInterface<EndRow> {};

TEST_P(Ending, IsSeenOnce) {
  const EndRow &row = GetParam();
  auto peer = std::make_unique<ScriptedPeer>(correct());
  application_.use(peer->host());
  ASSERT_EQ(QUILLON_STATUS_OK, application_.connect()) << application_.log();
  row.act(*peer->newest());
  ASSERT_TRUE(application_.wait_ended()) << application_.log();
  EXPECT_FALSE(application_.is_connected());
  EXPECT_EQ(row.disconnected, application_.seen().disconnected);
  EXPECT_EQ(1U, application_.seen().connected);
  EXPECT_EQ(Statuses(), application_.seen().account);
  EXPECT_EQ(QUILLON_STATUS_OK, application_.disconnect());
  expect_recovery(std::move(peer));
}

std::vector<EndRow> rows_of_ends() {
  std::vector<EndRow> rows = {
      {"Closes", [](Connection &it) { it.close(); }},
      {"Truncates", [](Connection &it) { it.truncate(); }},
      {"Resets", [](Connection &it) { it.reset(); }},
      {"ClosesItsHalf", [](Connection &it) { it.half_close(); }},
      {"EndsTheStream", [](Connection &it) { it.close_stream(); }},
      {"HalfAStanzaThenGone",
       [](Connection &it) {
         it.send("<message from='" CONTROLLER_JID "'><grid xmlns='qui");
         it.close();
       }},
      {"StreamErrorWithoutACondition",
       [](Connection &it) { it.send("<stream:error/></stream:stream>"); },
       {QUILLON_STATUS_CONNECTION_ERROR_XMPP}},
      {"StreamErrorThenSilence",
       [](Connection &it) { it.send("<stream:error><reset xmlns='urn:ietf:params:xml:ns:xmpp-streams'/></stream:error>"); },
       {QUILLON_STATUS_CONNECTION_ERROR_XMPP}},
  };
  for (const char *condition : {"bad-format",
                                "bad-namespace-prefix",
                                "conflict",
                                "connection-timeout",
                                "host-gone",
                                "host-unknown",
                                "improper-addressing",
                                "internal-server-error",
                                "invalid-from",
                                "invalid-namespace",
                                "invalid-xml",
                                "not-authorized",
                                "not-well-formed",
                                "policy-violation",
                                "remote-connection-failed",
                                "reset",
                                "resource-constraint",
                                "restricted-xml",
                                "see-other-host",
                                "system-shutdown",
                                "undefined-condition",
                                "unsupported-encoding",
                                "unsupported-feature",
                                "unsupported-stanza-type",
                                "unsupported-version",
                                "of-our-own-making"}) {
    std::string name = std::string("StreamError_") + condition;
    std::replace(name.begin(), name.end(), '-', '_');
    QUILLON_STATUS status = QUILLON_STATUS_CONNECTION_ERROR_XMPP;
    if (std::string_view(condition) == "not-authorized") status = QUILLON_STATUS_CONNECTION_ERROR_NOT_AUTHORIZED;
    if (std::string_view(condition) == "remote-connection-failed")
      status = QUILLON_STATUS_CONNECTION_ERROR_REMOTE_CONNECTION_FAILURE;
    rows.push_back({name, [condition](Connection &it) { it.stream_error(condition, "127.0.0.1:9"); }, {status}});
  }
  return rows;
}

INSTANTIATE_TEST_SUITE_P(Each, Ending, testing::ValuesIn(rows_of_ends()), kNameOfRow);

// Hostile XML ends the session, and never the process, in whatever pieces it comes.
std::vector<EndRow> rows_of_hostile_stanzas() {
  std::vector<EndRow> rows;
  for (const HostileBytes &hostile : testpeer::hostile_stanzas()) {
    const auto bytes = hostile.bytes;
    rows.push_back({"AtOnce_" + hostile.name, [bytes](Connection &it) { it.send(bytes()); }});
    if (hostile.is_big) continue;
    rows.push_back({"InPieces_" + hostile.name, [bytes](Connection &it) {
                      for (const char byte : bytes()) it.send({&byte, 1});
                    }});
  }
  for (const HostileBytes &hostile : telling_hostile_stanzas()) {
    rows.push_back({"InANotification_" + hostile.name,
                    [bytes = hostile.bytes](Connection &it) { it.send(grid_message(CONTROLLER_JID, bytes())); }});
  }
  return rows;
}

INSTANTIATE_TEST_SUITE_P(Hostile, Ending, testing::ValuesIn(rows_of_hostile_stanzas()), kNameOfRow);

// Whole, and with its end byte by byte.
TEST_F(FaultTest, AStanzaOf4MibIsTakenAndOneByteMoreIsNot) {
  constexpr size_t kLimit = 4UL * 1024 * 1024;
  for (const size_t in_bytes : {0U, 64U}) {
    for (const bool is_more : {false, true}) {
      const ScriptedPeer peer(correct());
      application_.use(peer.host());
      application_.forget_seen();
      ASSERT_EQ(QUILLON_STATUS_OK, application_.connect()) << application_.log();
      const std::string stanza = testpeer::large_stanza(kLimit + (is_more ? 1 : 0));
      const size_t first = stanza.size() - in_bytes;
      peer.newest()->send(stanza.substr(0, first));
      for (const char byte : stanza.substr(first)) peer.newest()->send({&byte, 1});
      if (is_more) {
        EXPECT_TRUE(application_.wait_ended()) << application_.log();
        EXPECT_NE(std::string::npos, application_.log().find("stanza too large"));
      } else {
        EXPECT_EQ(QUILLON_STATUS_OK, application_.ask()) << application_.log();
      }
      EXPECT_EQ(is_more ? 1U : 0U, application_.seen().disconnected.size());
      EXPECT_EQ(QUILLON_STATUS_OK, application_.disconnect());
    }
  }
  expect_recovery();
}

// A server that is there no more without having said so: the probe finds out.
TEST_F(FaultTest, ASilentServerIsNoticed) {
  auto peer = std::make_unique<ScriptedPeer>(with_request("iq", Fault::silent()));
  application_.use(peer->host());
  application_.probe_after(1);
  ASSERT_EQ(QUILLON_STATUS_OK, application_.connect());
  ASSERT_TRUE(application_.wait_ended()) << application_.log();
  EXPECT_EQ(Statuses{QUILLON_STATUS_CONNECTION_ERROR}, application_.seen().disconnected);
  application_.probe_after(60);
  expect_recovery(std::move(peer));
}

// One that acknowledges nothing and reads nothing, while the application says more than fits anywhere.
TEST_F(FaultTest, AServerThatReadsNothingIsNoticed) {
  Options options = correct();
  options.receive_buffer = 4096;
  auto peer = std::make_unique<ScriptedPeer>(options);
  application_.use(peer->host());
  application_.probe_after(1);
  ASSERT_EQ(QUILLON_STATUS_OK, application_.connect());
  application_.allow(kPatient, kImpatient);
  peer->newest()->stop_reading();
  const test_support::Capability capability = test_support::make_capability("urn:test", "Weather");
  const std::string text(512UL * 1024, 'x');
  const Stopwatch stopwatch;
  for (int i = 0; i < 16; ++i) {
    test_support::Node payload = test_support::parse("<news xmlns='urn:test'>" + text + "</news>");
    quillon_connection_notify(application_.connection(), capability.get(), payload.release());
  }
  EXPECT_LT(stopwatch.passed(), kSoon);  // a notification waits for nobody
  EXPECT_EQ(QUILLON_STATUS_SEND_TIMEOUT, application_.ask());
  ASSERT_TRUE(application_.wait_ended()) << application_.log();
  EXPECT_EQ(Statuses{QUILLON_STATUS_CONNECTION_ERROR}, application_.seen().disconnected);
  application_.probe_after(60);
  expect_recovery(std::move(peer));
}

// ---- What a session survives

struct StrayRow {
  std::string name;
  std::string bytes;

  friend void PrintTo(const StrayRow &row, std::ostream *out) { *out << row.name; }
};

class Stray : public FaultTest, public testing::WithParamInterface<StrayRow> {};

TEST_P(Stray, IsIgnored) {
  auto peer = std::make_unique<ScriptedPeer>(correct());
  application_.use(peer->host());
  ASSERT_EQ(QUILLON_STATUS_OK, application_.connect()) << application_.log();
  for (int i = 0; i < 3; ++i) peer->send(GetParam().bytes);
  EXPECT_EQ(QUILLON_STATUS_OK, application_.ask());
  EXPECT_TRUE(application_.is_connected());
  EXPECT_EQ(Statuses(), application_.seen().disconnected);
  EXPECT_EQ(Statuses(), application_.seen().account);
  EXPECT_EQ(std::vector<std::string>(), peer->newest()->transcript().violations);
  // What is no request is not answered, and what is a request of the XMPP level is refused.
  EXPECT_EQ(
      std::nullopt,
      peer->wait_for_stanza(
          [](const Stanza &stanza) { return stanza.attribute("type") == "error" && stanza.attribute("id") == "stray"; }, 0ms));
  EXPECT_EQ(QUILLON_STATUS_OK, application_.disconnect());
  expect_recovery(std::move(peer));
}

const StrayRow kStrays[] = {
    {"Whitespace", "  \n\t\r\n  "},
    {"ResultOfNothing", "<iq type='result' id='stray' from='" CONTROLLER_JID "'><x xmlns='urn:x'/></iq>"},
    {"ErrorOfNothing", "<iq type='error' id='stray' from='" CONTROLLER_JID "'><error type='cancel'/></iq>"},
    {"IqWithoutAnything", "<iq/>"},
    {"IqOfAnUnknownType", "<iq type='odd' id='stray'/>"},
    {"GridResultOfNothing",
     "<iq type='result' id='stray' from='" CONTROLLER_JID "'><grid xmlns='quillon' type='response'><x/></grid></iq>"},
    {"GridRequestWithoutHandler", "<iq type='get' id='stray' from='bob@" GRID_DOMAIN
                                  "/qlk'><grid xmlns='quillon' type='request'><x xmlns='urn:x'/></grid></iq>"},
    {"GridRequestWithoutPayload",
     "<iq type='get' id='stray' from='bob@" GRID_DOMAIN "/qlk'><grid xmlns='quillon' type='request'/></iq>"},
    {"GridRequestFromNobody", "<iq type='get' id='stray'><grid xmlns='quillon' type='request'><x/></grid></iq>"},
    {"EmptyMessage", "<message/>"},
    {"MessageWithBody", "<message from='bob@" GRID_DOMAIN "'><body>Hello</body></message>"},
    {"MessageError", "<message type='error' from='" CONTROLLER_JID "'><error type='cancel'/></message>"},
    {"NotificationWithoutHandler", grid_message(CONTROLLER_JID, "<x xmlns='urn:x'/>")},
    {"NotificationWithoutPayload", grid_message(CONTROLLER_JID, "")},
    {"NotificationOfNobody", grid_message("", "<x xmlns='urn:x'/>")},
    {"AccountUpdateOfSomebodyElse",
     grid_message("mallory@" GRID_DOMAIN "/qlk",
                  "<connectionUpdateNotification xmlns='" GRID_NS "'><status>disabled</status></connectionUpdateNotification>")},
    {"AccountUpdateOfANameThatBeginsTheSame",
     grid_message(CONTROLLER_JID "2",
                  "<connectionUpdateNotification xmlns='" GRID_NS "'><status>disabled</status></connectionUpdateNotification>")},
    {"AccountUpdateWithoutAWord", grid_message(CONTROLLER_JID, "<connectionUpdateNotification xmlns='" GRID_NS "'/>")},
    {"AccountUpdateWithAnUnknownWord", grid_message(CONTROLLER_JID, "<connectionUpdateNotification xmlns='" GRID_NS
                                                                    "'><status>perhaps</status></connectionUpdateNotification>")},
    {"PublishersOfNothing", grid_message(CONTROLLER_JID, "<PublisherUpdateNotification xmlns='" GRID_NS
                                                         "'><change>add</change></PublisherUpdateNotification>")},
    {"EventWithoutItems", "<message from='" PUBSUB_JID "'><event xmlns='http://jabber.org/protocol/pubsub#event'/></message>"},
    {"Presence", "<presence from='bob@" GRID_DOMAIN "/qlk'/>"},
    {"PresenceError", "<presence type='error' from='" CONTROLLER_JID "'><error type='cancel'/></presence>"},
    {"UnknownStanza", "<odd xmlns='urn:odd'><deep><deeper/></deep></odd>"},
    {"LateFeatures", "<stream:features><starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/></stream:features>"},
    {"LateSuccess", "<success xmlns='urn:ietf:params:xml:ns:xmpp-sasl'/>"},
};

INSTANTIATE_TEST_SUITE_P(Each, Stray, testing::ValuesIn(kStrays), kNameOfRow);

// ---- The end that the application wants

struct DisconnectRow {
  std::string name;
  std::function<void(Options &)> change;
  std::function<void(ScriptedPeer &)> act = [](ScriptedPeer &) {};
  std::function<void(Connection &)> answer = {};  // to the client's closing tag

  friend void PrintTo(const DisconnectRow &row, std::ostream *out) { *out << row.name; }
};

constexpr char kClosingTag[] = "</stream:stream>";

class Disconnecting : public FaultTest, public testing::WithParamInterface<DisconnectRow> {};

TEST_P(Disconnecting, EndsAsItShould) {
  const DisconnectRow &row = GetParam();
  Options options = correct();
  if (row.change) row.change(options);
  auto peer = std::make_unique<ScriptedPeer>(options);
  application_.use(peer->host());
  ASSERT_EQ(QUILLON_STATUS_OK, application_.connect()) << application_.log();
  row.act(*peer);
  std::shared_ptr<Connection> link = peer->newest();
  std::thread answering([&] {
    if (row.answer && link->wait_until([](const testpeer::Transcript &it) { return it.is_closed_by_client; }, kSoon))
      row.answer(*link);
  });
  const Stopwatch stopwatch;
  EXPECT_EQ(QUILLON_STATUS_OK, application_.disconnect());
  EXPECT_LT(stopwatch.passed(), kSoon);
  EXPECT_FALSE(application_.is_connected());
  answering.join();
  EXPECT_TRUE(!row.answer || testpeer::eventually(kSoon, [&] { return link->transcript().is_ended; }));
  const std::string received = link->transcript().received;
  link.reset();  // it keeps a socket
  EXPECT_EQ(received.rfind(kClosingTag), received.find(kClosingTag)) << "nothing comes behind the closing tag: " << received;
  EXPECT_EQ(1U, application_.seen().disconnected.size());
  EXPECT_EQ(QUILLON_STATUS_OK, application_.disconnect());
  EXPECT_EQ(1U, application_.seen().disconnected.size());
  expect_recovery(std::move(peer));
}

const DisconnectRow kDisconnects[] = {
    {"Correct", {}},
    {"NeverAnswers", [](Options &it) { it.answers_close = false; }},
    {"ReadsNothing", {}, [](ScriptedPeer &peer) { peer.newest()->stop_reading(); }},
    {"HasClosedItsHalf", {}, [](ScriptedPeer &peer) { peer.newest()->half_close(); }},
    {"HasGone", {}, [](ScriptedPeer &peer) { peer.newest()->reset(); }},
    {"HasEndedTheStream", {}, [](ScriptedPeer &peer) { peer.newest()->close_stream(); }},
    {"IsInAStanza", [](Options &it) { it.answers_close = false; },
     [](ScriptedPeer &peer) { peer.send("<message from='" CONTROLLER_JID "'><grid xmlns='quillon'"); }},
    {"SaysNoXml", [](Options &it) { it.answers_close = false; }, [](ScriptedPeer &peer) { peer.send("</message>"); }},
    {"IsAnsweredByNoXml", [](Options &it) { it.answers_close = false; }, [](ScriptedPeer &) {},
     [](Connection &it) { it.send("</message>"); }},
    {"IsAnsweredByAStreamError", [](Options &it) { it.answers_close = false; }, [](ScriptedPeer &) {},
     [](Connection &it) { it.send("<stream:error><conflict xmlns='urn:ietf:params:xml:ns:xmpp-streams'/></stream:error>"); }},
    {"IsAnsweredByAReset", [](Options &it) { it.answers_close = false; }, [](ScriptedPeer &) {},
     [](Connection &it) { it.reset(); }},
    {"IsAnsweredAndReset", [](Options &it) { it.answers_close = false; }, [](ScriptedPeer &) {},
     [](Connection &it) {
       it.send(kClosingTag);
       it.reset();
     }},
    {"IsAnsweredByHalfALink", [](Options &it) { it.answers_close = false; }, [](ScriptedPeer &) {},
     [](Connection &it) { it.half_close(); }},
};

INSTANTIATE_TEST_SUITE_P(Each, Disconnecting, testing::ValuesIn(kDisconnects), kNameOfRow);

// It talks on and on, whatever it is told.
TEST_F(FaultTest, AServerThatNeverStopsTalkingIsLeft) {
  Options options = correct();
  options.answers_close = false;
  auto peer = std::make_unique<ScriptedPeer>(options);
  application_.use(peer->host());
  ASSERT_EQ(QUILLON_STATUS_OK, application_.connect());
  std::atomic<bool> is_done = false;
  std::thread talking([&, connection = peer->newest()] {
    const std::string message = grid_message(CONTROLLER_JID, "<x xmlns='urn:x'/>");
    while (!is_done && connection->send(message)) {
    }
  });
  const Stopwatch stopwatch;
  EXPECT_EQ(QUILLON_STATUS_OK, application_.disconnect());
  EXPECT_LT(stopwatch.passed(), kSoon);
  is_done = true;
  peer->newest()->reset();
  talking.join();
  EXPECT_EQ(1U, application_.seen().disconnected.size());
  expect_recovery(std::move(peer));
}

// Everybody disconnects at once, and one destroys.
TEST_F(FaultTest, ManyEndTheSessionAtOnce) {
  auto peer = std::make_unique<ScriptedPeer>(correct());
  application_.use(peer->host());
  ASSERT_EQ(QUILLON_STATUS_OK, application_.connect());
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) threads.emplace_back([&] { EXPECT_EQ(QUILLON_STATUS_OK, application_.disconnect()); });
  peer->newest()->reset();
  for (std::thread &thread : threads) thread.join();
  ASSERT_TRUE(application_.wait_ended());
  EXPECT_EQ(1U, application_.seen().disconnected.size());
  expect_recovery(std::move(peer));
}

// Destroyed while it is up: no callback, and nothing left.
TEST_F(FaultTest, ASessionIsDestroyed) {
  auto peer = std::make_unique<ScriptedPeer>(correct());
  application_.use(peer->host());
  ASSERT_EQ(QUILLON_STATUS_OK, application_.connect());
  application_.destroy_connection();
  EXPECT_TRUE(peer->wait_all_ended(kSoon));
  EXPECT_EQ(Statuses(), application_.seen().disconnected);
}

}  // namespace
}  // namespace faults

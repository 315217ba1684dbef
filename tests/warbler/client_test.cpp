// A session that works: what it takes to come up, answers to IQs, what is sent and what is refused.
#include <event2/event.h>
#include <openssl/ssl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ostream>

#include "client_test_support.h"

using namespace client_test;

namespace {

std::function<bool(const Element &)> has_id(const std::string &id) {
  return [id](const Element &stanza) { return stanza.attribute("id") == id; };
}

// ---- Coming up

TEST(ClientSession, ComesUpInFourFlights) {
  const FakeServer server(server_options());
  TestClient client(client_settings());
  ASSERT_NO_FATAL_FAILURE(establish(client, server));
  EXPECT_EQ(Records{kConnected}, client.records());
  EXPECT_EQ(4u, server.flights());
  EXPECT_EQ(1u, server.connections());
  EXPECT_EQ("grid.test", server.server_name());
  EXPECT_EQ("TLSv1.3", server.tls_version());
  EXPECT_EQ("dXNlcg==", server.initial_response());
}

struct PeculiarCase {
  const char *name;
  std::function<void(FakeServer::Options &)> change;
  unsigned connections = 1;
  std::vector<std::string> mechanisms = {"EXTERNAL"};
};

void PrintTo(const PeculiarCase &one, std::ostream *out) { *out << one.name; }

const PeculiarCase kPeculiarCases[] = {
    {"OneByteAtATime", [](auto &options) { options.byte_by_byte = true; }},
    {"OlderTls", [](auto &options) { options.max_tls_version = TLS1_2_VERSION; }},
    {"CertificateOfTheDialledHost",
     [](auto &options) {
       options.certificate = Identities::get().authority.server({.names = {"other.test"}, .addresses = {"127.0.0.1"}});
     }},
    {"ManyMechanisms",
     [](auto &options) {
       options.mechanisms = {"SCRAM-SHA-1", "EXTERNAL", "PLAIN"};
     }},
    {"OnlyTheSecondMechanism", [](auto &options) { options.mechanisms = {"SECOND"}; }, 1, {"EXTERNAL", "SECOND"}},
    {"WordsInPlainAfterProceed",
     [](auto &options) {
       options.after_proceed = "<stream:features><mechanisms xmlns='urn:ietf:params:xml:ns:xmpp-sasl'/></stream:features>";
     }},
    {"BlanksBetween",
     [](auto &options) {
       options.faults[Stage::bind] = {Fault::Kind::send_and_go_on, " \n\t "};
     }},
};

class ClientPeculiar : public testing::TestWithParam<PeculiarCase> {};

TEST_P(ClientPeculiar, ComesUpAllTheSame) {
  FakeServer::Options options = server_options();
  GetParam().change(options);
  const FakeServer server(std::move(options));
  test_support::ClientSettings settings = client_settings();
  settings.mechanisms = GetParam().mechanisms;
  TestClient client(std::move(settings));
  ASSERT_NO_FATAL_FAILURE(establish(client, server));
  ASSERT_NO_FATAL_FAILURE(exchange_all(client));
  EXPECT_EQ(GetParam().connections, server.connections());
  EXPECT_EQ(2u, client.records().size()) << client.all();
}

INSTANTIATE_TEST_SUITE_P(Servers, ClientPeculiar, testing::ValuesIn(kPeculiarCases),
                         [](const auto &test) { return test.param.name; });

// ---- Servers that take what comes together for a mistake

struct AheadCase {
  std::string name;
  Stage stage;  // what they do not want to be asked ahead
  Fault fault;
};

void PrintTo(const AheadCase &one, std::ostream *out) { *out << one.name; }

std::vector<AheadCase> all_ahead_cases() {
  using Kind = Fault::Kind;
  const std::pair<const char *, Stage> stages[] = {{"StartTls", Stage::proceed}, {"Sasl", Stage::sasl}, {"Bind", Stage::bind}};
  const std::pair<const char *, Fault> faults[] = {
      {"Close", {Kind::close, ""}},
      {"Reset", {Kind::reset, ""}},
      {"EndOfStream", {Kind::send_and_stay, "</stream:stream>"}},
      {"BadFormat",
       {Kind::send_and_close,
        "<stream:error><bad-format xmlns='urn:ietf:params:xml:ns:xmpp-streams'/></stream:error></stream:stream>"}},
      {"PolicyViolation",
       {Kind::send_and_stay, "<stream:error><policy-violation xmlns='urn:ietf:params:xml:ns:xmpp-streams'/></stream:error>"}},
      {"Silence", {Kind::silent, ""}},
  };
  std::vector<AheadCase> cases;
  for (const auto &[stage_name, stage] : stages) {
    for (const auto &[fault_name, fault] : faults) cases.push_back({std::string(stage_name) + fault_name, stage, fault});
  }
  return cases;
}

class ClientAhead : public testing::TestWithParam<AheadCase> {};

// They are asked once more, step by step; from then on at once so.
TEST_P(ClientAhead, GoesStepByStepWhereItMust) {
  FakeServer::Options options = server_options();
  options.faults_ahead[GetParam().stage] = GetParam().fault;
  const FakeServer server(std::move(options));
  const FakeServer other(server_options());
  TestClient client(client_settings({{"connect_timeout_seconds", "12"}}));
  ASSERT_NO_FATAL_FAILURE(establish(client, server));
  ASSERT_NO_FATAL_FAILURE(exchange_all(client));
  EXPECT_EQ(2u, server.connections());
  ASSERT_NO_FATAL_FAILURE(establish(client, server));
  EXPECT_EQ(3u, server.connections());
  EXPECT_EQ(7u, server.flights());
  ASSERT_NO_FATAL_FAILURE(establish(client, other));
  EXPECT_EQ(4u, other.flights());
}

INSTANTIATE_TEST_SUITE_P(Servers, ClientAhead, testing::ValuesIn(all_ahead_cases()),
                         [](const auto &test) { return test.param.name; });

TEST(ClientSession, GoesWhereItIsSent) {
  const FakeServer target(server_options());
  FakeServer::Options options = server_options();
  options.faults[Stage::features] = {
      Fault::Kind::send_and_stay, "<stream:error><see-other-host xmlns='urn:ietf:params:xml:ns:xmpp-streams'>" + target.host() +
                                      "</see-other-host></stream:error></stream:stream>"};
  const FakeServer signpost(std::move(options));
  TestClient client(client_settings());
  ASSERT_NO_FATAL_FAILURE(establish(client, signpost));
  EXPECT_EQ(1u, target.established());
  EXPECT_EQ(Records{kConnected}, client.records());
}

TEST(ClientSession, AsksTheApplicationAboutAServerThatIsNotVerified) {
  const FakeServer server(server_options());
  test_support::ClientSettings settings = client_settings();
  settings.authority.clear();
  TestClient client(std::move(settings));
  ASSERT_NO_FATAL_FAILURE(establish(client, server));
  EXPECT_EQ((Records{"accept", kConnected}), client.records());
}

TEST(ClientSession, OnlyTheFirstAnswerAboutAServerCounts) {
  const FakeServer server(server_options());
  for (const bool first : {true, false}) {
    test_support::ClientSettings settings = client_settings();
    settings.authority.clear();
    settings.on_accept = [first](wb_tls_session *session) {
      wb_tls_proceed(session, first);
      wb_tls_proceed(session, !first);
    };
    TestClient client(std::move(settings));
    ASSERT_TRUE(client.connect(server.host()));
    ASSERT_TRUE(client.wait_for(first ? "connected" : "disconnected")) << client.all();
    EXPECT_EQ((Records{"accept", first ? kConnected : "disconnected"}), client.records());
  }
  EXPECT_EQ(1u, server.established());
}

TEST(ClientSession, AnotherConnectEndsTheOneUnderWay) {
  FakeServer::Options options = server_options();
  options.faults[Stage::sasl] = {Fault::Kind::silent, ""};
  const FakeServer silent(std::move(options)), good(server_options());
  TestClient client(client_settings());
  ASSERT_TRUE(client.connect(silent.host()));
  ASSERT_TRUE(test_support::wait_for([&] { return !silent.server_name().empty(); }));
  ASSERT_NO_FATAL_FAILURE(establish(client, good));
  ASSERT_NO_FATAL_FAILURE(establish(client, good));
  EXPECT_EQ((Records{"disconnected", kConnected, "disconnected", kConnected}), client.records());
}

TEST(ClientSession, ConnectsAgainAfterTheCountdown) {
  FakeServer server(server_options());
  TestClient client(client_settings({{"client_reconnect_countdown", "1"}}));
  ASSERT_NO_FATAL_FAILURE(establish(client, server));
  server.close_all();
  ASSERT_TRUE(client.wait_for("connected", 2)) << client.all();
  server.close_all();
  ASSERT_TRUE(client.wait_for("reconnect 1", 2)) << client.all();
  client.disconnect();
  EXPECT_EQ((Records{kConnected, "disconnected", "reconnect 1 1", "reconnect 2 0", kConnected, "disconnected", "reconnect 1 1",
                     "reconnect 0 0"}),
            client.records());
}

TEST(ClientSession, EventsNameTheClientAsTheirSource) {
  FakeServer server(server_options());
  TestClient client(client_settings({{"client_reconnect_countdown", "60"}}));
  std::atomic<size_t> events = 0, from_client = 0;
  client.set_hook([&](const std::string &, wb_event_data *event) {
    if (event == nullptr) return;
    ++events;
    if (event->source == client.client()) ++from_client;
  });
  ASSERT_NO_FATAL_FAILURE(establish(client, server));
  server.send_to_all("<message id='a'/><presence id='a'/><iq type='get' id='a'><grid xmlns='quillon'/></iq>");
  ASSERT_TRUE(client.wait_for("iq a")) << client.all();
  server.close_all();
  ASSERT_TRUE(client.wait_for("reconnect")) << client.all();
  EXPECT_EQ(6u, events);
  EXPECT_EQ(events, from_client);
}

// A mechanism of two steps: the server's last word comes with its success.
TEST(ClientSession, TheMechanismSeesWhatComesWithSuccess) {
  const wb_sasl_mech_functions functions{
      [](wb_sasl_mech_instance *, wb_htable *, wb_err *) { return true; }, nullptr,
      [](wb_sasl_mech_instance *instance, uint8_t *, size_t, wb_sasl_complete complete, wb_err *) {
        complete(instance, nullptr, 0, false, false, WB_SASL_ERR_NONE);
        return true;
      },
      [](wb_sasl_mech_instance *instance, uint8_t *in, size_t length, wb_sasl_complete complete, wb_err *) {
        const bool proved = std::string(reinterpret_cast<const char *>(in), length) == "proof";
        complete(instance, nullptr, 0, false, proved, proved ? WB_SASL_ERR_NONE : WB_SASL_ERR_NOT_AUTHORIZED);
        return true;
      }};
  for (const auto &[data, end] :
       {std::pair("cHJvb2Y=", "connected"), std::pair("bGll", "disconnected"), std::pair("", "disconnected")}) {
    FakeServer::Options options = server_options();
    options.success_data = data;
    const FakeServer server(std::move(options));
    test_support::ClientSettings settings = client_settings();
    settings.mechanism = &functions;
    TestClient client(std::move(settings));
    ASSERT_TRUE(client.connect(server.host()));
    ASSERT_TRUE(client.wait_for(end)) << data << ": " << client.all();
  }
}

// ---- Fairness

// Level-triggered and always ready: it runs once in each pass of a base.
class PassCounter {
 public:
  PassCounter(event_base *base, std::function<void()> run) : run_(std::move(run)) {
    EXPECT_EQ(0, pipe(ends_));
    EXPECT_EQ(1, write(ends_[1], "x", 1));
    event_ = event_new(
        base, ends_[0], EV_READ | EV_PERSIST, [](int, short, void *arg) { static_cast<PassCounter *>(arg)->run_(); }, this);
    event_add(event_, nullptr);
  }
  ~PassCounter() {
    event_free(event_);
    close(ends_[0]);
    close(ends_[1]);
  }
  PassCounter(const PassCounter &) = delete;
  PassCounter &operator=(const PassCounter &) = delete;

 private:
  const std::function<void()> run_;
  int ends_[2];
  event *event_;
};

TEST(ClientFairness, APeerThatKeepsSendingLetsOthersHaveTheirTurn) {
  constexpr size_t kBody = 8000, kMessages = 2000;
  FakeServer server(server_options());
  TestClient client(client_settings());
  size_t in_this_pass = 0, most = 0;  // the loop's
  client.set_hook([&](const std::string &record, wb_event_data *) {
    if (record.starts_with("message")) most = std::max(most, ++in_this_pass);
  });
  ASSERT_NO_FATAL_FAILURE(establish(client, server));
  std::string flood;
  for (size_t i = 0; i < kMessages; ++i) flood += "<message id='a'><body>" + std::string(kBody, 'x') + "</body></message>";
  const PassCounter counter(client.loop().base(), [&] { in_this_pass = 0; });
  server.send_to_all(flood);
  ASSERT_TRUE(client.wait_for("message", kMessages)) << client.count("message");
  client.loop().run([&] { EXPECT_LE(most * kBody, 256u * 1024); });
}

// ---- Answers

struct AnswerCase {
  const char *name;
  std::vector<std::string> answers;  // {id} of the request, {own} our address
  Records expected;
  unsigned timeout_seconds = 60;
};

void PrintTo(const AnswerCase &one, std::ostream *out) { *out << one.name; }

constexpr char kRight[] = "<iq type='result' n='1' id='{id}' from='bob@grid.test/qlk' to='{own}'/>";

const AnswerCase kAnswerCases[] = {
    {"Result", {kRight}, {"question: result 1"}},
    {"Error",
     {"<iq type='error' id='{id}' from='bob@grid.test/qlk'><error type='cancel'>"
      "<item-not-found xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/></error></iq>"},
     {"question: error"}},
    {"Twice", {kRight, kRight}, {"question: result 1"}},
    {"OtherIdFirst", {"<iq type='result' id='x{id}' from='bob@grid.test/qlk'/>", kRight}, {"question: result 1"}},
    {"NoIdFirst", {"<iq type='result' from='bob@grid.test/qlk'/>", kRight}, {"question: result 1"}},
    {"OtherSenderFirst", {"<iq type='result' n='2' id='{id}' from='mallory@grid.test/qlk'/>", kRight}, {"question: result 1"}},
    {"OtherResourceFirst", {"<iq type='result' n='2' id='{id}' from='bob@grid.test/else'/>", kRight}, {"question: result 1"}},
    {"NoSenderFirst", {"<iq type='result' n='2' id='{id}'/>", kRight}, {"question: result 1"}},
    {"RequestOfThatIdFirst",
     {"<iq type='set' id='{id}' from='bob@grid.test/qlk'><a xmlns='urn:a'/></iq>", kRight},
     {"question: result 1"}},
    {"NoneInTime", {}, {"question: none"}, 1},
    {"NoneAtAll", {}, {"question: none"}, 0},
};

class ClientAnswer : public testing::TestWithParam<AnswerCase> {};

std::string fill_in(std::string text, const std::string &placeholder, const std::string &value) {
  for (size_t at = 0; (at = text.find(placeholder, at)) != std::string::npos; at += value.size())
    text.replace(at, placeholder.size(), value);
  return text;
}

TEST_P(ClientAnswer, ComesOnce) {
  FakeServer::Options options = server_options();
  options.on_stanza = [](FakeServer::Session &session, const Element &stanza) {
    if (session.answer_ping(stanza) || stanza.child("question") == nullptr) return;
    for (const std::string &answer : GetParam().answers)
      session.send(fill_in(fill_in(answer, "{id}", stanza.attribute("id")), "{own}", kJid));
  };
  FakeServer server(std::move(options));
  TestClient client(client_settings());
  ASSERT_NO_FATAL_FAILURE(establish(client, server));
  ASSERT_TRUE(client.track(request(), "question", GetParam().timeout_seconds));
  ASSERT_TRUE(client.wait_for("question")) << client.all();
  // What comes too late finds nobody.
  Element question;
  ASSERT_TRUE(server.wait_for_stanza([](const Element &stanza) { return stanza.child("question") != nullptr; }, &question));
  server.send_to_all(fill_in(kRight, "{id}", question.attribute("id")));
  ASSERT_NO_FATAL_FAILURE(exchange_all(client));
  Records records = client.records();
  records.pop_back();
  Records expected = GetParam().expected;
  expected.insert(expected.begin(), kConnected);
  EXPECT_EQ(expected, records) << client.all();
}

INSTANTIATE_TEST_SUITE_P(Answers, ClientAnswer, testing::ValuesIn(kAnswerCases),
                         [](const auto &test) { return test.param.name; });

TEST(ClientSession, EveryTrackedIqIsCalledBackWhenTheSessionEnds) {
  FakeServer server(server_options());
  TestClient client(client_settings());
  ASSERT_NO_FATAL_FAILURE(establish(client, server));
  for (int i = 0; i < 100; ++i) ASSERT_TRUE(client.track(request(), "question", 60));
  server.close_all();
  ASSERT_TRUE(client.wait_for("disconnected")) << client.all();
  const Records records = client.records();
  EXPECT_EQ(100u, client.count("question: none"));
  EXPECT_EQ("disconnected", records.back());
}

// ---- What others ask of us

struct ReceivedCase {
  const char *name, *stanza;
  const char *record;  // what the application hears, or ""
  const char *type;    // of our answer, or "": none
};

void PrintTo(const ReceivedCase &one, std::ostream *out) { *out << one.name; }

const ReceivedCase kReceivedCases[] = {
    {"Ping", "<iq type='get' id='a' from='bob@grid.test/x'><ping xmlns='urn:xmpp:ping'/></iq>", "", "result"},
    {"PingOfTheServer", "<iq type='get' id='a'><ping xmlns='urn:xmpp:ping'/></iq>", "", "result"},
    {"Unknown", "<iq type='get' id='a' from='bob@grid.test/x'><query xmlns='jabber:iq:version'/></iq>", "", "error"},
    {"UnknownSet", "<iq type='set' id='a' from='bob@grid.test/x'><query xmlns='jabber:iq:roster'/></iq>", "", "error"},
    {"Empty", "<iq type='get' id='a' from='bob@grid.test/x'/>", "", "error"},
    {"NoPingByName", "<iq type='get' id='a' from='bob@grid.test/x'><pong xmlns='urn:xmpp:ping'/></iq>", "", "error"},
    {"NoPingByType", "<iq type='set' id='a' from='bob@grid.test/x'><ping xmlns='urn:xmpp:ping'/></iq>", "", "error"},
    {"NoNamespace", "<iq type='get' id='a' from='bob@grid.test/x'><ping xmlns=''/></iq>", "", "error"},
    {"Grid", "<iq type='get' id='a' from='bob@grid.test/x'><grid xmlns='quillon' type='request'><b xmlns='urn:b'/></grid></iq>",
     "iq a", ""},
    {"Result", "<iq type='result' id='a' from='bob@grid.test/x'><grid xmlns='quillon'/></iq>", "", ""},
    {"Error", "<iq type='error' id='a' from='bob@grid.test/x'><error/></iq>", "", ""},
    {"NoType", "<iq id='a' from='bob@grid.test/x'><grid xmlns='quillon'/></iq>", "", ""},
    {"Message", "<message id='a' from='bob@grid.test/x'><body>b</body></message>", "message a", ""},
    {"Presence", "<presence id='a' from='bob@grid.test/x'/>", "presence a", ""},
    {"NoStanza", "<other xmlns='urn:other' id='a'/>", "", ""},
    {"MessageOfAnotherNamespace", "<message xmlns='urn:other' id='a'/>", "", ""},
};

class ClientReceived : public testing::TestWithParam<ReceivedCase> {};

TEST_P(ClientReceived, IsAnsweredOrReported) {
  const ReceivedCase &received = GetParam();
  FakeServer server(server_options());
  TestClient client(client_settings());
  ASSERT_NO_FATAL_FAILURE(establish(client, server));
  server.send_to_all(received.stanza);
  server.send_to_all("<message id='last'/>");
  ASSERT_TRUE(client.wait_for("message last")) << client.all();
  ASSERT_NO_FATAL_FAILURE(exchange_all(client));
  Records expected = {kConnected, "message last"};
  if (*received.record != '\0') expected.insert(expected.begin() + 1, received.record);
  Records records = client.records();
  records.pop_back();
  EXPECT_EQ(expected, records);
  const std::vector<Element> stanzas = server.stanzas();
  ASSERT_EQ(*received.type != '\0' ? 2u : 1u, stanzas.size());  // the last is the exchange's
  if (stanzas.size() == 1) return;
  EXPECT_EQ(received.type, stanzas[0].attribute("type"));
  EXPECT_EQ("a", stanzas[0].attribute("id"));
  EXPECT_EQ(std::strstr(received.stanza, "from=") != nullptr ? "bob@grid.test/x" : "", stanzas[0].attribute("to"));
  const Element *error = stanzas[0].child("error");
  ASSERT_EQ(std::string_view(received.type) == "error", error != nullptr);
  if (error == nullptr) return;
  EXPECT_EQ("cancel", error->attribute("type"));
  ASSERT_NE(nullptr, error->child("service-unavailable"));
  EXPECT_EQ("urn:ietf:params:xml:ns:xmpp-stanzas", error->child("service-unavailable")->ns);
}

INSTANTIATE_TEST_SUITE_P(Stanzas, ClientReceived, testing::ValuesIn(kReceivedCases),
                         [](const auto &test) { return test.param.name; });

// ---- Sending

TEST(ClientSending, IsRefusedWithoutASession) {
  const FakeServer server(server_options());
  TestClient client(client_settings());
  const auto refused = [&] {
    wb_err err{};
    EXPECT_FALSE(client.send(message("a"), &err));
    EXPECT_EQ(WB_ERR_INVALID_STATE, err.code);
    EXPECT_FALSE(client.track(request(), "question", 1, &err));
    EXPECT_EQ(WB_ERR_INVALID_STATE, err.code);
  };
  refused();
  ASSERT_NO_FATAL_FAILURE(establish(client, server));
  client.disconnect();
  ASSERT_TRUE(client.wait_for("disconnected")) << client.all();
  refused();
  EXPECT_EQ((Records{kConnected, "disconnected"}), client.records());
}

// From the moment the application ends the session, whatever the server still has to do about it.
TEST(ClientSending, IsRefusedWhileTheStreamCloses) {
  FakeServer::Options options = server_options();
  options.closes_streams = false;
  const FakeServer server(std::move(options));
  TestClient client(client_settings());
  ASSERT_NO_FATAL_FAILURE(establish(client, server));
  client.disconnect();
  wb_err err{};
  EXPECT_FALSE(client.send(message("a"), &err));
  EXPECT_EQ(WB_ERR_INVALID_STATE, err.code);
  EXPECT_FALSE(client.track(request(), "question", 1, &err));
  EXPECT_EQ(WB_ERR_INVALID_STATE, err.code);
  EXPECT_EQ(Records{kConnected}, client.records());
  ASSERT_TRUE(client.wait_for("disconnected")) << client.all();
  EXPECT_EQ((Records{kConnected, "disconnected"}), client.records());
  EXPECT_EQ(0u, server.stanzas().size());
}

TEST(ClientSending, ObeysTheLimitThatTheServerAnnounced) {
  FakeServer::Options options = server_options();
  options.max_bytes = 1000;
  const FakeServer server(std::move(options));
  TestClient client(client_settings());
  ASSERT_NO_FATAL_FAILURE(establish(client, server));
  wb_err err{};
  EXPECT_FALSE(client.send(message("large", std::string(1000, 'x')), &err));
  EXPECT_EQ(WB_ERR_BAD_FORMAT, err.code);
  EXPECT_TRUE(client.send(message("small", std::string(800, 'x'))));
  EXPECT_TRUE(server.wait_for_stanza(has_id("small")));
  ASSERT_NO_FATAL_FAILURE(exchange_all(client));
  EXPECT_EQ(2u, server.stanzas().size());
}

TEST(ClientSending, RefusesTextThatIsNoXml) {
  const FakeServer server(server_options());
  TestClient client(client_settings());
  ASSERT_NO_FATAL_FAILURE(establish(client, server));
  for (const char *text : {"\xff\xfe", "\xc3\x28",
                           "a\x01"
                           "b",
                           "\xed\xa0\x80"}) {
    wb_dom_node *stanza = test_support::parse_stanza(message("a")), *bad = nullptr;
    wb_dom_ctx *context = wb_dom_get_context(stanza);
    ASSERT_TRUE(wb_dom_text_create(context, text, &bad, nullptr) && wb_dom_add_child(stanza, bad, nullptr) &&
                wb_dom_context_retain(context, nullptr));
    wb_err err{};
    EXPECT_FALSE(wb_client_send_stanza(client.client(), stanza, &err)) << text;
    EXPECT_EQ(WB_ERR_BAD_FORMAT, err.code);
    EXPECT_FALSE(wb_client_track_iq(
        client.client(), stanza, [](wb_dom_node *, void *) { ADD_FAILURE(); }, nullptr, 1, &err));
    EXPECT_EQ(WB_ERR_BAD_FORMAT, err.code);
  }
  ASSERT_NO_FATAL_FAILURE(exchange_all(client));
  EXPECT_EQ(1u, server.stanzas().size());
}

TEST(ClientSending, StanzasOfOnePassLeaveTogether) {
  const FakeServer server(server_options());
  TestClient client(client_settings());
  ASSERT_NO_FATAL_FAILURE(establish(client, server));
  client.loop().run([&] {
    for (int i = 0; i < 64; ++i) client.send(message(std::to_string(i)));
  });
  ASSERT_TRUE(server.wait_for_stanza(has_id("63")));
  EXPECT_EQ(1u, server.records());
  const std::vector<Element> stanzas = server.stanzas();
  ASSERT_EQ(64u, stanzas.size());
  for (size_t i = 0; i < stanzas.size(); ++i) EXPECT_EQ(std::to_string(i), stanzas[i].attribute("id"));
}

// A thread writes its IQs itself, the loop may do what it will, unless it leaves them to the loop.
TEST(ClientSending, AThreadMayLeaveTheWritingToTheLoop) {
  constexpr unsigned kMany = 8;
  const FakeServer server(server_options());
  TestClient client(client_settings());
  ASSERT_NO_FATAL_FAILURE(establish(client, server));
  const auto track_many = [&](bool leaves) {
    std::thread([&, leaves] {
      wb_client_leave_writing_to_loop(leaves);
      for (unsigned i = 0; i < kMany; ++i) EXPECT_TRUE(client.track(request(), "question", 60));
    }).join();
  };
  client.loop().run([&] {
    track_many(false);
    EXPECT_TRUE(test_support::wait_for([&] { return server.stanzas().size() == kMany; }));
  });
  const size_t before = server.records();
  EXPECT_EQ(kMany, before);
  client.loop().run([&] { track_many(true); });
  EXPECT_TRUE(test_support::wait_for([&] { return server.stanzas().size() == 2 * kMany; }));
  EXPECT_EQ(before + 1, server.records());
}

TEST(ClientSending, ThreadsSendSideBySide) {
  constexpr int kThreads = 4, kEach = 200;
  FakeServer::Options options = server_options();
  options.on_stanza = [](FakeServer::Session &session, const Element &stanza) {
    session.send("<iq type='result' id='" + stanza.attribute("id") + "' from='bob@grid.test/qlk'/>");
  };
  const FakeServer server(std::move(options));
  TestClient client(client_settings());
  ASSERT_NO_FATAL_FAILURE(establish(client, server));
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kEach; ++i) EXPECT_TRUE(client.track(request(), "question", 60));
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_TRUE(client.wait_for("question: result", kThreads * kEach));
}

TEST(ClientSending, TheQueueIsBounded) {
  FakeServer::Options options = server_options();
  options.small_window = true;
  FakeServer server(std::move(options));
  TestClient client(client_settings({{"max_queue_bytes", "65536"}}));
  ASSERT_NO_FATAL_FAILURE(establish(client, server));
  server.stop_reading();
  wb_err err{};
  size_t sent = 0;
  bool refused = false;
  // The system's own buffers take much before anything waits with us.
  for (; !refused && sent < 64u << 20; sent += 16384) {
    client.loop().run([&] { refused = !client.send(message("a", std::string(16384, 'x')), &err); });
  }
  ASSERT_TRUE(refused);
  EXPECT_EQ(WB_ERR_NO_MEMORY, err.code);
  server.resume_reading();
  ASSERT_TRUE(test_support::wait_for([&] { return client.send(message("last")); }));
  EXPECT_TRUE(server.wait_for_stanza(has_id("last")));
  EXPECT_EQ(Records{kConnected}, client.records());
}

}  // namespace

// How an attempt or a session ends, whatever the server does, and that the next one begins afresh.
#include <openssl/ssl.h>

#include <algorithm>
#include <ostream>

#include "client_test_support.h"

using namespace client_test;

namespace {

using Table = std::map<std::string, std::string>;

constexpr char kHead[] =
    "<?xml version='1.0'?><stream:stream xmlns='jabber:client' xmlns:stream='http://etherx.jabber.org/streams' id='s1' "
    "version='1.0'>";
constexpr char kRequest[] =
    "<iq xmlns='jabber:client' type='get' to='bob@grid.test/qlk'><question xmlns='urn:test:question'/></iq>";

// Connects to the faulty server with an IQ under way if the session comes up, then to a good one with the same client.
// connections is how often the faulty one is tried, 0 if that is a matter of time.
void expect_end(FakeServer::Options faulty, const std::string &end, bool comes_up, unsigned connections, Table table = {}) {
  const FakeServer bad(std::move(faulty)), good(server_options());
  TestClient client(client_settings(std::move(table)));
  client.set_hook([&, asks = comes_up](const std::string &record, wb_event_data *) mutable {
    if (asks && record.starts_with("connected")) client.track(kRequest, "question", 60);
    asks = asks && !record.starts_with("connected");
  });
  ASSERT_TRUE(client.connect(bad.host()));
  ASSERT_TRUE(client.wait_for("disconnected")) << client.all();
  EXPECT_EQ(connections != 0 ? connections : bad.connections(), bad.connections());
  ASSERT_NO_FATAL_FAILURE(establish(client, good));
  ASSERT_NO_FATAL_FAILURE(exchange_all(client));
  Records records = client.records();
  records.resize(records.size() - 2);  // the good session and its answer
  EXPECT_EQ(comes_up ? (Records{std::string("connected ") + kJid, "question: none", end}) : Records{end}, records)
      << client.all();
}

// ---- The same misbehaviour at each stage

struct Misbehaviour {
  const char *name;
  Fault fault;
  const char *end = "disconnected";
  bool in_plain_tls = true;  // whether it means anything in place of a TLS handshake
  bool once_more = false;    // whether a server that was asked ahead is asked again because of it
};

std::string deep(int depth) {
  std::string text;
  for (int i = 0; i < depth; ++i) text += "<deep>";
  return text;
}

using Kind = Fault::Kind;

const Misbehaviour kMisbehaviours[] = {
    {"Close", {Kind::close, ""}, "disconnected", true, true},
    {"Reset", {Kind::reset, ""}, "disconnected", true, true},
    {"Garbage", {Kind::send_and_stay, "\x01\x02<<\xff>>"}},
    {"NotUtf8", {Kind::send_and_stay, "<message><body>\xc3\x28</body></message>"}, "disconnected", false},
    {"DocumentType", {Kind::send_and_stay, "<!DOCTYPE a [<!ENTITY b 'c'>]>"}, "disconnected", false},
    {"Comment", {Kind::send_and_stay, "<!-- nothing to see -->"}, "disconnected", false},
    {"Instruction", {Kind::send_and_stay, "<?php nothing ?>"}, "disconnected", false},
    {"DeepNesting", {Kind::send_and_stay, deep(40)}, "disconnected", false},
    {"HugeStanza", {Kind::send_and_stay, "<message><body>" + std::string(20000, 'x')}, "disconnected", false},
    {"HugeName", {Kind::send_and_stay, "<" + std::string(20000, 'x')}, "disconnected", false},
    {"EndOfStream", {Kind::send_and_stay, "</stream:stream>"}, "disconnected", false, true},
    {"StreamError",
     {Kind::send_and_stay, "<stream:error><conflict xmlns='urn:ietf:params:xml:ns:xmpp-streams'/></stream:error>"},
     "disconnected conflict",
     false,
     true},
};

const std::pair<const char *, Stage> kStages[] = {
    {"Head", Stage::head}, {"Features", Stage::features}, {"Proceed", Stage::proceed},        {"Tls", Stage::tls},
    {"Sasl", Stage::sasl}, {"Bind", Stage::bind},         {"Established", Stage::established}};

struct FaultCase {
  std::string name;
  Stage stage;
  Misbehaviour misbehaviour;
};

void PrintTo(const FaultCase &one, std::ostream *out) { *out << one.name; }

std::vector<FaultCase> all_faults() {
  std::vector<FaultCase> cases;
  for (const auto &[stage_name, stage] : kStages) {
    for (const Misbehaviour &one : kMisbehaviours) {
      if (stage != Stage::tls || one.in_plain_tls) cases.push_back({std::string(stage_name) + one.name, stage, one});
    }
  }
  return cases;
}

class ClientFault : public testing::TestWithParam<FaultCase> {};

TEST_P(ClientFault, EndsTheSessionOnce) {
  const auto &[name, stage, misbehaviour] = GetParam();
  FakeServer::Options options = server_options();
  Fault fault = misbehaviour.fault;
  if (stage == Stage::head && (fault.text.starts_with("<stream:") || fault.text.starts_with("</stream:")))
    fault.text.insert(0, kHead);
  options.faults[stage] = fault;
  const bool asked_ahead = stage != Stage::tls && stage != Stage::established;
  unsigned connections = asked_ahead && misbehaviour.once_more ? 2 : 1;
  if (stage == Stage::head && fault.kind == Kind::reset) connections = 0;  // it may come before we have said anything
  expect_end(std::move(options), misbehaviour.end, stage == Stage::established, connections,
             {{"max_depth", "16"}, {"max_stanza_bytes", "8192"}});
}

INSTANTIATE_TEST_SUITE_P(Stages, ClientFault, testing::ValuesIn(all_faults()), [](const auto &test) { return test.param.name; });

// ---- What belongs to one stage

struct EndCase {
  const char *name;
  std::function<void(FakeServer::Options &)> spoil;
  const char *end = "disconnected";
  Table table = {};
  unsigned connections = 1;
};

void PrintTo(const EndCase &one, std::ostream *out) { *out << one.name; }

std::function<void(FakeServer::Options &)> falls_silent(Stage stage) {
  return [stage](FakeServer::Options &options) { options.faults[stage] = {Kind::silent, ""}; };
}

std::function<void(FakeServer::Options &)> shows(const std::function<Credentials(Identities &)> &choose) {
  return [choose](FakeServer::Options &options) { options.certificate = choose(Identities::get()); };
}

void send_to_itself(FakeServer::Options &options) {
  options.faults[Stage::features] = {
      Kind::send_and_stay,
      "<stream:error><see-other-host xmlns='urn:ietf:params:xml:ns:xmpp-streams'>{host}</see-other-host></stream:error>"};
}

const Table kShort = {{"connect_timeout_seconds", "1"}};

const EndCase kEndCases[] = {
    {"SilentBeforeHead", falls_silent(Stage::head), "disconnected", kShort, 0},
    {"SilentBeforeFeatures", falls_silent(Stage::features), "disconnected", kShort, 0},
    {"SilentBeforeProceed", falls_silent(Stage::proceed), "disconnected", kShort, 0},
    {"SilentInTls", falls_silent(Stage::tls), "disconnected", kShort},
    {"SilentInSasl", falls_silent(Stage::sasl), "disconnected", kShort, 0},
    {"SilentInBinding", falls_silent(Stage::bind), "disconnected", kShort, 0},
    {"NoStartTls", [](auto &options) { options.offers_starttls = false; }},
    {"OtherAuthority", shows([](Identities &all) { return all.other_authority.server("grid.test"); })},
    {"Expired", shows([](Identities &all) {
       return all.authority.server({.names = {"grid.test"}, .validity = testpeer::Validity::expired});
     })},
    {"OtherName", shows([](Identities &all) { return all.authority.server("other.test"); })},
    {"NameOfASubdomain", shows([](Identities &all) { return all.authority.server("a.grid.test"); })},
    {"OtherAddress", shows([](Identities &all) { return all.authority.server({.addresses = {"127.0.0.2"}}); })},
    {"CertificateOfAClient", shows([](Identities &all) { return all.client; })},
    {"OldTls", [](auto &options) { options.max_tls_version = TLS1_1_VERSION; }},
    {"ClientCertificateRefused",
     [](auto &options) { options.client_authority = Identities::get().other_authority.certificate(); }},
    {"NoMechanism", [](auto &options) { options.mechanisms.clear(); }},
    {"OtherMechanism", [](auto &options) { options.mechanisms = {"PLAIN"}; }},
    {"SaslFailure", [](auto &options) { options.sasl_failure = "not-authorized"; }},
    {"ChallengeToExternal", [](auto &options) { options.challenge = "aGVsbG8="; }},
    {"BrokenChallenge", [](auto &options) { options.challenge = "&amp;&amp;"; }},
    {"NoBinding", [](auto &options) { options.offers_bind = false; }},
    {"BindError", [](auto &options) { options.bind_error = "conflict"; }},
    {"OtherUser", [](auto &options) { options.bound_jid = "mallory@grid.test/qlk"; }},
    {"OtherResource", [](auto &options) { options.bound_jid = "user@grid.test/other"; }},
    {"NoAddress", [](auto &options) { options.bound_jid = "user@grid.test"; }},
    {"SentRoundInCircles", send_to_itself, "disconnected see-other-host", {}, 4},
    {"MistakeTwice",
     [](auto &options) {
       options.faults[Stage::features] = {
           Kind::send_and_stay, "<stream:error><bad-format xmlns='urn:ietf:params:xml:ns:xmpp-streams'/></stream:error>"};
     },
     "disconnected bad-format",
     {},
     2},
    {"OlderTlsClientCertificateRefused",
     [](auto &options) {
       options.client_authority = Identities::get().other_authority.certificate();
       options.max_tls_version = TLS1_2_VERSION;
     }},
};

class ClientEnd : public testing::TestWithParam<EndCase> {};

TEST_P(ClientEnd, IsToldOnce) {
  FakeServer::Options options = server_options();
  GetParam().spoil(options);
  expect_end(std::move(options), GetParam().end, false, GetParam().connections, GetParam().table);
}

INSTANTIATE_TEST_SUITE_P(Cases, ClientEnd, testing::ValuesIn(kEndCases), [](const auto &test) { return test.param.name; });

TEST(ClientEnds, NobodyListens) {
  std::string host;
  {
    const FakeServer gone(server_options());
    host = gone.host();
  }
  const FakeServer good(server_options());
  TestClient client(client_settings());
  for (const std::string &nowhere : {host, std::string("no-such-host.invalid")}) {
    ASSERT_TRUE(client.connect(nowhere));
    ASSERT_TRUE(client.wait_for("disconnected", nowhere == host ? 1 : 2)) << client.all();
  }
  ASSERT_NO_FATAL_FAILURE(establish(client, good));
  EXPECT_EQ((Records{"disconnected", "disconnected", std::string("connected ") + kJid}), client.records());
}

// A link that falls silent ends; one whose server answers the probe stays.
TEST(ClientEnds, ASilentLinkIsProbed) {
  FakeServer::Options deaf = server_options();
  deaf.answers_pings = false;
  const FakeServer silent(std::move(deaf)), lively(server_options());
  const Table table = {{"idle_probe_seconds", "1"}};
  const auto is_probe = [](const Element &stanza) { return stanza.child("ping") != nullptr; };
  TestClient lost(client_settings(table)), kept(client_settings(table));
  ASSERT_NO_FATAL_FAILURE(establish(kept, lively));
  ASSERT_NO_FATAL_FAILURE(establish(lost, silent));
  ASSERT_TRUE(lost.track(kRequest, "question", 60));
  ASSERT_TRUE(lost.wait_for("disconnected")) << lost.all();
  EXPECT_EQ((Records{std::string("connected ") + kJid, "question: none", "disconnected"}), lost.records());
  EXPECT_TRUE(silent.wait_for_stanza(is_probe));
  const auto probes = [&] {
    const std::vector<Element> all = lively.stanzas();
    return std::count_if(all.begin(), all.end(), is_probe);
  };
  EXPECT_TRUE(test_support::wait_for([&] { return probes() >= 3; }));
  EXPECT_EQ(Records{std::string("connected ") + kJid}, kept.records());
}

// The domain in it is any text that the application configured.
TEST(ClientEnds, TheProbeIsWellFormedWhateverTheDomainIs) {
  FakeServer::Options options = server_options();
  options.domain = "grid'\"<&>.test";
  options.certificate = Identities::get().authority.server({.addresses = {"127.0.0.1"}});
  const FakeServer server(std::move(options));
  test_support::ClientSettings settings = client_settings({{"idle_probe_seconds", "1"}});
  settings.domain = server.options().domain;
  TestClient client(std::move(settings));
  ASSERT_NO_FATAL_FAILURE(establish(client, server));
  Element probe;
  ASSERT_TRUE(server.wait_for_stanza([](const Element &stanza) { return stanza.child("ping") != nullptr; }, &probe))
      << client.all();
  EXPECT_EQ(server.options().domain, probe.attribute("to"));
  EXPECT_EQ(Records{std::string("connected ") + kJid}, client.records());
}

// Long before it would do so by itself.
TEST(ClientEnds, IsNotSilentForLongerThanTheServerAllows) {
  FakeServer::Options options = server_options();
  options.idle_seconds = 1;
  const FakeServer server(std::move(options));
  TestClient client(client_settings({{"idle_probe_seconds", "3600"}}));
  ASSERT_NO_FATAL_FAILURE(establish(client, server));
  const unsigned before = server.records();
  EXPECT_TRUE(test_support::wait_for([&] { return server.records() >= before + 3; }));
  EXPECT_EQ(0u, server.stanzas().size());
}

}  // namespace

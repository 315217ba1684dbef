// What the scripted peer is believed to do is seen to happen, by a client that does nothing of its own accord.
#include <gtest/gtest.h>

#include "client_session.h"

namespace testpeer {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

TEST(ScriptedPeer, EstablishesASession) {
  Options options = correct();
  options.max_bytes = 10'000;
  const ScriptedPeer peer(options);
  RawClient client(peer.port());
  ASSERT_TRUE(come_to(Stage::stream_open_sasl, client));
  EXPECT_NE(std::string::npos, client.read_until(kFeaturesEnd).find("<max-bytes>10000</max-bytes>"));
  client.send(kBind);
  EXPECT_NE(std::string::npos, client.read_until("</iq>").find("<jid>user@grid.quillon.internal/qlk</jid>"));
  ASSERT_TRUE(peer.wait_established(10s));
  client.send(std::string(kPing) + "</stream:stream>");
  EXPECT_NE(std::string::npos, client.read_all().find("<iq type='result' id='p1'"));
  EXPECT_TRUE(client.ended_in_order());
  EXPECT_TRUE(peer.wait_for_stanza([](const Stanza &stanza) { return stanza.attribute("id") == "p1"; }, 10s));

  const Transcript seen = peer.newest()->transcript();
  EXPECT_EQ("TLSv1.3", seen.tls.version);
  EXPECT_EQ(kDomain, seen.tls.server_name);
  EXPECT_EQ("emailAddress=user@grid.quillon.internal,CN=user", seen.tls.client_subject);
  EXPECT_TRUE(seen.tls.client_verified);
  EXPECT_EQ("EXTERNAL", seen.sasl_mechanism);
  EXPECT_EQ("user", seen.sasl_response);
  EXPECT_EQ(std::string(kHead) + kStartTls + kHead + kAuth + kHead + kBind + kPing + "</stream:stream>", seen.received);
  EXPECT_EQ(std::vector<std::string>(), seen.violations);
  EXPECT_TRUE(seen.is_closed_by_client);
}

TEST(ScriptedPeer, TakesRequestsTogetherWithTheHead) {
  const ScriptedPeer peer(correct());
  RawClient client(peer.port());
  client.send(std::string(kHead) + kStartTls);
  client.read_until("<proceed xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>");
  ASSERT_TRUE(shake_hands(client));
  client.send(std::string(kHead) + kAuth);
  client.read_until("</success>");
  client.send(std::string(kHead) + kBind + kPing);
  EXPECT_NE(std::string::npos, client.read_until("id='p1' to='user@grid.quillon.internal/qlk'></iq>").find("id='b1'"));
  const Transcript seen = peer.newest()->transcript();
  EXPECT_EQ(1U, seen.at(Stage::stream_open).segments);
  EXPECT_EQ(0U, seen.at(Stage::starttls).segments);
  // Plain head, hello, the rest of the handshake with the second head, the third head.
  EXPECT_EQ(4U, seen.flights());
  EXPECT_TRUE(seen.is_established);
}

TEST(ScriptedPeer, UnderstandsAndSpeaksByteByByte) {
  Options options = correct();
  options.chunk_size = 1;
  const ScriptedPeer peer(options);
  RawClient client(peer.port());
  ASSERT_TRUE(come_to(Stage::stream_open_sasl, client));
  const unsigned before = client.pieces();
  const std::string answer = client.read_until(kFeaturesEnd);
  EXPECT_EQ(answer.size(), client.pieces() - before);
  for (const char byte : std::string_view(kBind)) client.send({&byte, 1});
  EXPECT_NE(std::string::npos, client.read_until("</iq>").find("/qlk</jid>"));
}

TEST(ScriptedPeer, ListensOnIpv6) {
  Options options = correct();
  options.ipv6 = true;
  options.faults.emplace(Stage::established, Fault::insert("<message>{host}</message>"));
  const ScriptedPeer peer(options);
  EXPECT_EQ("[::1]:" + std::to_string(peer.port()), peer.host());
  RawClient client(peer.port(), true);
  ASSERT_TRUE(come_to(Stage::established, client));
  EXPECT_EQ("<message>" + peer.host() + "</message>", client.read_until("</message>"));
}

// ---- Faults

class AtEachStage : public testing::TestWithParam<Stage> {};

// As come_to, for a server that will not go on: the handshake is only begun.
bool reach(Stage stage, RawClient &client) {
  if (stage != Stage::tls_handshake) return come_to(stage, client);
  const bool is_there = come_to(Stage::starttls, client) && client.read_until("/>").ends_with("/>");
  client.send("hello");
  return is_there;
}

TEST_P(AtEachStage, IsSilent) {
  const ScriptedPeer peer(with(GetParam(), Fault::silent()));
  RawClient client(peer.port());
  ASSERT_TRUE(reach(GetParam(), client));
  if (GetParam() == Stage::features) client.read_until("from='grid.quillon.internal'>");
  if (GetParam() == Stage::established) {
    EXPECT_TRUE(peer.wait_for_stanza([](const Stanza &) { return true; }, 10s));
  }
  EXPECT_TRUE(client.hears_nothing(20)) << client.read_all();
}

TEST_P(AtEachStage, Resets) {
  const ScriptedPeer peer(with(GetParam(), Fault::reset()));
  RawClient client(peer.port());
  come_to(GetParam(), client);
  client.read_all();
  EXPECT_TRUE(client.was_reset() || GetParam() == Stage::tls_handshake);  // there it is the handshake that fails
  EXPECT_TRUE(peer.wait_all_ended(10s));
}

TEST_P(AtEachStage, Closes) {
  const ScriptedPeer peer(with(GetParam(), Fault::delay(1ms).then(Fault::close()).times(1)));
  {
    RawClient client(peer.port());
    come_to(GetParam(), client);
    client.read_all();
    EXPECT_TRUE(client.ended_in_order() || GetParam() == Stage::tls_handshake);
  }
  EXPECT_TRUE(peer.wait_all_ended(10s));
  RawClient second(peer.port());
  EXPECT_TRUE(come_to(Stage::established, second));
}

TEST_P(AtEachStage, EndsWhileItWaits) {
  for (const Fault &fault : {Fault::silent(), Fault::delay(1h), Fault::stop_reading(), Fault::half_close()}) {
    auto peer = std::make_unique<ScriptedPeer>(with(GetParam(), fault));
    RawClient client(peer->port());
    ASSERT_TRUE(reach(GetParam(), client));
    const auto start = Clock::now();
    peer.reset();
    EXPECT_LT(Clock::now() - start, 5s);
  }
}

INSTANTIATE_TEST_SUITE_P(Stages, AtEachStage,
                         testing::Values(Stage::accept, Stage::stream_open, Stage::features, Stage::starttls,
                                         Stage::tls_handshake, Stage::stream_open_tls, Stage::sasl, Stage::stream_open_sasl,
                                         Stage::bind, Stage::established),
                         [](const auto &one) { return std::string(name_of(one.param)); });

// What a client that comes to a stage is told there, up to the end of the connection or of the text.
struct WordsCase {
  const char *name;
  Stage stage;
  Options (*options)();
  const char *words;
};

const WordsCase kWords[] = {
    {"Replaced", Stage::sasl, [] { return with(Stage::sasl, Fault::say("<odd/>")); }, "<odd/>"},
    {"Inserted", Stage::bind, [] { return with(Stage::bind, Fault::insert("<odd/>")); }, "<odd/><iq type='result' id='b1'>"},
    {"Cut", Stage::bind, [] { return with(Stage::bind, Fault::cut(20).then(Fault::close())); }, "<iq type='result' id"},
    {"HeadWithProlog", Stage::stream_open,
     [] {
       Options it = correct();
       it.prolog = entity_bomb_prolog();
       return it;
     },
     "&e8;'>]><stream:stream xmlns='jabber:client' xmlns:stream='http://etherx.jabber.org/streams' id='s0' version='1.0' "
     "xml:lang='en' from='grid.quillon.internal'>"},
    {"StreamError", Stage::sasl, [] { return with(Stage::sasl, Fault::stream_error("policy-violation", "no")); },
     "<stream:error><policy-violation xmlns='urn:ietf:params:xml:ns:xmpp-streams'></policy-violation>"
     "<text xmlns='urn:ietf:params:xml:ns:xmpp-streams'>no</text></stream:error></stream:stream>"},
    {"StreamErrorAfterAHead", Stage::stream_open,
     [] { return with(Stage::stream_open, Fault::stream_error("see-other-host", "[::1]:9")); },
     "from='grid.quillon.internal'><stream:error><see-other-host xmlns='urn:ietf:params:xml:ns:xmpp-streams'>[::1]:9</see-"},
    {"NoStartTls", Stage::features,
     [] {
       Options it = correct();
       it.offers_starttls = false;
       return it;
     },
     "<stream:features></stream:features>"},
    {"StartTlsFails", Stage::starttls,
     [] {
       Options it = correct();
       it.refuses_starttls = true;
       return it;
     },
     "<failure xmlns='urn:ietf:params:xml:ns:xmpp-tls'/></stream:stream>"},
    {"PlainTextAfterProceed", Stage::starttls,
     [] {
       Options it = correct();
       it.after_proceed = "<evil/>";
       return it;
     },
     "<proceed xmlns='urn:ietf:params:xml:ns:xmpp-tls'/><evil/>"},
    {"NoExternal", Stage::stream_open_tls,
     [] {
       Options it = correct();
       it.mechanisms = {"PLAIN"};
       return it;
     },
     "'><mechanism>PLAIN</mechanism></mechanisms>"},
    {"WrongNamespace", Stage::stream_open,
     [] {
       Options it = correct();
       it.stream_ns = "urn:other";
       return it;
     },
     "xmlns:stream='urn:other'"},
    {"SaslFailure", Stage::sasl,
     [] {
       Options it = correct();
       it.sasl_failure = "not-authorized";
       return it;
     },
     "<failure xmlns='urn:ietf:params:xml:ns:xmpp-sasl'><not-authorized/></failure>"},
    {"SaslChallenge", Stage::sasl,
     [] {
       Options it = correct();
       it.sasl_challenge = "who?";
       return it;
     },
     "<challenge xmlns='urn:ietf:params:xml:ns:xmpp-sasl'>d2hvPw==</challenge>"},
    {"BindError", Stage::bind,
     [] {
       Options it = correct();
       it.bind_error = "conflict";
       return it;
     },
     "<iq type='error' id='b1'><error type='cancel'><conflict xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/>"},
    {"OtherJid", Stage::bind,
     [] {
       Options it = correct();
       it.bound_jid = "a@b/c";
       return it;
     },
     "<jid>a@b/c</jid>"},
};

class Words : public testing::TestWithParam<WordsCase> {};

TEST_P(Words, AreHeard) {
  const ScriptedPeer peer(GetParam().options());
  RawClient client(peer.port());
  ASSERT_TRUE(come_to(GetParam().stage, client));
  const std::string heard = client.read_until(GetParam().words);
  EXPECT_TRUE(heard.ends_with(GetParam().words)) << heard;
}

INSTANTIATE_TEST_SUITE_P(Each, Words, testing::ValuesIn(kWords), [](const auto &one) { return std::string(one.param.name); });

TEST(ScriptedPeer, TruncatesTls) {
  const ScriptedPeer peer(with(Stage::sasl, Fault::truncate()));
  RawClient client(peer.port());
  ASSERT_TRUE(come_to(Stage::sasl, client));
  client.read_all();
  EXPECT_FALSE(client.ended_in_order());
  EXPECT_FALSE(client.was_reset());
}

TEST(ScriptedPeer, ReadsOnAfterItHasClosedItsHalf) {
  const ScriptedPeer peer(with(Stage::established, Fault::half_close()));
  RawClient client(peer.port());
  ASSERT_TRUE(come_to(Stage::bind, client));
  client.read_all();
  EXPECT_TRUE(client.ended_in_order());
  client.send(kPing);
  EXPECT_TRUE(peer.wait_for_stanza([](const Stanza &stanza) { return stanza.child("ping") != nullptr; }, 10s));
}

TEST(ScriptedPeer, ReadsAgainWhenItIsTold) {
  const ScriptedPeer peer(with(Stage::established, Fault::stop_reading()));
  RawClient client(peer.port());
  ASSERT_TRUE(come_to(Stage::established, client));
  EXPECT_TRUE(client.hears_nothing(20));
  EXPECT_TRUE(peer.stanzas().empty());
  peer.newest()->resume_reading();
  EXPECT_NE(std::string::npos, client.read_until("</iq>").find("p1"));
}

// The client hears nothing of what it is told, so that the peer can say no more; it ends nevertheless.
TEST(ScriptedPeer, EndsWhileItWrites) {
  Latch is_writing;
  Options options = correct();
  options.on_stanza = [&](Connection &connection, const Stanza &) {
    is_writing.count_down();
    return connection.send(std::string(64UL * 1024 * 1024, ' '));
  };
  auto peer = std::make_unique<ScriptedPeer>(options);
  RawClient client(peer->port());
  ASSERT_TRUE(come_to(Stage::established, client));
  ASSERT_TRUE(is_writing.wait(10s));
  const auto start = Clock::now();
  const std::shared_ptr<Connection> connection = peer->newest();
  peer.reset();
  EXPECT_LT(Clock::now() - start, 5s);
  EXPECT_TRUE(connection->transcript().is_ended);
  EXPECT_FALSE(connection->send("too late"));
}

TEST(ScriptedPeer, NotesWhatNoClientMayDo) {
  const std::pair<const char *, const char *> cases[] = {{"<a></b>", "not-well-formed"}, {kPing, "not-authorized"}};
  for (const auto &[words, condition] : cases) {
    const ScriptedPeer peer(correct());
    RawClient client(peer.port());
    client.send(std::string(kHead) + words);
    EXPECT_NE(std::string::npos, client.read_all().find(condition));
    EXPECT_EQ(1U, peer.newest()->transcript().violations.size());
  }
  const ScriptedPeer peer(correct());
  RawClient client(peer.port());
  client.send(std::string(kHead) + kAuth);
  EXPECT_NE(std::string::npos, client.read_all().find("<encryption-required/>"));
  EXPECT_EQ(std::vector<std::string>{"SASL in plain"}, peer.newest()->transcript().violations);
}

// ---- Stanzas

std::string grid_request(const std::string &to, const std::string &name) {
  return "<iq type='get' id='g&amp;1' to='" + to + "'><grid xmlns='quillon' type='request'><" + name +
         " xmlns='urn:grid'>text</" + name + "></grid></iq>";
}

TEST(ScriptedPeer, AnswersGridRequests) {
  Options options = correct();
  options.act_as_controller = options.echo_queries = true;
  options.publishers = {"one@d/qlk", "two@d/qlk"};
  options.controller_answers = {{"odd", "<even/>"}};
  const ScriptedPeer peer(options);
  RawClient client(peer.port());
  ASSERT_TRUE(come_to(Stage::bind, client));
  client.read_until("</iq>");
  const std::pair<std::string, std::string> cases[] = {
      {"connectRequest", "<approvalStatus xmlns='urn:grid'>approved</approvalStatus>"},
      {"subscribeRequest", "<jid xmlns='urn:grid'>one@d/qlk</jid><jid xmlns='urn:grid'>two@d/qlk</jid></xmppDetails>"},
      {"initPublishRequest", "<initPublishResponse xmlns='urn:grid'></initPublishResponse></grid>"},
      {"odd", "<grid xmlns='quillon' type='response'><even/></grid>"},
      {"other", "<other xmlns='urn:grid'>text</other>"}};
  for (const auto &[name, words] : cases) {
    client.send(grid_request("controller@grid.quillon.internal/qlk", name));
    EXPECT_NE(std::string::npos, client.read_until("</iq>").find(words)) << name;
  }
  client.send(grid_request("one@d/qlk", "connectRequest"));
  EXPECT_EQ(
      "<iq type='result' id='g&amp;1' to='user@grid.quillon.internal/qlk' from='one@d/qlk'><grid xmlns='quillon' type='response'>"
      "<connectRequest xmlns='urn:grid'>text</connectRequest></grid></iq>",
      client.read_until("</iq>"));
}

TEST(ScriptedPeer, RepliesAsItIsTold) {
  Options options = correct();
  options.on_stanza = [](Connection &connection, const Stanza &stanza) {
    connection.reply(stanza, {.error = "gone", .after = 30ms});
    connection.reply(stanza, {.payload = "<x/>", .id = "other", .from = "a@b", .copies = 2});
    return true;
  };
  const ScriptedPeer peer(options);
  RawClient client(peer.port());
  ASSERT_TRUE(come_to(Stage::established, client));
  const std::string twice = "<iq type='result' id='other' to='user@grid.quillon.internal/qlk' from='a@b'><x/></iq>";
  const std::string error = client.read_until("<gone xmlns='urn:ietf:params:xml:ns:xmpp-stanzas'/></error></iq>");
  EXPECT_EQ(0U, error.find(twice + twice + "<iq type='error' id='p1' to='user@grid.quillon.internal/qlk'><error")) << error;
}

// Grid requests and other stanzas meet faults of their own, and answers of their own.
TEST(ScriptedPeer, MeetsRequestsAsItIsTold) {
  Options options = correct();
  options.act_as_controller = options.echo_queries = true;
  options.request_faults = {{"cut", Fault::cut(9).then(Fault::insert("<a id='{id}' to='{jid}'/>"))},
                            {"presence", Fault::insert("<presence/>").times(1)},
                            {"gone", Fault::close()}};
  options.request_replies = {{"odd", {.error = "gone", .from = ""}}, {"mute", {.copies = 0}}};
  const ScriptedPeer peer(options);
  RawClient client(peer.port());
  ASSERT_TRUE(come_to(Stage::bind, client));
  client.read_until("</iq>");
  client.send("<presence/><presence/>" + grid_request("a@b", "mute") + grid_request("a@b", "cut"));
  EXPECT_EQ("<presence/><iq type=<a id='g&amp;1' to='user@grid.quillon.internal/qlk'/>", client.read_until("qlk'/>"));
  client.send(grid_request("a@b", "odd"));
  EXPECT_EQ("<iq type='error' id='g&amp;1' to='user@grid.quillon.internal/qlk'><error", client.read_until("<error"));
  peer.notify("<news xmlns='urn:grid'/>");
  const std::string notification =
      "<message from='controller@grid.quillon.internal/qlk' to='user@grid.quillon.internal/qlk'>"
      "<grid xmlns='quillon' type='notification'><news xmlns='urn:grid'/></grid></message>";
  EXPECT_TRUE(client.read_until("</message>").ends_with(notification));
  client.send(grid_request("a@b", "gone"));
  EXPECT_EQ("", client.read_all());
  EXPECT_TRUE(client.ended_in_order());
}

TEST(ScriptedPeer, CutsWhateverItSays) {
  Options options = correct();
  options.cut_at = 3;
  const ScriptedPeer peer(options);
  RawClient client(peer.port());
  ASSERT_TRUE(come_to(Stage::bind, client));
  const unsigned before = client.pieces();
  EXPECT_TRUE(client.read_until("</iq>").starts_with("<iq type"));
  EXPECT_EQ(2U, client.pieces() - before);
}

TEST(ScriptedPeer, SendsHostileBytesWhole) {
  Options options = correct();
  std::vector<HostileBytes> all = hostile_stanzas();
  options.on_stanza = [&all](Connection &connection, const Stanza &stanza) {
    return connection.send(all.at(std::stoul(stanza.attribute("id"))).bytes() + "<end/>");
  };
  const ScriptedPeer peer(options);
  RawClient client(peer.port());
  ASSERT_TRUE(come_to(Stage::bind, client));
  client.read_until("</iq>");
  for (size_t i = 0; i < all.size(); ++i) {
    client.send("<message id='" + std::to_string(i) + "'/>");
    EXPECT_TRUE(client.read_until("<end/>") == all[i].bytes() + "<end/>") << all[i].name;
  }
  EXPECT_EQ(64UL * 1024 * 1024, large_stanza().size());
  EXPECT_EQ("<message><a><a></a></a></message>", deep_stanza(2));
  EXPECT_EQ("<message a0='' a1=''/>", crowded_stanza(2));
}

TEST(ScriptedPeer, IsLedByTheTest) {
  const ScriptedPeer peer(correct());
  RawClient client(peer.port());
  ASSERT_TRUE(come_to(Stage::established, client));
  client.read_until("</iq>");
  peer.send("<message/>");
  EXPECT_EQ("<message/>", client.read_until("/>"));
  peer.newest()->close_stream();
  EXPECT_EQ("</stream:stream>", client.read_until("</stream:stream>"));
  EXPECT_TRUE(client.hears_nothing(10));  // the connection is the client's until it has answered
  client.send("</stream:stream>");
  EXPECT_EQ("", client.read_all());
  EXPECT_TRUE(client.ended_in_order());

  RawClient second(peer.port());
  ASSERT_TRUE(come_to(Stage::established, second));
  ASSERT_TRUE(peer.wait_established(10s, 2));
  peer.newest()->reset();
  second.read_all();
  EXPECT_TRUE(second.was_reset());
}

// ---- Certificates

}  // namespace
}  // namespace testpeer

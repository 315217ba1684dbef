// Faults while a session is opened: name resolution, TCP, TLS, SASL, binding.
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <future>
#include <thread>

#include "application.h"
#include "black_hole.h"
#include "connection_events.h"
#include "connection_private.h"
#include "stuck_resolver.h"
#include "wait_for.h"

namespace faults {
namespace {

using testpeer::HostileBytes;
using testpeer::ServerIdentity;
using testpeer::TlsNoise;
using testpeer::TlsVersion;
using testpeer::Usage;
using testpeer::Validity;

constexpr Stage kStages[] = {Stage::accept,   Stage::stream_open,      Stage::features,
                             Stage::starttls, Stage::tls_handshake,    Stage::stream_open_tls,
                             Stage::sasl,     Stage::stream_open_sasl, Stage::bind};

struct Row {
  std::string name;
  std::function<Options()> options;
  // What the connect returns, and what disconnect_cb is given.
  QUILLON_STATUS status = QUILLON_STATUS_CONNECTION_ERROR;
  Statuses disconnected = {QUILLON_STATUS_QUILLON_ERROR};
  unsigned opening = kPatient;  // the time-out

  friend void PrintTo(const Row &row, std::ostream *out) { *out << row.name; }
};

Row survived(std::string name, std::function<Options()> options) {
  return {.name = std::move(name), .options = std::move(options), .status = QUILLON_STATUS_OK, .disconnected = {}};
}

// A correct server that was changed in one point.
template <typename Change>
std::function<Options()> changed(Change change) {
  return [change] {
    Options options = correct();
    change(options);
    return options;
  };
}

class Opening : public FaultTest, public testing::WithParamInterface<Row> {};

TEST_P(Opening, EndsAsItShould) {
  const Row &row = GetParam();
  auto peer = std::make_unique<ScriptedPeer>(row.options());
  application_.use(peer->host());
  application_.allow(row.opening, kPatient);
  const Stopwatch stopwatch;
  EXPECT_EQ(row.status, application_.connect()) << application_.log();
  EXPECT_LT(stopwatch.passed(), kSoon);
  EXPECT_EQ(row.status == QUILLON_STATUS_OK, application_.is_connected());
  EXPECT_EQ(row.disconnected, application_.seen().disconnected);
  EXPECT_EQ(row.status == QUILLON_STATUS_OK ? 1U : 0U, application_.seen().connected);
  EXPECT_EQ(Statuses(), application_.seen().account);
  EXPECT_GT(peer->connections(), 0U);
  if (row.status == QUILLON_STATUS_OK) {
    EXPECT_EQ(QUILLON_STATUS_OK, application_.ask());
    EXPECT_EQ(QUILLON_STATUS_OK, application_.disconnect());
  }
  expect_recovery(std::move(peer));
}

// ---- Each stage

std::vector<Row> rows_of_stages() {
  struct Kind {
    const char *name;
    Fault fault;
    unsigned opening = kPatient;
  };
  const Kind kinds[] = {{"Silent", Fault::silent(), kImpatient},
                        {"Closes", Fault::close()},
                        {"Truncates", Fault::truncate()},
                        {"Resets", Fault::reset()},
                        {"ClosesItsHalf", Fault::half_close()},
                        {"IsCutThenSilent", Fault::cut(30).then(Fault::silent()), kImpatient},
                        {"IsCutThenCloses", Fault::cut(30).then(Fault::close())},
                        {"Babbles", Fault::say("<odd xmlns='urn:odd'/></never-opened>")}};
  std::vector<Row> rows;
  for (const Stage stage : kStages) {
    const std::string prefix = std::string(name_of(stage)) + "_";
    for (const Kind &kind : kinds) {
      rows.push_back({.name = prefix + kind.name,
                      .options = [stage, fault = kind.fault] { return with(stage, fault); },
                      .opening = kind.opening});
    }
    rows.push_back(survived(prefix + "Late", [stage] { return with(stage, Fault::delay(50ms)); }));
    if (stage == Stage::tls_handshake) continue;  // there is no way to say anything then
    rows.push_back({.name = prefix + "StreamError",
                    .options = [stage] { return with(stage, Fault::stream_error("internal-server-error", "sorry")); },
                    .disconnected = {QUILLON_STATUS_CONNECTION_ERROR_XMPP}});
    rows.push_back({.name = prefix + "NotAuthorized",
                    .options = [stage] { return with(stage, Fault::stream_error("not-authorized")); },
                    .disconnected = {QUILLON_STATUS_CONNECTION_ERROR_NOT_AUTHORIZED}});
    rows.push_back({.name = prefix + "RemoteConnectionFailed",
                    .options = [stage] { return with(stage, Fault::stream_error("remote-connection-failed")); },
                    .disconnected = {QUILLON_STATUS_CONNECTION_ERROR_REMOTE_CONNECTION_FAILURE}});
    rows.push_back({.name = prefix + "SeeOtherHostInACircle",
                    .options = [stage] { return with(stage, Fault::stream_error("see-other-host", "{host}")); },
                    .disconnected = {QUILLON_STATUS_CONNECTION_ERROR_XMPP}});
    rows.push_back(survived(prefix + "SeeOtherHostOnce",
                            [stage] { return with(stage, Fault::stream_error("see-other-host", "{host}").times(1)); }));
  }
  return rows;
}

INSTANTIATE_TEST_SUITE_P(Stages, Opening, testing::ValuesIn(rows_of_stages()), kNameOfRow);

// ---- TLS

std::vector<Row> rows_of_tls() {
  const auto certificate = [](const ServerIdentity &identity) {
    return changed([identity](Options &options) { options.certificate = Identities::get().authority.server(identity); });
  };
  return {
      survived("WithoutUsage", certificate({.names = {GRID_DOMAIN}, .usage = Usage::none})),
      survived("OfAnAuthorityBelow", certificate({.names = {GRID_DOMAIN}, .intermediates = 3})),
      {"OfAChainThatIsTooLong", certificate({.names = {GRID_DOMAIN}, .intermediates = 120})},
      {"OfAChainOfMoreThan100KiB", certificate({.names = {GRID_DOMAIN}, .intermediates = 280})},
      {"Expired", certificate({.names = {GRID_DOMAIN}, .validity = Validity::expired})},
      {"NotYetValid", certificate({.names = {GRID_DOMAIN}, .validity = Validity::not_yet})},
      {"SelfSigned", certificate({.names = {GRID_DOMAIN}, .self_signed = true})},
      {"OfAnotherAuthority", changed([](Options &it) { it.certificate = Identities::get().other.server(GRID_DOMAIN); })},
      {"OfAnotherName", certificate({.names = {"other." GRID_DOMAIN}})},
      {"OfTheNameBeforeADot", certificate({.names = {GRID_DOMAIN ".example"}})},
      {"OfAnotherAddress", certificate({.addresses = {"127.0.0.2"}})},
      {"WithTheNameInTheSubjectOnly", certificate({.names = {"other"}, .common_name = GRID_DOMAIN})},
      {"ForClients", certificate({.names = {GRID_DOMAIN}, .usage = Usage::client})},
      {"ForCode", certificate({.names = {GRID_DOMAIN}, .usage = Usage::other})},
      {"None", changed([](Options &it) { it.certificate = {}; })},
      {"RefusesTheClientsCertificate", changed([](Options &it) { it.client_authority = Identities::get().other.certificate(); })},
      {"Tls11Only", changed([](Options &it) { it.tls_version_min = it.tls_version_max = TlsVersion::tls_1_1; })},
      survived("Tls12Only", changed([](Options &it) { it.tls_version_max = TlsVersion::tls_1_2; })),
      {"NoStartTls", changed([](Options &it) { it.offers_starttls = false; })},
      {"NoStartTlsButMechanisms", changed([](Options &it) {
         it.offers_starttls = false;
         it.offers_mechanisms_before_tls = true;
       })},
      survived("MechanismsBeforeTls", changed([](Options &it) { it.offers_mechanisms_before_tls = true; })),
      {"StartTlsRefused", changed([](Options &it) { it.refuses_starttls = true; })},
      survived("KeyUpdates", [] { return with(Stage::sasl, Fault::tls(TlsNoise::key_updates, 500)); }),
      {"KeyUpdatesWithoutEnd", [] { return with(Stage::sasl, Fault::tls(TlsNoise::key_updates)); }},
      survived("SessionTickets", [] { return with(Stage::sasl, Fault::tls(TlsNoise::session_tickets, 20)); }),
      {"Renegotiation", changed([](Options &it) {
         it.tls_version_max = TlsVersion::tls_1_2;
         it.faults.emplace(Stage::sasl, Fault::tls(TlsNoise::renegotiations, 1));
       })},
      {"EmptyRecordsInTheHandshake",
       [] {
         std::string empty;
         for (int i = 0; i < 10'000; ++i) empty.append("\x16\x03\x03\0\0", 5);
         return with(Stage::tls_handshake, Fault::say(empty));
       }},
  };
}

INSTANTIATE_TEST_SUITE_P(Tls, Opening, testing::ValuesIn(rows_of_tls()), kNameOfRow);

// What comes in plain together with <proceed/> could be an attacker's: none of it is taken for the server's word.
TEST_F(FaultTest, PlainTextAfterProceedIsNotTrusted) {
  Options options = correct();
  options.after_proceed =
      "<stream:features xmlns:stream='http://etherx.jabber.org/streams'><mechanisms xmlns='urn:ietf:params:xml:ns:xmpp-sasl'>"
      "<mechanism>PLAIN</mechanism></mechanisms></stream:features>";
  auto peer = std::make_unique<ScriptedPeer>(options);
  application_.use(peer->host());
  EXPECT_EQ(QUILLON_STATUS_OK, application_.connect()) << application_.log();
  EXPECT_EQ("EXTERNAL", peer->newest()->transcript().sasl_mechanism);
  EXPECT_EQ(Statuses(), application_.seen().disconnected);
  application_.disconnect();
  expect_recovery(std::move(peer));
}

// What it tells the server besides the certificate.
TEST_F(FaultTest, TheSaslResponseIsWhatWasChosen) {
  const std::pair<QUILLON_SASL_RESPONSE, std::string> kResponses[] = {{QUILLON_SASL_RESPONSE_BARE_JID, "alice@" GRID_DOMAIN},
                                                                      {QUILLON_SASL_RESPONSE_NONE, ""},
                                                                      {QUILLON_SASL_RESPONSE_USER_NAME, "alice"}};
  for (const auto &[response, expected] : kResponses) {
    const ScriptedPeer peer(correct());
    application_.use(peer.host());
    ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_sasl_response(application_.config(), response));
    EXPECT_EQ(QUILLON_STATUS_OK, application_.connect()) << application_.log();
    EXPECT_EQ(expected, peer.newest()->transcript().sasl_response) << response;
    EXPECT_EQ("alice@" GRID_DOMAIN "/qlk", peer.newest()->jid());
    application_.disconnect();
  }
}

void check_revocations(quillon_connection *connection, void *tls_context, void *) {
  qlk::_default_ssl_ctx_cb(connection, tls_context, nullptr);
  X509_STORE *store = SSL_CTX_get_cert_store(static_cast<SSL_CTX *>(tls_context));
  X509_STORE_load_file(store, Identities::get().authority.revocations().c_str());
  X509_STORE_set_flags(store, X509_V_FLAG_CRL_CHECK);
}

// An application that wants revocations to be checked does so in its TLS-context callback.
TEST_F(FaultTest, ARevokedCertificateIsRefused) {
  Options options = correct();
  options.certificate = Identities::get().authority.server(GRID_DOMAIN);
  quillon_connection_set_ssl_ctx_cb(application_.connection(), check_revocations);
  auto peer = std::make_unique<ScriptedPeer>(options);
  application_.use(peer->host());
  EXPECT_EQ(QUILLON_STATUS_OK, application_.connect()) << application_.log();
  EXPECT_EQ(QUILLON_STATUS_OK, application_.disconnect());
  Identities::get().authority.revoke(options.certificate);
  EXPECT_EQ(QUILLON_STATUS_CONNECTION_ERROR, application_.connect());
  EXPECT_EQ((Statuses{QUILLON_STATUS_CONNECTION_ERROR, QUILLON_STATUS_QUILLON_ERROR}), application_.seen().disconnected);
  expect_recovery(std::move(peer));
}

// The same from the other side: the server refuses the client, in TLS 1.3 only after the client believes itself connected.
TEST_F(FaultTest, ARevokedClientIsToldSo) {
  for (const TlsVersion version : {TlsVersion::tls_1_2, TlsVersion::tls_1_3}) {
    testpeer::CertificateAuthority authority;
    Options options = correct();
    const testpeer::Credentials client = authority.client("alice", GRID_DOMAIN);
    authority.revoke(client);
    options.client_authority = authority.certificate();
    options.client_revocations = authority.revocations();
    options.needs_client_certificate = true;
    options.tls_version_max = version;
    quillon_config_set_client_cert_chain_filename(application_.config(), client.certificate.c_str());
    quillon_config_set_client_cert_key_filename(application_.config(), client.key.c_str());
    const ScriptedPeer peer(options);
    application_.use(peer.host());
    EXPECT_EQ(QUILLON_STATUS_CONNECTION_ERROR, application_.connect());
    // The peer notes it after the alert that we have seen.
    EXPECT_TRUE(test_support::wait_for([&] { return peer.newest()->transcript().tls_error == "certificate verify failed"; }));
    EXPECT_NE(std::string::npos, application_.log().find("revoked")) << application_.log();
  }
  EXPECT_EQ(Statuses(2, QUILLON_STATUS_QUILLON_ERROR), application_.seen().disconnected);
  const testpeer::Credentials &good = Identities::get().client;
  quillon_config_set_client_cert_chain_filename(application_.config(), good.certificate.c_str());
  quillon_config_set_client_cert_key_filename(application_.config(), good.key.c_str());
  expect_recovery();
}

// ---- SASL, binding, streams

std::vector<Row> rows_of_negotiation() {
  std::vector<Row> rows = {
      {"NoExternal", changed([](Options &it) {
         it.mechanisms = {"PLAIN", "SCRAM-SHA-1"};
       })},
      {"NoMechanism", changed([](Options &it) { it.mechanisms = {}; })},
      survived("ManyMechanisms", changed([](Options &it) {
                 it.mechanisms = {"PLAIN", "EXTERNAL"};
               })),
      survived("SuccessWithData", changed([](Options &it) { it.sasl_success_data = "welcome"; })),
      {"Challenge", changed([](Options &it) { it.sasl_challenge = "who are you?"; })},
      {"NoBinding", changed([](Options &it) { it.offers_bind = false; })},
      {"BindingConflicts", changed([](Options &it) { it.bind_error = "conflict"; })},
      {"BoundToAnotherUser", changed([](Options &it) { it.bound_jid = "mallory@" GRID_DOMAIN "/qlk"; })},
      {"BoundToAnotherDomain", changed([](Options &it) { it.bound_jid = "alice@example.org/qlk"; })},
      {"BoundToNoAddress", changed([](Options &it) { it.bound_jid = "/"; })},
      {"OtherStreamNamespace", changed([](Options &it) { it.stream_ns = "urn:other"; })},
      {"OtherContentNamespace", changed([](Options &it) { it.content_ns = "jabber:server"; })},
      {"EntityBombBeforeTheHead", changed([](Options &it) { it.prolog = testpeer::entity_bomb_prolog(); })},
      {"DocumentTypeBeforeTheHead", changed([](Options &it) { it.prolog = "<!DOCTYPE stream>"; })},
      {"CommentBeforeTheHead", changed([](Options &it) { it.prolog = "<!-- nothing -->"; })},
      {"OtherEncoding", changed([](Options &it) { it.prolog = "<?xml version='1.0' encoding='ISO-8859-1'?>"; })},
      {"NoXml", changed([](Options &it) { it.prolog = "HTTP/1.1 400 Bad Request\r\n\r\n"; })},
      survived("NoXmlDeclaration", changed([](Options &it) { it.prolog = ""; })),
      survived("OneByteAtATime", changed([](Options &it) { it.chunk_size = 1; })),
  };
  for (const char *condition : {"aborted", "account-disabled", "credentials-expired", "encryption-required", "incorrect-encoding",
                                "invalid-authzid", "invalid-mechanism", "malformed-request", "mechanism-too-weak",
                                "not-authorized", "temporary-auth-failure", "of-our-own-making"}) {
    std::string name = std::string("SaslFails_") + condition;
    std::replace(name.begin(), name.end(), '-', '_');
    rows.push_back({name, changed([condition](Options &it) { it.sasl_failure = condition; })});
  }
  const auto elsewhere = [&rows](const std::string &name, const std::string &host, QUILLON_STATUS end) {
    rows.push_back({.name = "SeeOtherHost_" + name,
                    .options = [host] { return with(Stage::features, Fault::stream_error("see-other-host", host)); },
                    .disconnected = {end}});
  };
  elsewhere("Nowhere", "", QUILLON_STATUS_CONNECTION_ERROR_XMPP);
  elsewhere("NoName", "no name", QUILLON_STATUS_CONNECTION_ERROR_XMPP);
  elsewhere("ALongName", std::string(100'000, 'a'), QUILLON_STATUS_QUILLON_ERROR);
  elsewhere("PortZero", "127.0.0.1:0", QUILLON_STATUS_CONNECTION_ERROR_XMPP);
  elsewhere("PortTooLarge", "127.0.0.1:65536", QUILLON_STATUS_CONNECTION_ERROR_XMPP);
  elsewhere("HalfAnIpv6Address", "[::1", QUILLON_STATUS_CONNECTION_ERROR_XMPP);
  elsewhere("AnIpv6AddressWithoutAnybody", "[::1]:1", QUILLON_STATUS_QUILLON_ERROR);
  rows.push_back(survived("SeeOtherHost_AnIpv6Address", changed([](Options &it) {
                            it.ipv6 = true;
                            it.faults.emplace(Stage::features, Fault::stream_error("see-other-host", "{host}").times(1));
                          })));
  for (const HostileBytes &hostile : testpeer::hostile_stanzas()) {
    if (hostile.name == "Large") continue;  // the stages after it see that
    const auto bytes = hostile.bytes;
    rows.push_back({"BeforeTls_" + hostile.name, [bytes] { return with(Stage::features, Fault::say(bytes())); }});
    rows.push_back({"InSasl_" + hostile.name, [bytes] { return with(Stage::sasl, Fault::say(bytes())); }});
  }
  return rows;
}

INSTANTIATE_TEST_SUITE_P(Negotiation, Opening, testing::ValuesIn(rows_of_negotiation()), kNameOfRow);

// Every answer of the opening is cut at the same place, in turn at each: the outcome is always the same. The rows share the
// places.
constexpr size_t kShares = 8, kPlaces = 320;

class Cutting : public FaultTest, public testing::WithParamInterface<size_t> {};

TEST_P(Cutting, ChangesNothing) {
  for (size_t at = GetParam(); at <= kPlaces; at += kShares) {
    Options options = correct();
    options.cut_at = at;
    const ScriptedPeer peer(options);
    application_.use(peer.host());
    ASSERT_EQ(QUILLON_STATUS_OK, application_.connect()) << at << "\n" << application_.log();
    ASSERT_EQ(QUILLON_STATUS_OK, application_.ask()) << at;
    ASSERT_EQ(QUILLON_STATUS_OK, application_.disconnect());
  }
  expect_recovery();
}

INSTANTIATE_TEST_SUITE_P(EveryPlace, Cutting, testing::Range<size_t>(1, kShares + 1));

// ---- Before the server has anything to say

class Socket {
 public:
  Socket() : descriptor_(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(descriptor_, reinterpret_cast<sockaddr *>(&address_), sizeof address_);
    socklen_t length = sizeof address_;
    getsockname(descriptor_, reinterpret_cast<sockaddr *>(&address_), &length);
  }
  ~Socket() { close(descriptor_); }
  Socket(const Socket &) = delete;
  Socket &operator=(const Socket &) = delete;

  void listen_to_one() { listen(descriptor_, 0); }
  void connect_to(const Socket &other) {
    connect(descriptor_, reinterpret_cast<const sockaddr *>(&other.address_), sizeof other.address_);
  }
  std::string host() const { return "127.0.0.1:" + std::to_string(ntohs(address_.sin_port)); }

 private:
  int descriptor_;
  sockaddr_in address_ = {};
};

TEST_F(FaultTest, NobodyListens) {
  {
    const Socket socket;
    application_.use(socket.host());
    EXPECT_EQ(QUILLON_STATUS_CONNECTION_ERROR, application_.connect());
  }
  EXPECT_EQ(Statuses{QUILLON_STATUS_QUILLON_ERROR}, application_.seen().disconnected);
  expect_recovery();
}

// The queue of connections that wait to be accepted is full, and the system drops what comes: as a machine that is gone.
TEST_F(FaultTest, TcpIsNotAnswered) {
  {
    Socket listener;
    listener.listen_to_one();
    Socket waiting[4];
    for (Socket &one : waiting) one.connect_to(listener);
    application_.use(listener.host());
    application_.allow(kImpatient, kPatient);
    const Stopwatch stopwatch;
    EXPECT_EQ(QUILLON_STATUS_CONNECTION_ERROR, application_.connect());
    EXPECT_LT(stopwatch.passed(), kSoon);
  }
  EXPECT_EQ(Statuses{QUILLON_STATUS_QUILLON_ERROR}, application_.seen().disconnected);
  expect_recovery();
}

// However the system resolves names, and however long that takes, the time-out holds. The look-up ends by itself.
TEST_F(FaultTest, TheNameIsNotKnown) {
  application_.use("no-such-host.invalid:5222");
  application_.allow(kImpatient, kPatient);
  const Stopwatch stopwatch;
  EXPECT_EQ(QUILLON_STATUS_CONNECTION_ERROR, application_.connect());
  EXPECT_LT(stopwatch.passed(), kSoon);
  EXPECT_EQ(Statuses{QUILLON_STATUS_QUILLON_ERROR}, application_.seen().disconnected);
  expect_recovery();
}

// ---- The application loses patience first

class Abandoned;

// Where a connect is when it gets no further.
struct Place {
  std::string name;
  void (*begin)(Abandoned &, Stage);
  Stage stage = Stage::accept;

  friend void PrintTo(const Place &place, std::ostream *out) { *out << place.name; }
};

class Abandoned : public FaultTest, public testing::WithParamInterface<Place> {
 public:
  // The name is being looked up.
  void look_up() {
    threads_ = Resources::now().threads;
    stuck_ = std::make_unique<test_support::Stuck>();
    connect_to(test_support::StuckResolver::kName + std::string(":5222"));
    ASSERT_TRUE(testpeer::eventually(kSoon, [] { return test_support::StuckResolver::get().waiting() > 0; }));
  }
  // TCP has knocked, and nobody answers.
  void knock() {
    hole_ = std::make_unique<test_support::BlackHole>();
    const size_t before = hole_->knocking();
    connect_to(hole_->host());
    ASSERT_TRUE(testpeer::eventually(kSoon, [&] { return hole_->knocking() > before; }));
  }
  // The server is silent there.
  void come_to(Stage stage) {
    peer_ = std::make_unique<ScriptedPeer>(with(stage, Fault::silent()));
    connect_to(peer_->host());
    ASSERT_TRUE(peer_->wait_connections(1, kSoon));
    if (stage == Stage::accept || stage == Stage::tls_handshake) return;
    // It has heard the last answer before, and said what it says next.
    ASSERT_TRUE(peer_->newest()->wait_until(
        [stage](const testpeer::Transcript &seen) { return !seen.at(stage).received.empty() || !seen.received.empty(); }, kSoon));
  }

 protected:
  void begin() { GetParam().begin(*this, GetParam().stage); }
  // What held the connect is there until now, and the look-up's thread with it.
  void let_go() {
    hole_.reset();
    if (stuck_ == nullptr) return;
    stuck_.reset();
    EXPECT_TRUE(testpeer::eventually(kSoon, [this] { return Resources::now().threads <= threads_; }));
  }

  std::unique_ptr<ScriptedPeer> peer_;
  std::thread connecting_;
  std::atomic<QUILLON_STATUS> status_ = QUILLON_STATUS_MAX;

 private:
  void connect_to(const std::string &host) {
    application_.use(host);
    connecting_ = std::thread([this] { status_ = application_.connect(); });
  }

  size_t threads_ = 0;  // before the look-up
  std::unique_ptr<test_support::Stuck> stuck_;
  std::unique_ptr<test_support::BlackHole> hole_;
};

TEST_P(Abandoned, ByDisconnecting) {
  begin();
  const Stopwatch stopwatch;
  EXPECT_EQ(QUILLON_STATUS_OK, application_.disconnect());
  connecting_.join();
  EXPECT_LT(stopwatch.passed(), kSoon);
  EXPECT_EQ(QUILLON_STATUS_CONNECTION_ERROR, status_);
  EXPECT_EQ(Statuses{QUILLON_STATUS_QUILLON_ERROR}, application_.seen().disconnected);
  let_go();
  expect_recovery(std::move(peer_));
}

TEST_P(Abandoned, ByDestroyingTheConnection) {
  begin();
  const Stopwatch stopwatch;
  application_.destroy_connection();
  connecting_.join();
  EXPECT_LT(stopwatch.passed(), kSoon);
  EXPECT_EQ(QUILLON_STATUS_CONNECTION_ERROR, status_);
  EXPECT_EQ(Statuses(), application_.seen().disconnected);
  EXPECT_EQ(0U, application_.seen().connected);
  EXPECT_TRUE(peer_ == nullptr || peer_->wait_all_ended(kSoon));
  let_go();
}

std::vector<Place> places() {
  std::vector<Place> all = {{"lookup", [](Abandoned &it, Stage) { it.look_up(); }},
                            {"tcp", [](Abandoned &it, Stage) { it.knock(); }}};
  for (const Stage stage : kStages) all.push_back({name_of(stage), [](Abandoned &it, Stage at) { it.come_to(at); }, stage});
  return all;
}

INSTANTIATE_TEST_SUITE_P(Stages, Abandoned, testing::ValuesIn(places()), kNameOfRow);

// Behind its last look at whether the connection is still there, where its log holds the connect up.
TEST_F(FaultTest, ADestroyJustBeforeTheSessionBeginsIsNoFaultOfTheHost) {
  static testpeer::Latch is_there, may_go_on;
  quillon_log_set_callback([](const char *format, va_list) {
    if (std::string_view(format).starts_with("connecting to host")) {
      is_there.count_down();
      may_go_on.wait(kSoon);
    }
    return 0;
  });
  application_.use("127.0.0.1:9");
  quillon_connection *const connection = application_.connection();
  const qlk::ConnectionHold hold(*connection);
  auto status = std::async(std::launch::async, [&] { return quillon_connection_connect(connection); });
  EXPECT_TRUE(is_there.wait(kSoon));
  auto destroyed = std::async(std::launch::async, [this] { application_.destroy_connection(); });
  EXPECT_TRUE(testpeer::eventually(kSoon, [&] { return !connection->extra->gate->is_open(); }));
  may_go_on.count_down();
  EXPECT_EQ(QUILLON_STATUS_CONNECTION_ERROR, status.get());
  destroyed.get();
}

}  // namespace
}  // namespace faults

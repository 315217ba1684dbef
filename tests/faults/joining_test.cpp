// Faults while the connection joins the grid: its presence, its request to be admitted, an account that is pending. And while it
// is a member: a subscription, and a query under way.
#include <algorithm>
#include <atomic>
#include <thread>

#include "application.h"
#include "connection_events.h"
#include "quillon_query.h"

namespace faults {
namespace {

using testpeer::Reply;
using testpeer::TlsNoise;
using testpeer::TlsVersion;

constexpr char kConnect[] = "connectRequest", kSubscribe[] = "subscribeRequest";

std::string response(const std::string &payload) { return "<grid xmlns='quillon' type='response'>" + payload + "</grid>"; }
std::string answer_with(const std::string &payload) {
  return "<iq type='result' id='{id}' from='" CONTROLLER_JID "'>" + response(payload) + "</iq>";
}
std::string decision(const std::string &word) {
  return response("<connectResponse xmlns='" GRID_NS "'><approvalStatus>" + word + "</approvalStatus></connectResponse>");
}

// What the server does with a request, and what becomes of it.
struct Row {
  std::string name;
  Fault fault = Fault::delay(0ms);
  std::optional<Reply> reply = {};
  QUILLON_STATUS status = QUILLON_STATUS_OK;
  Statuses disconnected = {};
  unsigned answer = kPatient;  // the time-out
  Statuses account = {};
  std::string (*hostile)() = nullptr;  // the payload of an answer, instead of the fault
  TlsVersion newest = TlsVersion::tls_1_3;

  Options options(const std::string &request) const {
    Options options = reply ? with_reply(request, *reply) : correct();
    options.request_faults.emplace(request, hostile != nullptr ? Fault::replace(answer_with(hostile())) : fault);
    options.tls_version_max = newest;
    return options;
  }
  friend void PrintTo(const Row &row, std::ostream *out) { *out << row.name; }
};

// The rows that a request of any kind has: the first with the statuses of a request that has no answer, and of the session's end.
std::vector<Row> rows_of_any_request(QUILLON_STATUS ended) {
  constexpr QUILLON_STATUS kNoAnswer = QUILLON_STATUS_SEND_TIMEOUT;
  return {
      {.name = "Ignored", .reply = Reply{.copies = 0}, .status = kNoAnswer, .answer = kImpatient},
      {.name = "Silent", .fault = Fault::silent(), .status = kNoAnswer, .answer = kImpatient},
      {.name = "Late", .fault = Fault::delay(50ms)},
      {.name = "TooLate", .reply = Reply{.after = 1500ms}, .status = kNoAnswer, .answer = kImpatient},
      {.name = "Twice", .reply = Reply{.copies = 2}},
      {.name = "WithAnotherId", .reply = Reply{.id = "other"}, .status = kNoAnswer, .answer = kImpatient},
      {.name = "FromSomebodyElse",
       .reply = Reply{.from = "mallory@" GRID_DOMAIN "/qlk"},
       .status = kNoAnswer,
       .answer = kImpatient},
      {.name = "FromANameThatBeginsTheSame",
       .reply = Reply{.from = CONTROLLER_JID "2"},
       .status = kNoAnswer,
       .answer = kImpatient},
      {.name = "FromNobody", .reply = Reply{.from = ""}, .status = kNoAnswer, .answer = kImpatient},
      {.name = "Closes", .fault = Fault::close(), .status = kNoAnswer, .disconnected = {ended}},
      {.name = "Truncates", .fault = Fault::truncate(), .status = kNoAnswer, .disconnected = {ended}},
      {.name = "Resets", .fault = Fault::reset(), .status = kNoAnswer, .disconnected = {ended}},
      {.name = "ClosesItsHalf", .fault = Fault::half_close(), .status = kNoAnswer, .disconnected = {ended}},
      {.name = "IsCutThenSilent", .fault = Fault::cut(40).then(Fault::silent()), .status = kNoAnswer, .answer = kImpatient},
      {.name = "IsCutThenCloses", .fault = Fault::cut(40).then(Fault::close()), .status = kNoAnswer, .disconnected = {ended}},
      {.name = "NoXml", .fault = Fault::replace("</iq>"), .status = kNoAnswer, .disconnected = {ended}},
      {.name = "DocumentType", .fault = Fault::replace("<!DOCTYPE iq>"), .status = kNoAnswer, .disconnected = {ended}},
      {.name = "StreamError",
       .fault = Fault::stream_error("system-shutdown"),
       .status = kNoAnswer,
       .disconnected = {QUILLON_STATUS_CONNECTION_ERROR_XMPP}},
      {.name = "SeeOtherHost",
       .fault = Fault::stream_error("see-other-host", "{host}"),
       .status = kNoAnswer,
       .disconnected = {QUILLON_STATUS_CONNECTION_ERROR_XMPP}},
  };
}

// What answers of the wrong kind make of a question to the controller.
std::vector<Row> rows_of_wrong_answers() {
  return {
      {.name = "Error", .reply = Reply{.error = "service-unavailable"}, .status = QUILLON_STATUS_XMPP_ERROR},
      {.name = "ErrorOfItsOwn", .reply = Reply{.error = "no-such-condition"}, .status = QUILLON_STATUS_XMPP_ERROR},
      {.name = "WithoutGrid", .reply = Reply{.payload = "<other xmlns='urn:x'/>"}, .status = QUILLON_STATUS_QUILLON_ERROR},
      {.name = "OfAnotherType",
       .reply = Reply{.payload = "<grid xmlns='quillon' type='request'><x xmlns='urn:x'/></grid>"},
       .status = QUILLON_STATUS_QUILLON_ERROR},
      {.name = "WithoutPayload", .reply = Reply{.payload = response("")}, .status = QUILLON_STATUS_QUILLON_ERROR},
  };
}

std::vector<Row> rows_of_hostile_payloads(QUILLON_STATUS ended) {
  std::vector<Row> rows;
  for (const testpeer::HostileBytes &hostile : telling_hostile_stanzas())
    rows.push_back(
        {.name = hostile.name, .status = QUILLON_STATUS_SEND_TIMEOUT, .disconnected = {ended}, .hostile = hostile.bytes});
  return rows;
}

class RequestTest : public FaultTest, public testing::WithParamInterface<Row> {
 protected:
  void expect_seen(unsigned connected) {
    const Row &row = GetParam();
    EXPECT_TRUE(row.disconnected.empty() || application_.wait_ended()) << application_.log();
    EXPECT_EQ(row.disconnected, application_.seen().disconnected);
    EXPECT_EQ(row.account, application_.seen().account);
    EXPECT_EQ(connected, application_.seen().connected);
    EXPECT_EQ(std::string(connected, '+').append(row.disconnected.size(), '-'), application_.seen().order);
  }
};

// ---- The request to be admitted

class Admission : public RequestTest {};

TEST_P(Admission, EndsAsItShould) {
  const Row &row = GetParam();
  auto peer = std::make_unique<ScriptedPeer>(row.options(kConnect));
  application_.use(peer->host());
  application_.allow(kPatient, row.answer);
  const Stopwatch stopwatch;
  EXPECT_EQ(row.status, application_.connect()) << application_.log();
  EXPECT_LT(stopwatch.passed(), kSoon);
  EXPECT_EQ(row.status == QUILLON_STATUS_OK, application_.is_connected());
  expect_seen(row.status == QUILLON_STATUS_OK ? 1 : 0);
  if (row.status == QUILLON_STATUS_OK) {
    EXPECT_EQ(QUILLON_STATUS_OK, application_.disconnect());
  }
  expect_recovery(std::move(peer));
}

const std::vector<Row> kDecisions = {
    {.name = "Denied",
     .reply = Reply{.payload = decision("denied")},
     .status = QUILLON_STATUS_CONNECTION_DENIED,
     .account = {QUILLON_STATUS_CONNECTION_DENIED}},
    {.name = "AnotherWord", .reply = Reply{.payload = decision("perhaps")}, .status = QUILLON_STATUS_CONNECTION_ERROR},
    {.name = "AWordThatBeginsTheSame",
     .reply = Reply{.payload = decision("approved2")},
     .status = QUILLON_STATUS_CONNECTION_ERROR},
    {.name = "NoWord", .reply = Reply{.payload = decision("")}, .status = QUILLON_STATUS_CONNECTION_ERROR},
};

INSTANTIATE_TEST_SUITE_P(AnyRequest, Admission, testing::ValuesIn(rows_of_any_request(QUILLON_STATUS_QUILLON_ERROR)), kNameOfRow);
INSTANTIATE_TEST_SUITE_P(WrongAnswers, Admission, testing::ValuesIn(rows_of_wrong_answers()), kNameOfRow);
INSTANTIATE_TEST_SUITE_P(HostilePayload, Admission, testing::ValuesIn(rows_of_hostile_payloads(QUILLON_STATUS_QUILLON_ERROR)),
                         kNameOfRow);
INSTANTIATE_TEST_SUITE_P(Decisions, Admission, testing::ValuesIn(kDecisions), kNameOfRow);

// What a drain does first, while the session is only coming up.
TEST_F(FaultTest, ADrainMeanwhileEndsTheConnect) {
  auto peer = std::make_unique<ScriptedPeer>(correct());
  application_.use(peer->host());
  quillon_connection_set_ssl_ctx_cb(application_.connection(), [](quillon_connection *connection, void *context, void *) {
    quillon_config_fill_ssl_ctx(connection->config, context, false);
    connection->query->calls.close();
  });
  EXPECT_EQ(QUILLON_STATUS_CONNECTION_ERROR, application_.connect());
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_drain(application_.connection(), 0));
  EXPECT_EQ("-", application_.seen().order);
  quillon_connection_set_ssl_ctx_cb(application_.connection(), qlk::_default_ssl_ctx_cb);
  expect_recovery(std::move(peer));
}

// ---- The presence before it, which has no answer: what ends the session there ends the connect

class Presence : public RequestTest {};

TEST_P(Presence, EndsAsItShould) {
  const Row &row = GetParam();
  auto peer = std::make_unique<ScriptedPeer>(row.options("presence"));
  application_.use(peer->host());
  application_.allow(kPatient, row.answer);
  const Stopwatch stopwatch;
  const QUILLON_STATUS status = application_.connect();
  EXPECT_LT(stopwatch.passed(), kSoon) << application_.log();
  // The session may have ended before the request could be handed over, or after that.
  const bool was_too_late = status == QUILLON_STATUS_SEND_ERROR || status == QUILLON_STATUS_UNKNOWN;
  EXPECT_TRUE(status == row.status || (was_too_late && !row.disconnected.empty())) << status;
  expect_seen(row.status == QUILLON_STATUS_OK ? 1 : 0);
  if (row.status == QUILLON_STATUS_OK) {
    EXPECT_EQ(QUILLON_STATUS_OK, application_.disconnect());
  }
  expect_recovery(std::move(peer));
}

const std::vector<Row> kPresences = {
    {.name = "Silent", .fault = Fault::silent(), .status = QUILLON_STATUS_SEND_TIMEOUT, .answer = kImpatient},
    {.name = "Late", .fault = Fault::delay(50ms)},
    {.name = "Error",
     .fault = Fault::insert("<presence type='error' from='" CONTROLLER_JID "' id='1'><error type='cancel'/></presence>")},
    {.name = "Closes",
     .fault = Fault::close(),
     .status = QUILLON_STATUS_SEND_TIMEOUT,
     .disconnected = {QUILLON_STATUS_QUILLON_ERROR}},
    {.name = "Resets",
     .fault = Fault::reset(),
     .status = QUILLON_STATUS_SEND_TIMEOUT,
     .disconnected = {QUILLON_STATUS_QUILLON_ERROR}},
    {.name = "Truncates",
     .fault = Fault::truncate(),
     .status = QUILLON_STATUS_SEND_TIMEOUT,
     .disconnected = {QUILLON_STATUS_QUILLON_ERROR}},
    {.name = "ClosesItsHalf",
     .fault = Fault::half_close(),
     .status = QUILLON_STATUS_SEND_TIMEOUT,
     .disconnected = {QUILLON_STATUS_QUILLON_ERROR}},
    {.name = "Babbles",
     .fault = Fault::say("<odd xmlns='urn:odd'/></never-opened>"),
     .status = QUILLON_STATUS_SEND_TIMEOUT,
     .disconnected = {QUILLON_STATUS_QUILLON_ERROR}},
    {.name = "IsCutThenSilent",
     .fault = Fault::say("<presence from='" CONTROLLER_JID "'><pri"),
     .status = QUILLON_STATUS_SEND_TIMEOUT,
     .answer = kImpatient},
    {.name = "StreamError",
     .fault = Fault::stream_error("conflict"),
     .status = QUILLON_STATUS_SEND_TIMEOUT,
     .disconnected = {QUILLON_STATUS_CONNECTION_ERROR_XMPP}},
};

INSTANTIATE_TEST_SUITE_P(Each, Presence, testing::ValuesIn(kPresences), kNameOfRow);

// A presence in return, of which any part arrives: the connect fails as ever.
TEST_F(FaultTest, APresenceThatIsCutAnywhereEndsTheConnectOnce) {
  const std::string presence = "<presence from='" CONTROLLER_JID "'/>";
  for (size_t at = 0; at <= presence.size(); ++at) {
    const ScriptedPeer peer(with_request("presence", Fault::replace(presence.substr(0, at)).then(Fault::close())));
    application_.use(peer.host());
    application_.forget_seen();
    ASSERT_NE(QUILLON_STATUS_OK, application_.connect()) << at;
    ASSERT_TRUE(application_.wait_ended()) << at;
    EXPECT_EQ(Statuses{QUILLON_STATUS_QUILLON_ERROR}, application_.seen().disconnected) << at;
    EXPECT_EQ("-", application_.seen().order) << at;
  }
  expect_recovery();
}

// ---- An account that waits for an administrator

struct PendingRow {
  std::string name;
  std::function<void(Application &, ScriptedPeer &)> then;
  QUILLON_STATUS status = QUILLON_STATUS_CONNECTION_ERROR;
  Statuses disconnected = {QUILLON_STATUS_QUILLON_ERROR};
  Statuses account = {};  // after "pending"

  friend void PrintTo(const PendingRow &row, std::ostream *out) { *out << row.name; }
};

std::string update(const std::string &state) {
  return "<connectionUpdateNotification xmlns='" GRID_NS "'><status>" + state + "</status></connectionUpdateNotification>";
}

class Pending : public FaultTest, public testing::WithParamInterface<PendingRow> {};

TEST_P(Pending, EndsAsItShould) {
  const PendingRow &row = GetParam();
  Options options = correct();
  options.approval_status = "pending";
  auto peer = std::make_unique<ScriptedPeer>(options);
  application_.use(peer->host());
  QUILLON_STATUS status = QUILLON_STATUS_MAX;
  std::thread connecting([&] { status = application_.connect(); });
  EXPECT_TRUE(application_.wait_until([](const Seen &seen) { return !seen.account.empty(); })) << application_.log();
  EXPECT_FALSE(application_.is_connected());
  const Stopwatch stopwatch;
  row.then(application_, *peer);
  connecting.join();
  EXPECT_LT(stopwatch.passed(), kSoon);
  EXPECT_EQ(row.status, status);
  EXPECT_TRUE(row.disconnected.empty() || application_.wait_ended());
  const Seen seen = application_.seen();
  EXPECT_EQ(row.disconnected, seen.disconnected);
  Statuses account = row.account;
  account.insert(account.begin(), QUILLON_STATUS_ACCOUNT_PENDING);
  EXPECT_EQ(account, seen.account);
  EXPECT_EQ(row.status == QUILLON_STATUS_OK ? 1U : 0U, seen.connected);
  if (row.status == QUILLON_STATUS_OK) {
    EXPECT_EQ(QUILLON_STATUS_OK, application_.disconnect());
  }
  expect_recovery(std::move(peer));
}

std::vector<PendingRow> rows_of_hostile_words() {
  std::vector<PendingRow> rows;
  for (const testpeer::HostileBytes &hostile : telling_hostile_stanzas())
    rows.push_back(
        {.name = hostile.name, .then = [bytes = hostile.bytes](Application &, ScriptedPeer &peer) { peer.notify(bytes()); }});
  return rows;
}

INSTANTIATE_TEST_SUITE_P(Hostile, Pending, testing::ValuesIn(rows_of_hostile_words()), kNameOfRow);

const PendingRow kPendings[] = {
    {.name = "Enabled",
     .then = [](Application &, ScriptedPeer &peer) { peer.notify(update("enabled")); },
     .status = QUILLON_STATUS_OK,
     .disconnected = {},
     .account = {QUILLON_STATUS_ACCOUNT_ENABLED}},
    {.name = "EnabledInPieces",
     .then =
         [](Application &, ScriptedPeer &peer) {
           const std::string message = "<message from='" CONTROLLER_JID "'><grid xmlns='quillon' type='notification'>" +
                                       update("enabled") + "</grid></message>";
           for (const char &byte : message) peer.send({&byte, 1});
         },
     .status = QUILLON_STATUS_OK,
     .disconnected = {},
     .account = {QUILLON_STATUS_ACCOUNT_ENABLED}},
    // The application hears of the session's end before the connect thread goes on.
    {.name = "EnabledAsTheSessionEnds",
     .then =
         [](Application &application, ScriptedPeer &peer) {
           application.run_within(
               [&] { EXPECT_TRUE(application.wait_until([](const Seen &seen) { return seen.returned > 0; })); },
               [&] { EXPECT_TRUE(application.wait_until([](const Seen &seen) { return !seen.disconnected.empty(); })); });
           peer.notify(update("enabled"));
           EXPECT_TRUE(application.wait_until([](const Seen &seen) { return seen.account.size() > 1; }));
           peer.newest()->close();
         },
     .account = {QUILLON_STATUS_ACCOUNT_ENABLED}},
    {.name = "Disabled",
     .then = [](Application &, ScriptedPeer &peer) { peer.notify(update("disabled")); },
     .account = {QUILLON_STATUS_ACCOUNT_DISABLED}},
    {.name = "Deleted",
     .then = [](Application &, ScriptedPeer &peer) { peer.notify(update("deleted")); },
     .account = {QUILLON_STATUS_ACCOUNT_DELETED}},
    {.name = "AWordOfSomebodyElse",
     .then =
         [](Application &application, ScriptedPeer &peer) {
           peer.send("<message from='mallory@" GRID_DOMAIN "/qlk'><grid xmlns='quillon' type='notification'>" +
                     update("enabled") + "</grid></message>");
           EXPECT_EQ(QUILLON_STATUS_OK, application.disconnect());
         }},
    {.name = "UnknownWord", .then = [](Application &, ScriptedPeer &peer) { peer.notify(update("perhaps")); }},
    {.name = "Closes", .then = [](Application &, ScriptedPeer &peer) { peer.newest()->close(); }},
    {.name = "Resets", .then = [](Application &, ScriptedPeer &peer) { peer.newest()->reset(); }},
    {.name = "EndsTheStream", .then = [](Application &, ScriptedPeer &peer) { peer.newest()->close_stream(); }},
    {.name = "StreamError",
     .then = [](Application &, ScriptedPeer &peer) { peer.newest()->stream_error("system-shutdown"); },
     .disconnected = {QUILLON_STATUS_CONNECTION_ERROR_XMPP}},
    {.name = "HalfAMessageThenGone",
     .then =
         [](Application &, ScriptedPeer &peer) {
           peer.send("<message from='" CONTROLLER_JID "'><grid xmlns='quillon' type='notif");
           peer.newest()->close();
         }},
    {.name = "DisconnectedByTheApplication",
     .then = [](Application &application, ScriptedPeer &) { EXPECT_EQ(QUILLON_STATUS_OK, application.disconnect()); }},
};

INSTANTIATE_TEST_SUITE_P(Each, Pending, testing::ValuesIn(kPendings), kNameOfRow);

// A handler is so slow that a word of the session before is heard only in the next one.
TEST_F(FaultTest, AWordOfAnEarlierSessionIsToldAndActsNoMore) {
  struct Marks {
    std::atomic<unsigned> seen = 0;
    std::atomic<bool> is_released = false;
  } marks;
  const auto handle = [](wb_dom_node *, void *arg) {
    auto &handled = *static_cast<Marks *>(arg);
    ++handled.seen;
    EXPECT_TRUE(testpeer::eventually(kSoon, [&] { return handled.is_released.load(); }));
  };
  constexpr char kMark[] = "<mark xmlns='urn:test'/>";
  EXPECT_EQ(QUILLON_STATUS_OK,
            quillon_connection_register_notification_handler(application_.connection(), "urn:test", "mark", handle, &marks));
  auto peer = std::make_unique<ScriptedPeer>(correct());
  application_.use(peer->host());
  ASSERT_EQ(QUILLON_STATUS_OK, application_.connect());
  peer->notify(kMark);
  peer->notify(update("disabled"));
  EXPECT_EQ(QUILLON_STATUS_OK, application_.ask());  // its answer comes after them
  EXPECT_EQ(QUILLON_STATUS_OK, application_.disconnect());
  ASSERT_EQ(QUILLON_STATUS_OK, application_.connect());
  marks.is_released = true;
  peer->notify(kMark);
  EXPECT_TRUE(testpeer::eventually(kSoon, [&] { return marks.seen == 2; }));
  EXPECT_EQ(Statuses{QUILLON_STATUS_ACCOUNT_DISABLED}, application_.seen().account);
  EXPECT_TRUE(application_.is_connected());
  EXPECT_EQ(QUILLON_STATUS_OK, application_.disconnect());
  expect_recovery(std::move(peer));
}

// ---- What is announced once the connection is admitted: its own subscription, and that of a capability that is remembered

class Announcement : public RequestTest {};

size_t count_requests(const ScriptedPeer &peer, const std::string &request) {
  const std::vector<testpeer::Stanza> stanzas = peer.stanzas();
  return static_cast<size_t>(std::count_if(stanzas.begin(), stanzas.end(), [&](const testpeer::Stanza &stanza) {
    const testpeer::Element *grid = stanza.child("grid");
    return grid != nullptr && grid->child(request) != nullptr;
  }));
}

// A connect outlives announcements that fail, but not the end of the session.
TEST_P(Announcement, EndsAsItShould) {
  const Row &row = GetParam();
  const test_support::Capability capability = test_support::make_capability("urn:test", "Weather");
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_subscribe(capability.get(), application_.connection()));
  auto peer = std::make_unique<ScriptedPeer>(row.options(kSubscribe));
  application_.use(peer->host());
  application_.allow(kPatient, row.answer);
  const bool has_ended = !row.disconnected.empty();
  const Stopwatch stopwatch;
  EXPECT_EQ(has_ended ? QUILLON_STATUS_CONNECTION_ERROR : QUILLON_STATUS_OK, application_.connect()) << application_.log();
  EXPECT_LT(stopwatch.passed(), kSoon);
  expect_seen(has_ended ? 0 : 1);
  // One that fails is not the last, while the session lives.
  EXPECT_EQ(has_ended ? 1U : 2U, count_requests(*peer, kSubscribe));
  EXPECT_EQ(!has_ended, application_.is_connected());
  EXPECT_EQ(QUILLON_STATUS_OK, application_.disconnect());
  expect_recovery(std::move(peer));
}

INSTANTIATE_TEST_SUITE_P(AnyRequest, Announcement, testing::ValuesIn(rows_of_any_request(QUILLON_STATUS_CONNECTION_ERROR)),
                         kNameOfRow);
INSTANTIATE_TEST_SUITE_P(WrongAnswers, Announcement, testing::ValuesIn(rows_of_wrong_answers()), kNameOfRow);

// ---- A query under way

class Query : public RequestTest {};

TEST_P(Query, EndsAsItShould) {
  const Row &row = GetParam();
  auto peer = std::make_unique<ScriptedPeer>(row.options(kQuestion));
  application_.use(peer->host());
  ASSERT_EQ(QUILLON_STATUS_OK, application_.connect()) << application_.log();
  application_.allow(kPatient, row.answer);
  const Stopwatch stopwatch;
  EXPECT_EQ(row.status, application_.ask()) << application_.log();
  EXPECT_LT(stopwatch.passed(), kSoon);
  expect_seen(1);
  if (row.disconnected.empty()) {
    // The session has outlived the fault. It serves on, unless the server itself does not.
    EXPECT_TRUE(application_.is_connected());
    const bool is_silent = row.name.ends_with("Silent");
    EXPECT_EQ(is_silent ? QUILLON_STATUS_SEND_TIMEOUT : QUILLON_STATUS_OK, application_.ask("another"));
    EXPECT_EQ(QUILLON_STATUS_OK, application_.disconnect());
  }
  EXPECT_FALSE(application_.is_connected());
  expect_recovery(std::move(peer));
}

INSTANTIATE_TEST_SUITE_P(AnyRequest, Query, testing::ValuesIn(rows_of_any_request(QUILLON_STATUS_CONNECTION_ERROR)), kNameOfRow);
INSTANTIATE_TEST_SUITE_P(WrongAnswers, Query, testing::ValuesIn(rows_of_wrong_answers()), kNameOfRow);

// The requests share their parser: one kind sees all of it.
std::vector<Row> rows_of_hostile_answers() {
  std::vector<Row> rows;
  for (const testpeer::HostileBytes &hostile : testpeer::hostile_stanzas()) {
    if (hostile.is_big) continue;  // a session that is up sees those
    rows.push_back({.name = hostile.name,
                    .fault = Fault::replace(hostile.bytes()),
                    .status = QUILLON_STATUS_SEND_TIMEOUT,
                    .disconnected = {QUILLON_STATUS_CONNECTION_ERROR}});
  }
  return rows;
}

INSTANTIATE_TEST_SUITE_P(HostilePayload, Query, testing::ValuesIn(rows_of_hostile_payloads(QUILLON_STATUS_CONNECTION_ERROR)),
                         kNameOfRow);
INSTANTIATE_TEST_SUITE_P(Hostile, Query, testing::ValuesIn(rows_of_hostile_answers()), kNameOfRow);

// What goes on in TLS is nothing that an application hears, unless it has no end. The peer reads nothing meanwhile.
const Row kNoises[] = {
    {.name = "KeyUpdates", .fault = Fault::tls(TlsNoise::key_updates, 500)},
    {.name = "SessionTickets", .fault = Fault::tls(TlsNoise::session_tickets, 20)},
    {.name = "KeyUpdatesWithoutEnd",
     .fault = Fault::tls(TlsNoise::key_updates),
     .status = QUILLON_STATUS_SEND_TIMEOUT,
     .disconnected = {QUILLON_STATUS_CONNECTION_ERROR}},
    {.name = "SessionTicketsWithoutEnd",
     .fault = Fault::tls(TlsNoise::session_tickets),
     .status = QUILLON_STATUS_SEND_TIMEOUT,
     .disconnected = {QUILLON_STATUS_CONNECTION_ERROR}},
    {.name = "RenegotiationsWithoutEnd",
     .fault = Fault::tls(TlsNoise::renegotiations),
     .status = QUILLON_STATUS_SEND_TIMEOUT,
     .disconnected = {QUILLON_STATUS_CONNECTION_ERROR},
     .newest = TlsVersion::tls_1_2},
};

INSTANTIATE_TEST_SUITE_P(Tls, Query, testing::ValuesIn(kNoises), kNameOfRow);

// Many threads ask at once, and the server goes while all of them wait.
TEST_F(FaultTest, ManyQueriesEndWithTheSession) {
  constexpr size_t kThreads = 16;
  Options options = with_reply(kQuestion, {.copies = 0});
  auto peer = std::make_unique<ScriptedPeer>(options);
  application_.use(peer->host());
  ASSERT_EQ(QUILLON_STATUS_OK, application_.connect());
  Statuses statuses(kThreads, QUILLON_STATUS_MAX);
  std::vector<std::thread> threads;
  for (QUILLON_STATUS &status : statuses) threads.emplace_back([&] { status = application_.ask(); });
  EXPECT_TRUE(testpeer::eventually(kSoon, [&] { return count_requests(*peer, kQuestion) == kThreads; }));
  const Stopwatch stopwatch;
  peer->newest()->reset();
  for (std::thread &thread : threads) thread.join();
  EXPECT_LT(stopwatch.passed(), kSoon);
  EXPECT_EQ(Statuses(kThreads, QUILLON_STATUS_SEND_TIMEOUT), statuses);
  EXPECT_TRUE(application_.wait_ended());
  EXPECT_EQ(Statuses{QUILLON_STATUS_CONNECTION_ERROR}, application_.seen().disconnected);
  expect_recovery(std::move(peer));
}

// ---- A subscription

constexpr char kPublisher[] = "bob@" GRID_DOMAIN "/qlk";

Options with_publisher(Options options) {
  options.publishers = {kPublisher};
  return options;
}

// The first subscription, the connection's own, is answered well whatever the script says.
Options sparing_the_first(Options options) {
  options.on_stanza = [seen = std::make_shared<std::atomic<unsigned>>(0)](testpeer::Connection &connection,
                                                                          const testpeer::Stanza &stanza) {
    const testpeer::Element *grid = stanza.child("grid");
    if (grid == nullptr || grid->child(kSubscribe) == nullptr || seen->fetch_add(1) > 0) return false;
    connection.reply(stanza, {.payload = response("<subscribeResponse xmlns='" GRID_NS "'><xmppDetails/></subscribeResponse>")});
    return true;
  };
  return options;
}

class Subscription : public RequestTest {};

TEST_P(Subscription, EndsAsItShould) {
  const Row &row = GetParam();
  const test_support::Capability capability = test_support::make_capability("urn:test", "Weather");
  auto peer = std::make_unique<ScriptedPeer>(sparing_the_first(with_publisher(row.options(kSubscribe))));
  application_.use(peer->host());
  ASSERT_EQ(QUILLON_STATUS_OK, application_.connect()) << application_.log();
  application_.allow(kPatient, row.answer);
  const Stopwatch stopwatch;
  EXPECT_EQ(row.status, quillon_capability_subscribe(capability.get(), application_.connection())) << application_.log();
  EXPECT_LT(stopwatch.passed(), kSoon);
  expect_seen(1);
  const std::vector<std::string> publisher = {kPublisher};
  EXPECT_EQ(row.status == QUILLON_STATUS_OK ? publisher : std::vector<std::string>(), test_support::jids_of(capability.get()));
  EXPECT_EQ(row.disconnected.empty(), application_.is_connected());
  EXPECT_EQ(QUILLON_STATUS_OK, application_.disconnect());
  // However it failed, the capability is remembered, and announced when the connection is up again.
  expect_recovery(std::move(peer), with_publisher(correct()));
  EXPECT_EQ(publisher, test_support::jids_of(capability.get()));
}

INSTANTIATE_TEST_SUITE_P(AnyRequest, Subscription, testing::ValuesIn(rows_of_any_request(QUILLON_STATUS_CONNECTION_ERROR)),
                         kNameOfRow);
INSTANTIATE_TEST_SUITE_P(HostilePayload, Subscription,
                         testing::ValuesIn(rows_of_hostile_payloads(QUILLON_STATUS_CONNECTION_ERROR)), kNameOfRow);
INSTANTIATE_TEST_SUITE_P(WrongAnswers, Subscription, testing::ValuesIn(rows_of_wrong_answers()), kNameOfRow);

}  // namespace
}  // namespace faults

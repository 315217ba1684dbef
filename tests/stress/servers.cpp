#include "servers.h"

#include <iterator>
#include <utility>

#include "quillon_grid.h"

namespace stress {
namespace {

using testpeer::Fault;
using testpeer::HttpAnswer;
using testpeer::HttpFraming;
using testpeer::HttpsOptions;
using testpeer::HttpsPeer;
using testpeer::HttpsStage;
using testpeer::Options;
using testpeer::ScriptedPeer;
using testpeer::Stage;

constexpr size_t kBadPeers = 4, kBadServices = 2;

#define NEWS "<news xmlns='urn:stress'/>"
#define FROM_CONTROLLER(payload) \
  "<message from='" CONTROLLER_JID "'><grid xmlns='quillon' type='notification'>" payload "</grid></message>"
#define ACCOUNT_IS(state) \
  "<connectionUpdateNotification xmlns='" GRID_NS "'><status>" state "</status></connectionUpdateNotification>"
constexpr char kAsked[] = "<iq type='get' id='stress' from='bob@" GRID_DOMAIN
                          "/qlk'><grid xmlns='quillon' type='request'><asked xmlns='urn:stress'/></grid></iq>";

// One that a client notices.
Fault random_end(Random &random) {
  switch (pick(random, 6)) {
    case 0:
      return Fault::reset();
    case 1:
      return Fault::close();
    case 2:
      return Fault::truncate();
    case 3:
      return Fault::half_close();
    case 4:
      return Fault::cut(pick(random, 200)).then(Fault::close());
    default:
      return Fault::delay(std::chrono::milliseconds(pick(random, 300)));
  }
}

Fault random_fault(Random &random) {
  if (once_in(random, 8)) return Fault::stream_error("resource-constraint");
  return once_in(random, 7) ? Fault::silent() : random_end(random);
}

Options options_of_peer(Random &random, bool is_good) {
  Options options = {.domain = GRID_DOMAIN,
                     .certificate = Identities::get().server,
                     .client_authority = Identities::get().authority.certificate(),
                     .act_as_controller = true,
                     .controller = CONTROLLER_JID,
                     .publishers = {"bob@" GRID_DOMAIN "/qlk", "carol@" GRID_DOMAIN "/qlk"},
                     .echo_queries = true,
                     .request_replies = {{"unanswered", {.copies = 0}}},
                     .recorded_bytes_max = 4096};
  if (is_good) return options;
  constexpr Stage kStages[] = {
      Stage::accept, Stage::stream_open, Stage::features,    Stage::starttls,      Stage::stream_open_tls,
      Stage::sasl,   Stage::bind,        Stage::established, Stage::tls_handshake, Stage::stream_open_sasl};
  options.faults.emplace(kStages[pick(random, std::size(kStages))], random_fault(random).times(1 + pick(random, 8)));
  constexpr const char *kRequests[] = {"connectRequest", "presence", "question", "subscribeRequest", "message"};
  options.request_faults.emplace(kRequests[pick(random, std::size(kRequests))], random_fault(random).times(1 + pick(random, 20)));
  return options;
}

void send_much(testpeer::Connection &session) {
  for (int i = 0; i < 100; ++i) {
    session.send(FROM_CONTROLLER(NEWS));
    session.send(kAsked);
  }
}

// What a server does to a session that is up.
void harm_session(testpeer::Connection &session, Random &random) {
  switch (pick(random, 9)) {
    case 0:
      return session.reset();
    case 1:
      return session.close();
    case 2:
      return session.truncate();
    case 3:
      return session.close_stream();
    case 4:
      return session.stream_error("system-shutdown");
    case 5:
      session.send("<message><<");
      return;
    case 6:
      session.stop_reading();
      return session.resume_reading();
    case 7:
      session.send(once_in(random, 2) ? FROM_CONTROLLER(ACCOUNT_IS("authorizationChanged"))
                                      : FROM_CONTROLLER(ACCOUNT_IS("enabled")));
      return;
    default:
      return send_much(session);
  }
}

// With as many items, each a kilobyte, in pieces of a hundred.
HttpAnswer document(size_t items, std::chrono::milliseconds pause) {
  HttpAnswer answer = {.pause = pause, .framing = HttpFraming::chunked};
  std::string piece = "<r><c>";
  const std::string filling(1000, 'x');
  for (size_t i = 1; i <= items; ++i) {
    piece.append("<i n='").append(std::to_string(i)).append("'>").append(filling).append("</i>");
    if (i % 100 == 0) answer.pieces.push_back(std::exchange(piece, {}));
  }
  answer.pieces.push_back(piece.append("</c></r>"));
  return answer;
}

HttpsOptions options_of_service(Random &random, bool is_good) {
  HttpsOptions options = {.certificate = Identities::get().service,
                          .client_authority = Identities::get().authority.certificate(),
                          .needs_client_certificate = true,
                          .answer = document(Servers::kItems, {}),
                          .answers = {{"/slow", document(1000, std::chrono::milliseconds(20))},
                                      {"/broken", {.pieces = {"<r><c><i n='1'/><i n='2'></c>"}}},
                                      {"/small", document(3, {})}},
                          .on_request = [](testpeer::HttpExchange &exchange) {
                            const bool is_silent = exchange.request().path() == "/silent";
                            if (is_silent) exchange.stay_silent();
                            return is_silent;
                          }};
  if (is_good) return options;
  constexpr HttpsStage kStages[] = {HttpsStage::accept, HttpsStage::tls_handshake, HttpsStage::head, HttpsStage::body};
  for (const HttpsStage stage : kStages) options.faults.emplace(stage, random_end(random).times(5 + pick(random, 20)));
  return options;
}

}  // namespace

Identities::Identities()
    : server(authority.server(GRID_DOMAIN)),
      service(authority.server(testpeer::ServerIdentity{.addresses = {"127.0.0.1"}})),
      client(authority.client("alice", GRID_DOMAIN)),
      next_client(authority.client("alice", GRID_DOMAIN)) {}

Identities &Identities::get() {
  static Identities made;
  return made;
}

Servers::Servers(unsigned seed) {
  Random random(seed);
  for (size_t i = 0; i <= kBadPeers; ++i) peers_.push_back(std::make_shared<ScriptedPeer>(options_of_peer(random, i == 0)));
  for (size_t i = 0; i <= kBadServices; ++i) services_.push_back(std::make_unique<HttpsPeer>(options_of_service(random, i == 0)));
}

std::vector<std::string> Servers::hosts() const {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> hosts;
  for (const auto &peer : peers_) hosts.push_back(peer->host());
  return hosts;
}

void Servers::harm(Random &random) {
  if (once_in(random, 15)) {
    auto replacement = std::make_shared<ScriptedPeer>(options_of_peer(random, false));
    const std::lock_guard lock(mutex_);
    peers_[1 + pick(random, kBadPeers)].swap(replacement);
  } else if (const auto session = peers_[pick(random, kBadPeers + 1)]->newest()) {  // only this thread replaces them
    harm_session(*session, random);
  }
}

void Servers::speak() const {
  for (const char *said : {FROM_CONTROLLER(NEWS), FROM_CONTROLLER(ACCOUNT_IS("enabled")), kAsked}) peers_[0]->send(said);
}

std::string Servers::random_document(Random &random, bool is_silent) const {
  if (is_silent) return services_[0]->url("/silent");
  constexpr const char *kPaths[] = {"/whole", "/slow", "/broken", "/small"};
  return services_[pick(random, kBadServices + 1)]->url(kPaths[pick(random, std::size(kPaths))]);
}

}  // namespace stress

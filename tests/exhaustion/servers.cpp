#include "servers.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <qlk/testpeer.hpp>
#include <vector>

#include "quillon_grid.h"

namespace exhaustion {

namespace {

using testpeer::Connection;
using testpeer::Stanza;

constexpr std::chrono::seconds kAnswerTime(2);  // for the client's answer, before its own question is answered without it

// Plays the publish-subscribe service, and the controller that has a question itself.
class Script {
 public:
  bool on_stanza(Connection &connection, const Stanza &stanza) {
    if (const Stanza *pubsub = stanza.child("pubsub"); pubsub != nullptr) return send_news(connection, stanza, *pubsub);
    if (stanza.attribute("id") == kQuestion) return finish(connection);
    const Stanza *grid = stanza.child("grid");
    if (grid != nullptr && grid->child(kAskMe) != nullptr) return ask(connection, stanza);
    return false;
  }

 private:
  static testpeer::Reply answer() {
    return {.payload = "<grid xmlns='quillon' type='response'><" + std::string(kAskMe) + " xmlns='urn:test'/></grid>"};
  }

  static bool send_news(Connection &connection, const Stanza &stanza, const Stanza &pubsub) {
    connection.reply(stanza, {});
    const Stanza *publish = pubsub.child("publish");
    const Stanza *item = publish != nullptr ? publish->child("item") : nullptr;
    if (item == nullptr || item->children.empty()) return true;
    connection.send("<message from='" PUBSUB_JID "'><event xmlns='http://jabber.org/protocol/pubsub#event'><items node='" +
                    testpeer::escape(publish->attribute("node")) + "'><item>" + item->children.front().xml() +
                    "</item></items></event></message>");
    return true;
  }

  bool ask(Connection &connection, const Stanza &stanza) {
    {
      const std::lock_guard lock(mutex_);
      waiting_[connection.number()] = stanza;
    }
    connection.send("<iq type='get' id='" + std::string(kQuestion) +
                    "' from='" CONTROLLER_JID "'><grid xmlns='quillon' type='request'><" + kQuestion +
                    " xmlns='urn:test'/></grid></iq>");
    testpeer::Reply late = answer();
    late.after = kAnswerTime;
    connection.reply(stanza, late);
    return true;
  }

  bool finish(Connection &connection) {
    const std::lock_guard lock(mutex_);
    const auto request = waiting_.find(connection.number());
    if (request == waiting_.end()) return true;
    connection.reply(request->second, answer());
    waiting_.erase(request);
    return true;
  }

  std::mutex mutex_;
  std::map<size_t, Stanza> waiting_;  // by the connection's number
};

struct Identities {
  testpeer::CertificateAuthority authority;
  testpeer::Credentials grid = authority.server(GRID_DOMAIN);
  testpeer::Credentials bulk = authority.server(testpeer::ServerIdentity{.addresses = {"127.0.0.1"}});
  testpeer::Credentials client = authority.client("alice", GRID_DOMAIN);
};

[[noreturn]] void serve(const Identities &identities, int report) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  Script script;
  testpeer::Options options = {
      .domain = GRID_DOMAIN,
      .certificate = identities.grid,
      .client_authority = identities.authority.certificate(),
      .act_as_controller = true,
      .controller = CONTROLLER_JID,
      .publishers = {"bob@" GRID_DOMAIN "/qlk"},
      .controller_answers = {{"getTokenRequest", "<getTokenResponse xmlns='" ADMIN_NS "'><token>" + std::string(kTokenText) +
                                                     "</token></getTokenResponse>"}},
      .echo_queries = true};
  options.recorded_bytes_max = 0;
  options.on_stanza = [&script](Connection &connection, const Stanza &stanza) { return script.on_stanza(connection, stanza); };
  const testpeer::ScriptedPeer grid(options);

  std::vector<std::string> document(kItems + 2, "<i a='b'>text</i>");
  document.front() = "<r><c>";
  document.back() = "</c></r>";
  const testpeer::HttpsPeer bulk({.certificate = identities.bulk,
                                  .client_authority = identities.authority.certificate(),
                                  .needs_client_certificate = true,
                                  .answer = {.pieces = document, .framing = testpeer::HttpFraming::until_close},
                                  // Nobody is answered who does not say who he is and what he wants.
                                  .on_request = [](testpeer::HttpExchange &it) {
                                    const testpeer::HttpRequest &request = it.request();
                                    return request.header("user") != "alice@" GRID_DOMAIN ||
                                           request.body.find("<give/>") == std::string::npos;
                                  }});

  const std::string lines = grid.host() + "\n" + bulk.url() + "\n";
  if (write(report, lines.data(), lines.size()) < 0) _exit(1);
  for (;;) pause();
}

Servers running;

}  // namespace

void start_servers() {
  static const Identities identities;
  int ends[2];
  if (pipe(ends) != 0) std::abort();
  const pid_t child = fork();
  if (child == 0) serve(identities, ends[1]);
  close(ends[1]);
  const std::unique_ptr<FILE, int (*)(FILE *)> report(fdopen(ends[0], "r"), std::fclose);
  char line[256];
  for (std::string *place : {&running.host, &running.bulk_url}) {
    if (std::fgets(line, sizeof line, report.get()) == nullptr) std::abort();
    *place = line;
    place->pop_back();
  }
  running.authority = identities.authority.certificate();
  running.certificate = identities.client.certificate;
  running.key = identities.client.key;
  running.revocations = identities.authority.revocations();
}

const Servers &servers() { return running; }

}  // namespace exhaustion

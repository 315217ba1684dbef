// Which of many addresses a client comes to.
#include <qlk/testpeer/peer.hpp>

#include "black_hole.h"
#include "client_test_support.h"
#include "log_capture.h"

using namespace client_test;

namespace {

constexpr char kNobody[] = "127.0.0.1:1";

// {peer} and {hole} stand for a server that answers and one that does not.
struct RaceCase {
  const char *name, *host, *others, *gap;
  bool comes_up;
  std::vector<const char *> log = {};
};
const RaceCase kRaceCases[] = {
    {"the first is silent", "{hole}", "{peer}", "20", true},
    {"the first refuses, and nobody waits for the gap", kNobody, "{peer}", "3600000", true},
    {"the first has no address", "no-such-host.invalid", "{peer}", "20", true},
    {"the last has no address", "{peer}", "no-such-host.invalid", "20", true},
    {"one after the other", kNobody, "127.0.0.3:1  {peer}", "0", true},
    {"all refuse", kNobody, "127.0.0.3:1", "20", false, {"cannot connect to 127.0.0.1:1: Connection refused; 127.0.0.3:1: Conn"}},
    {"a name and a number fail",
     "no-such-host.invalid",
     kNobody,
     "20",
     false,
     {"cannot resolve no-such-host.invalid: ", kNobody}},
};

std::string filled(std::string text, const std::string &peer, const std::string &hole) {
  if (const size_t at = text.find("{peer}"); at != std::string::npos) text.replace(at, 6, peer);
  if (const size_t at = text.find("{hole}"); at != std::string::npos) text.replace(at, 6, hole);
  return text;
}

// The peer's certificate is for its address alone, so it passes only when the client knows whom it has reached.
testpeer::Options addressed_peer() {
  return {.domain = "grid.test",
          .certificate = Identities::get().authority.server(testpeer::ServerIdentity{.addresses = {"127.0.0.1"}})};
}

TEST(ClientRace, TheFirstThatAnswersWins) {
  const test_support::BlackHole hole;
  for (const RaceCase &c : kRaceCases) {
    SCOPED_TRACE(c.name);
    const test_support::LogCapture log;
    const testpeer::ScriptedPeer peer(addressed_peer());
    TestClient client(
        client_settings({{"other_hosts", filled(c.others, peer.host(), hole.host())}, {"race_milliseconds", c.gap}}));
    ASSERT_TRUE(client.connect(filled(c.host, peer.host(), hole.host())));
    EXPECT_TRUE(client.wait_for(c.comes_up ? "connected" : "disconnected")) << client.all() << log.all();
    for (const char *said : c.log) EXPECT_TRUE(log.contains(said)) << log.all();
  }
}

// The addresses that are known by the time of the second turn.
TEST(ClientRace, FamiliesTakeTurns) {
  const test_support::BlackHole hole;
  const test_support::LogCapture log;
  const testpeer::ScriptedPeer peer(addressed_peer());
  TestClient client(
      client_settings({{"other_hosts", "127.0.0.3:1 [::1]:1 [::1]:2 " + peer.host()}, {"race_milliseconds", "2000"}}));
  ASSERT_TRUE(client.connect(hole.host()));
  ASSERT_TRUE(client.wait_for("connected")) << log.all();
  std::vector<std::string> dialled;
  for (const std::string &record : log.records()) {
    if (const size_t at = record.find("dialling "); at != std::string::npos) dialled.push_back(record.substr(at + 9));
  }
  EXPECT_EQ((std::vector<std::string>{hole.host(), "[::1]:1", "127.0.0.3:1", "[::1]:2", peer.host()}), dialled);
}

// What is said later is about the host that answered, and not the one that was first.
TEST(ClientRace, TheEndNamesWhoWasReached) {
  const test_support::BlackHole hole;
  const test_support::LogCapture log;
  const testpeer::ScriptedPeer peer({.domain = "another.test"});
  TestClient client(client_settings({{"other_hosts", peer.host()}, {"race_milliseconds", "10"}}));
  ASSERT_TRUE(client.connect(hole.host()));
  ASSERT_TRUE(client.wait_for("disconnected")) << log.all();
  EXPECT_TRUE(log.contains("session with " + peer.host() + " ended")) << log.all();
}

TEST(ClientRace, RefusesWhatIsNoHost) {
  TestClient client(client_settings({{"other_hosts", "127.0.0.1:1 127.0.0.1:none"}}));
  wb_err err{};
  EXPECT_FALSE(client.connect(kNobody, &err));
  EXPECT_EQ(WB_ERR_BAD_FORMAT, err.code);
}

}  // namespace

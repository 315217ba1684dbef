// What the HTTPS peer is believed to do is seen to happen. What a bulk download makes of it is in tests/faults/bulk_test.cpp.
#include <gtest/gtest.h>
#include <qlk/testpeer.hpp>

#include "raw_client.h"

namespace testpeer {
namespace {

using namespace std::chrono_literals;

constexpr char kAddress[] = "127.0.0.1";
constexpr char kRequest[] = "POST /bulk?all=yes HTTP/1.1\r\nHost: here\r\ncontent-LENGTH:\t7 \r\nuser:bob@grid\r\n\r\n<give/>";

struct Identities {
  CertificateAuthority authority;
  Credentials server = authority.server({.addresses = {kAddress}}), client = authority.client("bob", "grid");

  static Identities &get() {
    static Identities identities;
    return identities;
  }
};

HttpsOptions correct() {
  return {.certificate = Identities::get().server,
          .client_authority = Identities::get().authority.certificate(),
          .needs_client_certificate = true,
          .answer = {.headers = {}, .pieces = {"12345", "678"}}};
}

bool shake_hands(RawClient &client) { return client.start_tls(Identities::get().authority, Identities::get().client, kAddress); }

TEST(HttpsPeer, TellsWhatItWasAsked) {
  const HttpsPeer peer(correct());
  EXPECT_EQ("https://127.0.0.1:" + std::to_string(peer.port()) + "/other", peer.url("/other"));
  RawClient client(peer.port());
  ASSERT_TRUE(shake_hands(client));
  for (const char byte : std::string_view(kRequest)) client.send({&byte, 1});
  ASSERT_TRUE(peer.wait_requests(1, 10s));
  const HttpRequest request = peer.requests()[0];
  EXPECT_EQ("POST", request.method);
  EXPECT_EQ("/bulk?all=yes", request.target);
  EXPECT_EQ("/bulk", request.path());
  EXPECT_EQ("7", request.header("Content-Length"));
  EXPECT_EQ("bob@grid", request.header("User"));
  EXPECT_EQ("", request.header("Bob"));
  EXPECT_EQ("<give/>", request.body);
  EXPECT_EQ(kRequest, request.head + request.body);
  EXPECT_EQ("emailAddress=bob@grid,CN=bob", request.tls.client_subject);
  client.read_all();
  EXPECT_TRUE(client.ended_in_order());
  EXPECT_TRUE(peer.wait_all_ended(10s));
  EXPECT_EQ(1U, peer.connections());
  EXPECT_EQ(std::vector<std::string>(), peer.errors());
}

enum class End { in_order, truncated, reset, none };

struct Row {
  const char *name;
  std::function<void(HttpsOptions &)> change;
  std::string heard;  // all of it
  End end = End::in_order;

  friend void PrintTo(const Row &row, std::ostream *out) { *out << row.name; }
};

std::string head(const std::string &framing, const std::string &status = "200 OK") {
  return "HTTP/1.1 " + status + "\r\n" + framing + "Connection: close\r\n\r\n";
}

std::function<void(HttpsOptions &)> fault(HttpsStage stage, const Fault &fault) {
  return [=](HttpsOptions &options) { options.faults.emplace(stage, fault); };
}

std::vector<Row> rows() {
  const std::string length = head("Content-Length: 8\r\n");
  const auto begins = [](HttpExchange &exchange) { return exchange.begin() && exchange.send("1"); };
  return {
      {"WithItsLength", [](HttpsOptions &) {}, length + "12345678"},
      {"WithAnotherLength", [](HttpsOptions &it) { it.answer.announced_length = 9; }, head("Content-Length: 9\r\n") + "12345678"},
      {"InChunks", [](HttpsOptions &it) { it.answer.framing = HttpFraming::chunked; },
       head("Transfer-Encoding: chunked\r\n") + "5\r\n12345\r\n3\r\n678\r\n0\r\n\r\n"},
      {"UntilItCloses", [](HttpsOptions &it) { it.answer.framing = HttpFraming::until_close; }, head("") + "12345678"},
      {"WithPauses", [](HttpsOptions &it) { it.answer.pause = 5ms; }, length + "12345678"},
      {"ByPath",
       [](HttpsOptions &it) {
         it.answers = {{"/bulk", HttpAnswer::redirect("/other")}};
       },
       head("Location: /other\r\nContent-Length: 0\r\n", "302 Elsewhere")},
      {"ByTheCallback",
       [begins](HttpsOptions &it) { it.on_request = [begins](HttpExchange &exchange) { return begins(exchange); }; },
       head("Content-Type: application/xml\r\n") + "1"},
      {"ResetByTheCallback",
       [begins](HttpsOptions &it) {
         it.on_request = [begins](HttpExchange &exchange) {
           begins(exchange);
           exchange.reset();
           return !exchange.send("2");
         };
       },
       "", End::reset},
      {"SilentHead", fault(HttpsStage::head, Fault::silent()), "", End::none},
      {"CutHead", fault(HttpsStage::head, Fault::cut(11).then(Fault::close())), "HTTP/1.1 20"},
      {"TruncatedBody", fault(HttpsStage::body, Fault::cut(6).then(Fault::truncate())), length + "123456", End::truncated},
      {"SilentBody", fault(HttpsStage::body, Fault::cut(6).then(Fault::silent())), length + "123456", End::none},
  };
}

class Answers : public testing::TestWithParam<Row> {};

TEST_P(Answers, IsAsItShouldBe) {
  const Row &row = GetParam();
  HttpsOptions options = correct();
  row.change(options);
  const HttpsPeer peer(options);
  RawClient client(peer.port());
  ASSERT_TRUE(shake_hands(client));
  client.send(kRequest);
  if (row.end == End::none) {
    EXPECT_EQ(row.heard, row.heard.empty() ? "" : client.read_until(row.heard));
    EXPECT_TRUE(client.hears_nothing(20));
    return;
  }
  const std::string heard = client.read_all();
  // A reset throws away what has not been read.
  EXPECT_TRUE(row.end == End::reset || row.heard == heard) << heard;
  EXPECT_EQ(row.end == End::in_order, client.ended_in_order());
  EXPECT_EQ(row.end == End::reset, client.was_reset());
}

INSTANTIATE_TEST_SUITE_P(Each, Answers, testing::ValuesIn(rows()), [](const auto &one) { return std::string(one.param.name); });

TEST(HttpsPeer, MeetsFaultsBeforeTls) {
  const std::pair<HttpsStage, std::string> cases[] = {{HttpsStage::accept, ""}, {HttpsStage::tls_handshake, "\x16"}};
  for (const auto &[stage, words] : cases) {
    HttpsOptions options = correct();
    fault(stage, Fault::insert("at {host}").then(Fault::silent()))(options);
    const HttpsPeer peer(options);
    RawClient client(peer.port());
    EXPECT_TRUE(words.empty() || client.hears_nothing(20));
    if (!words.empty()) client.send(words);
    EXPECT_EQ("at " + peer.host(), client.read_until(peer.host())) << name_of(stage);
    client.send("more");
    EXPECT_TRUE(client.hears_nothing(20)) << name_of(stage);
  }
}

TEST(HttpsPeer, ShowsWhatItIsToldAndLooksAtTheClient) {
  Identities &all = Identities::get();
  const Credentials revoked = all.authority.server({.addresses = {kAddress}});
  all.authority.revoke(revoked);
  const struct {
    Credentials server, client;
    long verdict;
    bool is_refused;
  } cases[] = {{all.authority.server({.addresses = {kAddress}, .validity = Validity::expired}), all.client,
                X509_V_ERR_CERT_HAS_EXPIRED, false},
               {revoked, all.client, X509_V_ERR_CERT_REVOKED, false},
               {all.server, {}, X509_V_OK, true}};
  for (const auto &one : cases) {
    HttpsOptions options = correct();
    options.certificate = one.server;
    const HttpsPeer peer(options);
    RawClient client(peer.port());
    client.start_tls(all.authority, one.client, kAddress);
    EXPECT_EQ(one.verdict, client.verify_result());
    EXPECT_TRUE(eventually(10s, [&] { return peer.errors().size() == 1; }));
    EXPECT_EQ(one.is_refused, peer.errors()[0].find("did not return a certificate") != std::string::npos) << peer.errors()[0];
    EXPECT_EQ(0U, peer.requests().size());
  }
}

TEST(HttpsPeer, SurvivesItsCallback) {
  HttpsOptions options = correct();
  options.on_request = [](HttpExchange &) -> bool { throw std::runtime_error("no idea"); };
  const HttpsPeer peer(options);
  RawClient client(peer.port());
  ASSERT_TRUE(shake_hands(client));
  client.send(kRequest);
  EXPECT_EQ("", client.read_all());
  EXPECT_EQ(std::vector<std::string>{"no idea"}, peer.errors());
}

TEST(DeafPort, RefusesWhoComes) {
  const DeafPort port;
  EXPECT_THROW(RawClient(port.port()), std::runtime_error);
}

}  // namespace
}  // namespace testpeer

// What is secret stays out of the log, whatever its level, and out of the trace of the stanzas, whatever fails.
#include <cstring>

#include "application.h"

namespace faults {
namespace {

constexpr char kPassPhrase[] = "pass-phrase-s3cret", kToken[] = "token-s3cret";

class Secrets : public FaultTest {
 protected:
  Secrets() {
    Identities &identities = Identities::get();
    client_ = identities.authority.client({.user = "alice", .domain = GRID_DOMAIN, .passphrase = kPassPhrase});
    quillon_config_set_client_cert_chain_filename(application_.config(), client_.certificate.c_str());
    quillon_config_set_client_cert_key_filename(application_.config(), client_.key.c_str());
    quillon_config_set_client_cert_key_password(application_.config(), kPassPhrase);
    wb_log_set_level(WB_LOG_TRACE);
    quillon_connection_set_stanza_trace(
        application_.connection(),
        [](quillon_connection *, QUILLON_TRACE_DIRECTION direction, const char *xml, size_t length, void *trace) {
          *static_cast<std::string *>(trace) += (direction == QUILLON_TRACE_SENT ? "> " : "< ") + std::string(xml, length) + "\n";
        },
        &trace_);
  }
  ~Secrets() override { application_.destroy_connection(); }

  void expect_nothing_told() {
    EXPECT_NE(std::string::npos, application_.log().find("received <"));  // all there is was logged
    // The last two are a challenge and the user's name as SASL sends them.
    for (const char *secret : {"s3cret", "czNjcmV0", "YWxpY2U="}) {
      EXPECT_EQ(std::string::npos, application_.log().find(secret)) << secret;
      EXPECT_EQ(std::string::npos, trace_.find(secret)) << secret << "\n" << trace_;
    }
    expect_traced({"> <auth xmlns='urn:ietf:params:xml:ns:xmpp-sasl' mechanism='EXTERNAL'>********</auth>\n"});
  }
  // In this order.
  void expect_traced(const std::vector<std::string> &parts) {
    size_t at = 0;
    for (const std::string &part : parts) {
      at = trace_.find(part, at);
      ASSERT_NE(std::string::npos, at) << part << "\n" << trace_;
    }
  }

  std::string trace_;  // written on the event loop, and looked at when the session has ended

 private:
  testpeer::Credentials client_;
};

TEST_F(Secrets, AreNotLoggedWhereAllIsWell) {
  Options options = correct();
  options.controller_answers["getTokenRequest"] =
      "<getTokenResponse xmlns='" ADMIN_NS "'><token>" + std::string(kToken) + "</token></getTokenResponse>";
  const ScriptedPeer peer(options);
  application_.use(peer.host());
  ASSERT_EQ(QUILLON_STATUS_OK, application_.connect()) << application_.log();
  quillon_authentication_token *token = nullptr;
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_authentication_token_create(&token, application_.connection()));
  EXPECT_STREQ(kToken, quillon_authentication_token_get(token));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_authentication_token_destroy(token));
  EXPECT_EQ(QUILLON_STATUS_OK, application_.disconnect());
  expect_nothing_told();
  expect_traced({"> <starttls", "< <proceed", "> <auth", "< <success", "> <iq", "<bind", "< <iq", "> <presence", "> <iq",
                 "<getTokenRequest", "< <iq", "<token>" + std::string(std::strlen(kToken), '*') + "</token>"});
}

TEST_F(Secrets, AreNotLoggedWhereThePeerRefuses) {
  Options options = correct();
  options.sasl_challenge = "s3cret";
  options.sasl_failure_text = "why";
  options.sasl_failure = "not-authorized";
  const ScriptedPeer peer(options);
  application_.use(peer.host());
  EXPECT_NE(QUILLON_STATUS_OK, application_.connect());
  quillon_config_set_client_cert_key_password(application_.config(), "another-s3cret");  // that does not open the key
  EXPECT_NE(QUILLON_STATUS_OK, application_.connect());
  expect_nothing_told();
}

}  // namespace
}  // namespace faults

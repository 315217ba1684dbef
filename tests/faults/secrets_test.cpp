// What is secret stays out of the log, whatever its level, and whatever fails.
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
  }

  void expect_nothing_told() {
    EXPECT_NE(std::string::npos, application_.log().find("received <"));  // all there is was logged
    EXPECT_EQ(std::string::npos, application_.log().find("s3cret"));
  }

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
}

TEST_F(Secrets, AreNotLoggedWhereThePeerRefuses) {
  Options options = correct();
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

// TLS as the scripted peer speaks it: certificates of either side, versions, and what only TLS itself hears.
#include <gtest/gtest.h>

#include "client_session.h"

namespace testpeer {
namespace {

using namespace std::chrono_literals;

struct CertificateCase {
  const char *name;
  Credentials (*issue)(Identities &);
  const char *asked_for;
  long result;
};

const CertificateCase kCertificates[] = {
    {"Good",
     [](Identities &by) {
       return by.authority.server({.names = {"other", kDomain}});
     },
     kDomain, X509_V_OK},
    {"Address", [](Identities &by) { return by.authority.server({.addresses = {"127.0.0.1"}}); }, "127.0.0.1", X509_V_OK},
    {"EncryptedKey", [](Identities &by) { return by.authority.server({.names = {kDomain}, .passphrase = "secret"}); }, kDomain,
     X509_V_OK},
    {"OtherName", [](Identities &by) { return by.authority.server("other"); }, kDomain, X509_V_ERR_HOSTNAME_MISMATCH},
    {"Expired", [](Identities &by) { return by.authority.server({.names = {kDomain}, .validity = Validity::expired}); }, kDomain,
     X509_V_ERR_CERT_HAS_EXPIRED},
    {"NotYetValid", [](Identities &by) { return by.authority.server({.names = {kDomain}, .validity = Validity::not_yet}); },
     kDomain, X509_V_ERR_CERT_NOT_YET_VALID},
    {"SelfSigned", [](Identities &by) { return by.authority.server({.names = {kDomain}, .self_signed = true}); }, kDomain,
     X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT},
    {"OtherAuthority", [](Identities &by) { return by.other.server(kDomain); }, kDomain,
     X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY},
    // The authority's own list is all that there is.
    {"OfAnAuthorityBelow", [](Identities &by) { return by.authority.server({.names = {kDomain}, .intermediates = 2}); }, kDomain,
     X509_V_ERR_UNABLE_TO_GET_CRL},
    {"WrongUsage", [](Identities &by) { return by.authority.server({.names = {kDomain}, .usage = Usage::client}); }, kDomain,
     X509_V_ERR_INVALID_PURPOSE},
    {"Revoked",
     [](Identities &by) {
       Credentials revoked = by.authority.server(kDomain);
       by.authority.revoke(revoked);
       return revoked;
     },
     kDomain, X509_V_ERR_CERT_REVOKED},
};

class ServerCertificate : public testing::TestWithParam<CertificateCase> {};

TEST_P(ServerCertificate, IsAcceptedOrNot) {
  Identities &identities = Identities::get();
  Options options = correct();
  options.certificate = GetParam().issue(identities);
  const ScriptedPeer peer(options);
  RawClient client(peer.port());
  ASSERT_TRUE(come_to(Stage::starttls, client));
  client.read_until("/>");
  EXPECT_EQ(GetParam().result == X509_V_OK, client.start_tls(identities.authority, identities.client, GetParam().asked_for));
  EXPECT_EQ(GetParam().result, client.verify_result());
}

INSTANTIATE_TEST_SUITE_P(Each, ServerCertificate, testing::ValuesIn(kCertificates),
                         [](const auto &one) { return std::string(one.param.name); });

TEST(ScriptedPeer, ChecksTheClientsCertificate) {
  Identities &identities = Identities::get();
  struct Case {
    Credentials credentials;
    const char *error;
  };
  const Case cases[] = {
      {identities.authority.client({.user = "user", .domain = kDomain, .passphrase = "secret"}), ""},
      {identities.other.client("user", kDomain), "certificate verify failed"},
      {identities.authority.client({.user = "u", .domain = kDomain, .validity = Validity::expired}), "certificate verify failed"},
      {identities.authority.client("revoked", kDomain), "certificate verify failed"},
      {{}, "peer did not return a certificate"}};
  Options options = correct();
  identities.authority.revoke(cases[3].credentials);
  options.client_revocations = identities.authority.revocations();
  options.needs_client_certificate = true;
  for (const Case &one : cases) {
    const ScriptedPeer peer(options);
    RawClient client(peer.port());
    ASSERT_TRUE(come_to(Stage::starttls, client));
    client.read_until("/>");
    client.start_tls(identities.authority, one.credentials, kDomain);  // the client may not know it yet
    EXPECT_TRUE(peer.newest()->wait_until([](const Transcript &seen) { return !seen.tls.version.empty(); }, 10s));
    EXPECT_EQ(one.error, peer.newest()->transcript().tls_error);
  }
}

TEST(ScriptedPeer, KeepsToItsTlsVersions) {
  Options options = correct();
  options.tls_version_max = TlsVersion::tls_1_2;
  const ScriptedPeer older(options);
  RawClient client(older.port());
  ASSERT_TRUE(come_to(Stage::sasl, client));
  EXPECT_EQ("TLSv1.2", older.newest()->transcript().tls.version);

  options.tls_version_min = options.tls_version_max = TlsVersion::tls_1_1;
  const ScriptedPeer oldest(options);
  RawClient refused(oldest.port());
  EXPECT_FALSE(come_to(Stage::sasl, refused));
}

TEST(ScriptedPeer, SaysInTlsWhatNobodyHears) {
  for (const TlsNoise noise : {TlsNoise::key_updates, TlsNoise::session_tickets}) {
    const ScriptedPeer peer(with(Stage::sasl, Fault::tls(noise, 100)));
    RawClient client(peer.port());
    ASSERT_TRUE(come_to(Stage::stream_open_tls, client));
    client.read_until(kFeaturesEnd);
    const unsigned before = client.handshake_messages();
    client.send(kAuth);
    EXPECT_TRUE(client.read_until("</success>").starts_with("<success"));
    EXPECT_EQ(before + 100, client.handshake_messages());
  }
  const ScriptedPeer peer(with(Stage::sasl, Fault::tls(TlsNoise::renegotiations)));
  RawClient client(peer.port());
  ASSERT_TRUE(come_to(Stage::sasl, client));
  client.read_all();
  EXPECT_EQ(std::vector<std::string>{"this TLS cannot say so"}, peer.newest()->transcript().violations);
}

}  // namespace
}  // namespace testpeer

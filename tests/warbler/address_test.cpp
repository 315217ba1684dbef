#include <gtest/gtest.h>

#include <string>

#include "base64.h"
#include "endpoint.h"
#include "jid.h"

namespace {

struct HostCase {
  const char *name, *text;
  bool ok;
  const char *host;
  unsigned port;
};

const HostCase kHostCases[] = {{"BareName", "grid.example", true, "grid.example", 5222},
                               {"NameAndPort", "grid.example:5223", true, "grid.example", 5223},
                               {"HighestPort", "grid.example:65535", true, "grid.example", 65535},
                               {"Ipv4AndPort", "192.0.2.1:443", true, "192.0.2.1", 443},
                               {"Ipv6AndPort", "[2001:db8::1]:443", true, "2001:db8::1", 443},
                               {"Ipv6Brackets", "[::1]", true, "::1", 5222},
                               {"Ipv6Bare", "2001:db8::1", true, "2001:db8::1", 5222},
                               {"Empty", "", false, "", 0},
                               {"BracketOpen", "[2001:db8::1:443", false, "", 0},
                               {"BracketName", "[grid.example]:443", false, "", 0},
                               {"BracketRest", "[::1]443", false, "", 0},
                               {"PortMissing", "grid.example:", false, "", 0},
                               {"PortZero", "grid.example:0", false, "", 0},
                               {"PortTooLarge", "grid.example:65536", false, "", 0},
                               {"PortOverflow", "grid.example:99999999999999999999", false, "", 0},
                               {"PortSigned", "grid.example:+1", false, "", 0},
                               {"PortWithRest", "grid.example:1x", false, "", 0},
                               {"OnlyPort", ":5222", false, "", 0},
                               {"Blank", "grid example", false, "", 0}};

class HostParse : public testing::TestWithParam<HostCase> {};

struct JidCase {
  const char *name, *text;
  bool ok;
  const char *local, *domain, *resource;
};

const JidCase kJidCases[] = {{"Full", "alice@grid/qlk", true, "alice", "grid", "qlk"},
                             {"Bare", "alice@grid", true, "alice", "grid", ""},
                             {"Domain", "grid", true, "", "grid", ""},
                             {"DomainResource", "grid/a", true, "", "grid", "a"},
                             {"ResourceWithSlashAndAt", "a@b/c@d/e", true, "a", "b", "c@d/e"},
                             {"EmptyLocal", "@grid", false, "", "", ""},
                             {"EmptyDomain", "alice@", false, "", "", ""},
                             {"EmptyResource", "alice@grid/", false, "", "", ""},
                             {"TwoAts", "a@b@c", false, "", "", ""},
                             {"Empty", "", false, "", "", ""}};

class JidParse : public testing::TestWithParam<JidCase> {};

}  // namespace

TEST_P(HostParse, SplitsOrRefuses) {
  wb::Endpoint endpoint;
  endpoint.port = 0;
  EXPECT_EQ(GetParam().ok, wb::parse_endpoint(GetParam().text, endpoint));
  EXPECT_EQ(GetParam().host, endpoint.host);  // a refusal leaves both as they were
  EXPECT_EQ(GetParam().port, endpoint.port);
}
INSTANTIATE_TEST_SUITE_P(Forms, HostParse, testing::ValuesIn(kHostCases),
                         [](const auto &c) { return std::string(c.param.name); });

TEST_P(JidParse, SplitsOrRefuses) {
  wb::Jid jid;
  EXPECT_EQ(GetParam().ok, wb::parse_jid(GetParam().text, jid));
  EXPECT_EQ(GetParam().local, jid.local);
  EXPECT_EQ(GetParam().domain, jid.domain);
  EXPECT_EQ(GetParam().resource, jid.resource);
}
INSTANTIATE_TEST_SUITE_P(Forms, JidParse, testing::ValuesIn(kJidCases), [](const auto &c) { return std::string(c.param.name); });

TEST(Jid, ComparesAddressesAsServersFoldThem) {
  EXPECT_TRUE(wb::jid_equal("Alice@Grid/qlk", "alice@gRID/qlk"));
  EXPECT_FALSE(wb::jid_equal("alice@grid/qlk", "alice@grid/QLK"));
  EXPECT_FALSE(wb::jid_equal("alice@grid", "alice@grid/qlk"));
  EXPECT_FALSE(wb::jid_equal("alice@grid", "alice@grid.evil"));
}

TEST(Base64, ReadsWhatItWritesAndRefusesTheRest) {
  for (const std::string &text :
       {std::string(), std::string("a"), std::string("ab"), std::string("abc"), std::string("\0\xff\n", 3)}) {
    std::string back = "before";
    EXPECT_TRUE(wb::decode_base64(wb::encode_base64(text), back));
    EXPECT_EQ(text, back);
  }
  EXPECT_EQ("YWxpY2U=", wb::encode_base64("alice"));
  std::string out;
  for (const char *bad : {"YWx", "YW=x", "YWx=pY2U", "YW\nx", "====", "Y W=", "aGVsbG9="})
    EXPECT_FALSE(wb::decode_base64(bad, out)) << bad;
}

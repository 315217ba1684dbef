#include <gtest/gtest.h>

#include "grid_session.h"
#include "quillon_capability.h"
#include "quillon_grid.h"

namespace {

using test_support::Capability;
using test_support::grid_reply;
using test_support::make_capability;

using Operation = decltype(&quillon_capability_propose);

struct Twin {
  const char *name;
  Operation call;
  const char *request, *response, *caption;
  QUILLON_STATUS refused;
};
void PrintTo(const Twin &twin, std::ostream *out) { *out << twin.name; }
const Twin kTwins[] = {{"Propose", quillon_capability_propose, "proposeCapabilityRequest", "proposeCapabilityResponse",
                        "quillon_connection_propose_capability create dom", QUILLON_STATUS_PROPOSE_CAPABILITY_ERROR},
                       {"Modify", quillon_capability_modify, "updateCapabilityRequest", "updateCapabilityResponse",
                        "quillon_connection_modify_capability create dom", QUILLON_STATUS_MODIFY_CAPABILITY_ERROR}};

class ProposeOrModify : public test_support::GridSession, public testing::WithParamInterface<Twin> {
 protected:
  QUILLON_STATUS define(int queries, int actions) {
    const char *query_list[] = {"readA", "readB"};
    const char *action_list[] = {"writeC"};
    return GetParam().call(capability_.get(), connection_.get(), "New", "2.0", query_list, queries, action_list, actions,
                           "what it is", "vendor");
  }
  void reply(const std::string &payload) {
    client_.respond([payload](const wb_dom_node *) { return payload.empty() ? "" : grid_reply(payload); });
  }

  Capability capability_ = make_capability("urn:x", "C");
};
INSTANTIATE_TEST_SUITE_P(Twins, ProposeOrModify, testing::ValuesIn(kTwins),
                         [](const auto &c) { return std::string(c.param.name); });

std::string method(const char *name, const char *permissions) {
  return std::string("<qn:operation><qn:methodName>") + name + "</qn:methodName><qn:methodPermissions>" + permissions +
         "</qn:methodPermissions></qn:operation>";
}

TEST_P(ProposeOrModify, SendsTheDefinition) {
  reply("<ok xmlns='" GRID_NS "'/>");
  EXPECT_EQ(QUILLON_STATUS_OK, define(2, 1));
  const std::string element = std::string("qn:") + GetParam().request;
  const std::string expected =
      "<" + element +
      " xmlns=\"urn:x\" xmlns:qn=\"" GRID_NS "\" xmlns:xsi=\"" XSI_NS "\"><qn:name>New</qn:name><qn:version>2.0</qn:version>" +
      "<qn:queryMethods>" + method("readA", "readOnly") + method("readB", "readOnly") + method("writeC", "writeOnly") +
      "</qn:queryMethods><qn:description>what it is</qn:description><qn:vendorPlatform>vendor</qn:vendorPlatform></" + element +
      ">";
  EXPECT_EQ(std::vector<std::string>{to_controller(expected)}, client_.asked());
  EXPECT_EQ(1U, log_.count_exact(std::string(GetParam().response) + " success: New"));
}

TEST_P(ProposeOrModify, CountsOfZeroAndLessAddNothing) {
  reply("<ok xmlns='" GRID_NS "'/>");
  EXPECT_EQ(QUILLON_STATUS_OK,
            GetParam().call(capability_.get(), connection_.get(), "New", "2.0", nullptr, 0, nullptr, -1, "", ""));
  ASSERT_EQ(1U, client_.asked().size());
  EXPECT_NE(std::string::npos, client_.asked()[0].find("<qn:queryMethods/>"));
}

TEST_P(ProposeOrModify, MapsEveryRefusalToItsStatus) {
  reply("<r xmlns='" GRID_NS "'><error><code>42</code><description>exists</description></error></r>");
  EXPECT_EQ(GetParam().refused, define(1, 0));
  EXPECT_EQ(1U, log_.count_exact(std::string(GetParam().response) + " error code: 42"));
  EXPECT_EQ(1U, log_.count_exact(std::string(GetParam().response) + " error description: exists"));
  log_.clear();
  reply("<r xmlns='" GRID_NS "'><error/></r>");
  EXPECT_EQ(GetParam().refused, define(1, 0));
  EXPECT_TRUE(log_.records().empty()) << log_.all();
}

TEST_P(ProposeOrModify, PassesFailuresOn) {
  EXPECT_EQ(QUILLON_STATUS_SEND_TIMEOUT, define(1, 1));
  client_.respond([](const wb_dom_node *) { return "<iq xmlns='jabber:client' type='error'/>"; });
  EXPECT_EQ(QUILLON_STATUS_XMPP_ERROR, define(1, 1));
  EXPECT_FALSE(log_.contains("success"));
  set_connected(false);
  EXPECT_EQ(QUILLON_STATUS_NO_CONNECTION, define(1, 1));
  EXPECT_EQ(1U, log_.count_exact("Connection has not been established"));
  EXPECT_EQ(2U, client_.asked().size());
}

TEST_P(ProposeOrModify, ChecksArgumentsInOrder) {
  struct {
    const quillon_capability *capability;
    quillon_connection *connection;
    const char *name, *version, *description, *platform, *record;
  } rows[] = {{nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, "Invalid capability object"},
              {capability_.get(), nullptr, nullptr, nullptr, nullptr, nullptr, "Invalid connection object"},
              {capability_.get(), connection_.get(), nullptr, nullptr, nullptr, nullptr, "Invalid capability name"},
              {capability_.get(), connection_.get(), "n", nullptr, nullptr, nullptr, "Invalid capability version"},
              {capability_.get(), connection_.get(), "n", "1", nullptr, nullptr, "Invalid capability description"},
              {capability_.get(), connection_.get(), "n", "1", "d", nullptr, "Invalid capability vendor platform"}};
  for (const auto &row : rows) {
    log_.clear();
    EXPECT_EQ(QUILLON_STATUS_UNKNOWN, GetParam().call(row.capability, row.connection, row.name, row.version, nullptr, 0, nullptr,
                                                      0, row.description, row.platform));
    EXPECT_EQ(std::vector<std::string>{row.record}, log_.records());
  }
  for (const int queries : {0, 1}) {
    EXPECT_EQ(QUILLON_STATUS_UNKNOWN,
              GetParam().call(capability_.get(), connection_.get(), "n", "1", nullptr, queries, nullptr, 1 - queries, "d", "v"));
  }
  EXPECT_TRUE(client_.asked().empty());
}

TEST_P(ProposeOrModify, WithoutNamespaceOrMethodNameIsAnXmlError) {
  const char *unnamed[] = {nullptr};
  EXPECT_EQ(QUILLON_STATUS_XML_ERROR,
            GetParam().call(capability_.get(), connection_.get(), "n", "1", unnamed, 1, nullptr, 0, "d", "v"));
  quillon_capability *bare = nullptr;
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_create(&bare));
  const Capability owner(bare);
  EXPECT_EQ(QUILLON_STATUS_XML_ERROR, GetParam().call(bare, connection_.get(), "n", "1", nullptr, 0, nullptr, 0, "d", "v"));
  EXPECT_EQ(2U, log_.count_exact(GetParam().caption)) << log_.all();
  EXPECT_TRUE(client_.asked().empty());
}

}  // namespace

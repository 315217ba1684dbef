#include "quillon_capability.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "grid_session.h"
#include "quillon_connection.h"
#include "quillon_grid.h"
#include "quillon_log_capture.h"

namespace {

using qlk::Registry;
using test_support::Capability;
using test_support::jids_of;
using test_support::make_capability;

class CapabilityObject : public testing::Test {
 protected:
  test_support::QuillonLogCapture log_;
};

// Whether that very record is in the registry.
bool listed(Registry registry, const Capability &capability) {
  const auto snapshot = qlk::registry_snapshot(registry);
  return std::any_of(snapshot.begin(), snapshot.end(), [&](const auto &entry) { return entry.get() == capability.get(); });
}

void add(quillon_capability *capability, const char *jid) { qlk::_add_jid(capability, qlk::make_string(jid).get()); }

TEST_F(CapabilityObject, NamesDecideTheTopic) {
  const Capability plain = make_capability("urn:x", "First"), dynamic = make_capability("urn:x", "Second", true);
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_capability_set_name(plain.get(), "Name"));
  EXPECT_STREQ("Name", quillon_string_cstr(plain->name));
  EXPECT_STREQ("Name-1.0", quillon_string_cstr(plain->topic));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_dynamic_capability_set_name(dynamic.get(), "Name"));
  EXPECT_STREQ("Name", quillon_string_cstr(dynamic->topic));
}

TEST_F(CapabilityObject, ChecksArguments) {
  const Capability capability = make_capability("urn:x", "C");
  log_.clear();
  const std::string too_long(65537, 'x');
  for (const char *bad : {static_cast<const char *>(nullptr), "", too_long.c_str()}) {
    EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_capability_set_name(capability.get(), bad));
    EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_dynamic_capability_set_name(capability.get(), bad));
    EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_capability_set_namespace(capability.get(), bad));
  }
  EXPECT_TRUE(log_.records().empty()) << log_.all();
  EXPECT_STREQ("C-1.0", quillon_string_cstr(capability->topic));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_capability_set_name(nullptr, "C"));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_capability_set_namespace(nullptr, "C"));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_capability_set_filter(nullptr, nullptr));
  EXPECT_EQ(nullptr, quillon_capability_get_jids(nullptr));
  EXPECT_EQ(nullptr, quillon_capability_copy_jids(nullptr));
  qlk::_add_jid(nullptr, nullptr);
  EXPECT_EQ(6U, log_.count_exact("Invalid capability object")) << log_.all();
  qlk::_add_jid(capability.get(), nullptr);
  qlk::_remove_jid(capability.get(), nullptr);
  EXPECT_EQ(2U, log_.count_exact("Invalid jid object"));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_capability_create(nullptr));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_capability_destroy(nullptr));
}

TEST_F(CapabilityObject, KeepsEachPublisherOnceInOrder) {
  const Capability capability = make_capability("urn:x", "C");
  for (const char *jid : {"a@d/q", "b@d/q", "a@d/q", "A@d/q", "c@d/q"}) add(capability.get(), jid);
  qlk::_remove_jid(capability.get(), qlk::make_string("b@d/q").get());
  qlk::_remove_jid(capability.get(), qlk::make_string("unknown@d/q").get());
  EXPECT_EQ((std::vector<std::string>{"a@d/q", "A@d/q", "c@d/q"}), jids_of(capability.get()));
  EXPECT_EQ(3, quillon_array_size(quillon_capability_get_jids(capability.get())));
  add(capability.get(), "b@d/q");
  EXPECT_EQ("b@d/q", jids_of(capability.get()).back()) << "removed and added again";
  size_t index = 9;
  EXPECT_STREQ("a@d/q", quillon_string_cstr(qlk::capability_copy_jid(*capability, index).get()));
  EXPECT_EQ(0U, index);
}

TEST_F(CapabilityObject, StickyKeyIsTheSizeOfTheTopicsBuffer) {
  const Capability plain = make_capability("urn:x", "Abc"), same_size = make_capability("urn:y", "Xyz"),
                   dynamic = make_capability("urn:x", "Abc", true);
  EXPECT_EQ(qlk::capability_sticky_key(*plain), qlk::capability_sticky_key(*same_size));
  EXPECT_EQ(8, qlk::capability_sticky_key(*plain)[0]) << "the seven bytes of the topic and the terminator";
  EXPECT_STREQ("\4", qlk::capability_sticky_key(*dynamic).data());
}

TEST_F(CapabilityObject, EqualMeansNameAndNamespace) {
  const Capability one = make_capability("urn:x", "C"), equal = make_capability("urn:x", "C", true),
                   other = make_capability("urn:y", "C");
  EXPECT_TRUE(quillon_array_obj_equal(one.get(), equal.get()));
  EXPECT_FALSE(quillon_array_obj_equal(one.get(), other.get()));
  quillon_array *array = nullptr;
  quillon_array_create(&array, quillon_array_obj_equal, quillon_array_obj_free);
  quillon_array_add(array, other.get());
  quillon_array_add(array, one.get());
  _remove_capablity_obj(array, equal.get());
  _remove_capablity_obj(array, equal.get());
  EXPECT_EQ(1, quillon_array_size(array));
  EXPECT_EQ(other.get(), quillon_array_get(array, 0));
  quillon_array_destroy(array);
}

TEST_F(CapabilityObject, SubscribingWithoutConnectionOnlyRegisters) {
  const test_support::Connection connection = test_support::make_connection();
  Capability first = make_capability("urn:x", "C"), equal = make_capability("urn:x", "C");
  log_.clear();
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_capability_subscribe(first.get(), connection.get()));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_dynamic_capability_subscribe(equal.get(), connection.get()));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_capability_publish(first.get(), connection.get()));
  EXPECT_TRUE(log_.records().empty()) << log_.all();
  EXPECT_TRUE(listed(Registry::subscriptions, first));
  EXPECT_TRUE(listed(Registry::publications, first));
  EXPECT_FALSE(listed(Registry::subscriptions, equal));
  equal.reset();
  EXPECT_FALSE(listed(Registry::subscriptions, first)) << "the equal one's destruction takes the entry out";
}

TEST_F(CapabilityObject, UnnamedIsListedOnceAndLeavesByIdentity) {
  const test_support::Connection connection = test_support::make_connection();
  const size_t before = qlk::registry_snapshot(Registry::publications).size();
  quillon_capability *unnamed = nullptr;
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_create(&unnamed));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_capability_publish(unnamed, connection.get()));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_capability_publish(unnamed, connection.get()));
  EXPECT_EQ(before + 1, qlk::registry_snapshot(Registry::publications).size());
  quillon_capability_destroy(unnamed);
  EXPECT_EQ(before, qlk::registry_snapshot(Registry::publications).size());
}

TEST_F(CapabilityObject, RequestsRefuseMissingArgumentsAsUnknown) {
  const test_support::Connection connection = test_support::make_connection();
  const Capability owner = make_capability("urn:x", "C");
  quillon_capability *capability = owner.get();
  using Request = QUILLON_STATUS (*)(quillon_capability *, quillon_connection *);
  const Request requests[] = {
      [](quillon_capability *c, quillon_connection *q) { return quillon_capability_subscribe(c, q); },
      [](quillon_capability *c, quillon_connection *q) { return quillon_dynamic_capability_subscribe(c, q); },
      [](quillon_capability *c, quillon_connection *q) { return quillon_capability_publish(c, q); },
      [](quillon_capability *c, quillon_connection *q) { return quillon_dynamic_capability_publish(c, q); },
      [](quillon_capability *c, quillon_connection *q) { return quillon_capability_create_and_query_subscriber(c, q); },
      [](quillon_capability *c, quillon_connection *q) { return quillon_dynamic_capability_create_and_query_subscriber(c, q); },
      quillon_capability_create_and_query_publish,
      quillon_dynamic_capability_create_and_query_publish,
      quillon_dynamic_capability_refresh_publisher_jids};
  for (const Request request : requests) {
    log_.clear();
    EXPECT_EQ(QUILLON_STATUS_UNKNOWN, request(nullptr, connection.get()));
    EXPECT_EQ(1U, log_.count_exact("Invalid capability object"));
    EXPECT_EQ(QUILLON_STATUS_UNKNOWN, request(capability, nullptr));
    EXPECT_EQ(1U, log_.count_exact("Invalid connection object"));
    EXPECT_EQ(2U, log_.records().size()) << log_.all();
  }
}

TEST_F(CapabilityObject, WithoutNameOrNamespaceNoRequestIsBuilt) {
  const test_support::Connection connection = test_support::make_connection();
  quillon_capability *bare = nullptr;
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_create(&bare));
  const Capability owner(bare);
  EXPECT_EQ(QUILLON_STATUS_XML_ERROR, quillon_capability_create_and_query_subscriber(bare, connection.get()));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_capability_set_namespace(bare, "urn:x"));
  EXPECT_EQ(QUILLON_STATUS_XML_ERROR, quillon_dynamic_capability_create_and_query_subscriber(bare, connection.get()));
  EXPECT_EQ(2U, log_.count_exact("quillon_connection_subscribe_capability create dom")) << log_.all();
  EXPECT_EQ(QUILLON_STATUS_XML_ERROR, quillon_capability_create_and_query_publish(bare, connection.get()));
  EXPECT_EQ(1U, log_.count_exact("quillon_capability_publish set dom"));
}

// Requests that reach the controller, which answers as the test says.
class CapabilityRequests : public test_support::GridSession {
 protected:
  void reply(const std::string &payload) {
    client_.respond([payload](const wb_dom_node *) { return payload.empty() ? "" : test_support::grid_reply(payload); });
  }
  static std::string request(const char *element, const std::string &content) {
    return to_controller(std::string("<qn:") + element + " xmlns=\"urn:x\" xmlns:qn=\"" GRID_NS "\" xmlns:xsi=\"" XSI_NS "\">" +
                         content + "</qn:" + element + ">");
  }
  static std::string plain(const char *element, const std::string &filter = "") {
    return request(element,
                   "<qn:capability xsi:type=\"C\"><qn:id>0</qn:id><qn:version>1.0</qn:version>" + filter + "</qn:capability>");
  }

  Capability capability_ = make_capability("urn:x", "C");
};

TEST_F(CapabilityRequests, PlainFormNamesTheCapabilityByItsType) {
  reply("<r xmlns='" GRID_NS "'/>");
  const test_support::Node filter = test_support::parse("<f xmlns='urn:f'><g/></f>");
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_set_filter(capability_.get(), filter.get()));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_capability_subscribe(capability_.get(), connection_.get()));
  EXPECT_EQ(std::vector<std::string>{"successfully subscribed"}, log_.records());
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_capability_publish(capability_.get(), connection_.get()));
  EXPECT_EQ((std::vector<std::string>{"successfully subscribed", "successfully published"}), log_.records());
  EXPECT_EQ((std::vector<std::string>{plain("subscribeRequest", "<f xmlns=\"urn:f\"><g/></f>"), plain("initPublishRequest")}),
            client_.asked());
}

TEST_F(CapabilityRequests, DynamicFormNamesItByElements) {
  reply("<r xmlns='" GRID_NS "'/>");
  const test_support::Node filter = test_support::parse("<f xmlns='urn:f'/>");
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_set_filter(capability_.get(), filter.get()));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_dynamic_capability_subscribe(capability_.get(), connection_.get()));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_dynamic_capability_publish(capability_.get(), connection_.get()));
  ASSERT_EQ(2U, client_.asked().size());
  // The prefix qn is bound to something else on the capability, so the document is compared by its names.
  const auto names = [](const std::string &xml) {
    const test_support::Node iq = test_support::parse(xml);
    const wb_dom_node *root = wb_dom_get_first_child(wb_dom_get_first_child(iq.get()));
    std::string all = wb_dom_get_localname(root);
    for (const wb_dom_node *child = wb_dom_get_first_child(root); child != nullptr; child = wb_dom_get_sibling(child)) {
      EXPECT_STREQ(GRID_NS, wb_dom_get_namespace_uri(child));
      const char *type = wb_dom_get_attribute(child, element_attr_type_name);
      all += std::string(" ") + wb_dom_get_localname(child) + "[" + (type != nullptr ? type : "") + "](";
      for (const wb_dom_node *leaf = wb_dom_get_first_child(child); leaf != nullptr; leaf = wb_dom_get_sibling(leaf)) {
        const char *text = wb_dom_get_first_text(leaf);
        all += std::string(wb_dom_get_localname(leaf)) + "=" + (text != nullptr ? text : "") + ";";
      }
      all += ")";
    }
    return all;
  };
  EXPECT_EQ("subscribeRequest capability[BaseEventsCapability](id=0;name=C;version=1.0;f=;) capabilityRef[](name=C;)",
            names(client_.asked()[0]));
  EXPECT_EQ("initPublishRequest capability[BaseEventsCapability](id=0;name=C;version=1.0;) capabilityRef[](name=C;)",
            names(client_.asked()[1]));
  EXPECT_NE(std::string::npos, client_.asked()[0].find("xmlns:qn=\"BaseEventsCapability\"")) << client_.asked()[0];
}

TEST_F(CapabilityRequests, SubscribeReplyNamesThePublishers) {
  reply("<r xmlns='" GRID_NS
        "'><xmppDetails><x/><jid>a@d/q</jid><jid>b@d/q</jid><other/><j>c@d/q</j><jid/><jid>a@d/q</jid></xmppDetails></r>");
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_capability_subscribe(capability_.get(), connection_.get()));
  EXPECT_EQ((std::vector<std::string>{"a@d/q", "b@d/q", "c@d/q"}), jids_of(capability_.get()));
  EXPECT_EQ(1U, capability_->engines.size()) << "publisher updates are followed";
}

TEST_F(CapabilityRequests, SubscribeFailures) {
  const struct {
    const char *payload;
    QUILLON_STATUS status;
  } rows[] = {{"<r xmlns='" GRID_NS "'><error><code>not authorized for this</code></error></r>", QUILLON_STATUS_NOT_AUTHORIZED},
              {"<r xmlns='" GRID_NS "'><error><code>no</code></error><xmppDetails><jid>a@d/q</jid></xmppDetails></r>",
               QUILLON_STATUS_QUILLON_ERROR},
              {"", QUILLON_STATUS_SEND_TIMEOUT}};
  for (const auto &row : rows) {
    reply(row.payload);
    EXPECT_EQ(row.status, quillon_capability_subscribe(capability_.get(), connection_.get()));
    EXPECT_EQ(row.status, quillon_dynamic_capability_create_and_query_subscriber(capability_.get(), connection_.get()));
  }
  EXPECT_TRUE(jids_of(capability_.get()).empty());
  EXPECT_TRUE(capability_->engines.empty());
  client_.respond([](const wb_dom_node *) { return "<iq xmlns='jabber:client' type='error'/>"; });
  EXPECT_EQ(QUILLON_STATUS_XMPP_ERROR, quillon_capability_subscribe(capability_.get(), connection_.get()));
  EXPECT_FALSE(log_.contains("successfully subscribed"));
}

TEST_F(CapabilityRequests, RefreshReadsThePublishersOfThisCapability) {
  const auto list = [](const char *name, const std::string &jids) {
    return std::string("<publisherInfo><capabilityRef><name>") + name + "</name></capabilityRef>" + jids + "</publisherInfo>";
  };
  const std::string head = "<r xmlns='" GRID_NS "'>";
  reply(head + list("Other", "<publisherJID>x@d/q</publisherJID>") + "<publisherInfo/><any><capabilityRef/></any>" +
        list("C", "<publisherJID>a@d/q</publisherJID><whatever>b@d/q</whatever>") + "</r>");
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_dynamic_capability_refresh_publisher_jids(capability_.get(), connection_.get()));
  EXPECT_EQ((std::vector<std::string>{"a@d/q", "b@d/q"}), jids_of(capability_.get()));
  EXPECT_EQ(
      std::vector<std::string>{to_controller("<qn:getAllPublishersRequest xmlns:qn=\"" GRID_NS "\" xmlns:xsi=\"" XSI_NS "\"/>")},
      client_.asked());
  reply(head + list("C", "<publisherJID>c@d/q</publisherJID><publisherJID/>") + "</r>");
  EXPECT_EQ(QUILLON_STATUS_XML_ERROR, quillon_dynamic_capability_refresh_publisher_jids(capability_.get(), connection_.get()));
  reply("");
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_dynamic_capability_refresh_publisher_jids(capability_.get(), connection_.get()));
  EXPECT_EQ(3U, jids_of(capability_.get()).size());
  EXPECT_EQ(1U, capability_->engines.size());
}

TEST_F(CapabilityRequests, AConnectAnnouncesAllAgainInThePlainForm) {
  set_connected(false);
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_dynamic_capability_subscribe(capability_.get(), connection_.get()));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_dynamic_capability_publish(capability_.get(), connection_.get()));
  EXPECT_TRUE(client_.asked().empty());
  set_connected(true);
  client_.respond([](const wb_dom_node *iq) {
    const std::string xml = test_support::serialize(iq);
    return xml.find("CoreCapability") != std::string::npos ? "" : test_support::grid_reply("<r xmlns='" GRID_NS "'/>");
  });
  log_.clear();
  quillon_capability_on_connected(connection_.get());
  ASSERT_EQ(3U, client_.asked().size());
  EXPECT_NE(std::string::npos, client_.asked()[0].find("xsi:type=\"CoreCapability\""));
  EXPECT_EQ(plain("subscribeRequest"), client_.asked()[1]);
  EXPECT_EQ(plain("initPublishRequest"), client_.asked()[2]);
  std::vector<std::string> records = log_.records();
  std::erase_if(records, [](const std::string &record) {
    return record.find("uccess") == record.npos && record.find("WARNING") == record.npos;
  });
  EXPECT_EQ((std::vector<std::string>{"WARNING - quillon_capability_subscribe failed", "successfully subscribed",
                                      "Successfully published"}),
            records);
  quillon_capability_on_connected(nullptr);
  EXPECT_EQ(1U, log_.count_exact("Invalid connection object"));
}

TEST_F(CapabilityRequests, EveryConnectAnnouncesItsCoreCapability) {
  reply("<r xmlns='" GRID_NS "'/>");
  test_support::make_connection().reset();  // takes the one entry of the core capabilities with it
  quillon_capability_on_connected(connection_.get());
  ASSERT_EQ(1U, client_.asked().size());
  EXPECT_NE(std::string::npos, client_.asked()[0].find("xsi:type=\"CoreCapability\""));
}

TEST_F(CapabilityRequests, CapabilitiesComeAndGoWhileTheyAreAnnounced) {
  reply("<r xmlns='" GRID_NS "'><xmppDetails><jid>a@d/q</jid></xmppDetails></r>");
  std::atomic<bool> stop = false;
  std::thread announcer([&] {
    while (!stop) quillon_capability_on_connected(connection_.get());
  });
  for (int i = 0; i < 200; ++i) {
    const test_support::Node filter = test_support::parse("<f xmlns='urn:f'/>");
    const Capability passing = make_capability("urn:x", ("P" + std::to_string(i)).c_str());
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_capability_set_filter(passing.get(), filter.get()));
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_capability_subscribe(passing.get(), connection_.get()));
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_capability_publish(passing.get(), connection_.get()));
  }
  stop = true;
  announcer.join();
  EXPECT_EQ(1U, qlk::registry_snapshot(Registry::subscriptions).size()) << "the core capability";
}

}  // namespace

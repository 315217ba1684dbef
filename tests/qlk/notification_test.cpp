#include "quillon_notification.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>

#include "grid_session.h"
#include "quillon_capability.h"
#include "quillon_connection.h"
#include "quillon_grid.h"
#include "quillon_log_capture.h"
#include "wait_for.h"

namespace {

using test_support::Node;
using test_support::parse;
using test_support::wait_for;
using Handler = std::function<void(wb_dom_node *)>;

void call(wb_dom_node *payload, void *arg) { (*static_cast<Handler *>(arg))(payload); }

std::string grid(const std::string &payload) { return "<grid xmlns='quillon' type='notification'>" + payload + "</grid>"; }
std::string message(const std::string &from, const std::string &content) {
  return "<message xmlns='jabber:client' from='" + from + "'>" + content + "</message>";
}
std::string event(const std::string &content) {
  return message(PUBSUB_JID, "<event xmlns='http://jabber.org/protocol/pubsub#event'>" + content + "</event>");
}
std::string from_controller(const std::string &payload) { return message(CONTROLLER_JID, grid(payload)); }
std::string update(const char *change, const char *jid) {
  return from_controller(std::string("<publisherUpdateNotification xmlns='" GRID_NS "'><change>") + change +
                         "</change><publisherJID>" + jid + "</publisherJID></publisherUpdateNotification>");
}

class NotificationEngine : public testing::Test {
 protected:
  NotificationEngine() {
    on("urn:last", "last", last_);
    log_.clear();
  }

  void on(const char *ns, const char *name, Handler &handler) {
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_register_notification_handler(connection_.get(), ns, name, call, &handler));
  }
  void follow(quillon_capability *capability) {
    EXPECT_EQ(QUILLON_STATUS_OK,
              quillon_connection_register_notification_handler(connection_.get(), GRID_NS, publish_update_notif_name,
                                                               _publisher_update_notification, capability));
  }
  void handle(const std::string &xml) {
    const Node node = parse(xml);
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_notification_handle(connection_->notification, node.get()));
  }
  // Messages are dispatched in order: once a last one was, the others were too.
  void handle_and_wait(const std::string &xml) {
    handle(xml);
    const int before = last_calls_;
    handle(from_controller("<last xmlns='urn:last'/>"));
    ASSERT_TRUE(wait_for([&] { return last_calls_ > before; }));
  }

  test_support::QuillonLogCapture log_;
  test_support::Connection connection_ = test_support::make_connection();
  std::atomic<int> last_calls_ = 0;
  Handler last_ = [this](wb_dom_node *) { ++last_calls_; };
};

struct Case {
  const char *name;
  std::string xml, record;  // without a record the notification is dispatched
};
// Names the case in failure messages.
void PrintTo(const Case &c, std::ostream *out) { *out << c.name; }
const Case kCases[] = {
    {"FromService", event("<items><item>" + grid("<n xmlns='urn:x'/>") + "</item></items>"), ""},
    {"FromServiceWithResource", message(PUBSUB_JID "/1", "<a><b><c>" + grid("<n xmlns='urn:x'/>") + "</c></b></a>"), ""},
    {"FromController", from_controller("<n xmlns='urn:x'/>"), ""},
    {"GridOfAnotherName", message(CONTROLLER_JID, "<other type='notifications'><n xmlns='urn:x'/></other>"), ""},
    {"UserNamedLikeTheService", message(PUBSUB_JID ".evil", grid("<n xmlns='urn:x'/>")),
     "Notification source unknown: " PUBSUB_JID ".evil"},
    {"UserNamedLikeTheController", message(CONTROLLER_JID "2", grid("<n xmlns='urn:x'/>")),
     "Notification source unknown: " CONTROLLER_JID "2"},
    {"ControllersOtherResource", message(CONTROLLER_JID "/2", grid("<n xmlns='urn:x'/>")),
     "Notification source unknown: " CONTROLLER_JID "/2"},
    {"NoSender", "<message xmlns='jabber:client'/>", "Get attribute for from failed"},
    {"NoEvent", message(PUBSUB_JID, ""), "Get event_node failed"},
    {"NoItems", event(""), "Get items failed"},
    {"NoItem", event("<items/>"), "Get item failed"},
    {"NoGridInItem", event("<items><item/></items>"), "Get grid failed"},
    {"NoGridInMessage", message(CONTROLLER_JID, ""), "Get grid failed"},
    {"NoGridType", message(CONTROLLER_JID, "<grid xmlns='quillon'/>"), "Get type attribute failed"},
    {"Request", message(CONTROLLER_JID, "<grid xmlns='quillon' type='request'/>"), "Expected type notification. But got request"},
    {"NoPayload", message(CONTROLLER_JID, grid("")), "Get notfication call failed"}};
class NotificationForms : public NotificationEngine, public testing::WithParamInterface<Case> {};
TEST_P(NotificationForms, AreDispatchedOrDroppedWithARecord) {
  int calls = 0;
  Handler handler = [&](wb_dom_node *payload) {
    ++calls;
    EXPECT_STREQ("{urn:x}n", wb_dom_get_ename(payload));
  };
  on("urn:x", "n", handler);
  handle_and_wait(GetParam().xml);
  const std::string &record = GetParam().record;
  EXPECT_EQ(record.empty() ? 1 : 0, calls);
  EXPECT_EQ(record.empty() ? 0U : 1U, log_.records().size()) << log_.all();
  if (!record.empty()) {
    EXPECT_EQ(1U, log_.count_exact(record)) << log_.all();
  }
}
INSTANTIATE_TEST_SUITE_P(Messages, NotificationForms, testing::ValuesIn(kCases),
                         [](const auto &c) { return std::string(c.param.name); });

TEST_F(NotificationEngine, SaysNothingAboutASubscriptionEvent) {
  handle_and_wait(event("<subscription jid='a@d/qlk' node='C-1.0' subscription='subscribed'/>"));
  EXPECT_TRUE(log_.records().empty()) << log_.all();
}

TEST_F(NotificationEngine, RunsAllHandlersInOrderAndAsOftenAsRegistered) {
  std::string order;
  Handler first = [&](wb_dom_node *) { order += '1'; };
  Handler second = [&](wb_dom_node *) { order += '2'; };
  on("urn:x", "Note", first);
  on("URN:X", "NOTE", second);
  on("urn:x", "note", first);
  handle_and_wait(from_controller("<note xmlns='urn:x'/>"));
  EXPECT_EQ("121", order);
}

TEST_F(NotificationEngine, HandlerRegisteredByAHandlerRunsFromTheNextMessageOn) {
  int calls = 0;
  Handler late = [&](wb_dom_node *) { ++calls; };
  bool registered = false;
  Handler early = [&](wb_dom_node *) {
    if (!std::exchange(registered, true)) on("urn:x", "n", late);
  };
  on("urn:x", "n", early);
  handle_and_wait(from_controller("<n xmlns='urn:x'/>"));
  EXPECT_EQ(0, calls);
  handle_and_wait(from_controller("<n xmlns='urn:x'/>"));
  EXPECT_EQ(1, calls);
}

TEST_F(NotificationEngine, AppliesPublisherUpdates) {
  const test_support::Capability capability = test_support::make_capability("urn:x", "C");
  follow(capability.get());
  handle(update("add", "a@d/qlk"));
  handle(update("added", "b@d/qlk"));
  handle(update("add", "a@d/qlk"));
  handle(update("update", "c@d/qlk"));
  handle(update("delete", "unknown@d/qlk"));
  handle(from_controller("<publisherUpdateNotification xmlns='" GRID_NS "'><change>add</change></publisherUpdateNotification>"));
  handle_and_wait(update("deleted", "a@d/qlk"));
  EXPECT_EQ(std::vector<std::string>{"b@d/qlk"}, test_support::jids_of(capability.get()));
}

size_t update_handlers(quillon_notification &notification) {
  const std::lock_guard lock(notification.map_mutex);
  const void *slot = wb_htable_get(notification.map_of_name_to_callback.get(), "{" GRID_NS "}publisherUpdateNotification");
  return slot != nullptr ? (*static_cast<const std::shared_ptr<qlk::NotificationHandlers> *>(slot))->size() : 0;
}

TEST_F(NotificationEngine, KeepsOneUpdateRegistrationForEachLivingCapability) {
  quillon_notification &engine = *connection_->notification;
  test_support::Capability first = test_support::make_capability("urn:x", "C");
  const test_support::Capability second = test_support::make_capability("urn:x", "D");
  for (int reconnects = 0; reconnects < 5; ++reconnects) {
    follow(first.get());
    follow(second.get());
  }
  EXPECT_EQ(2U, update_handlers(engine));
  const test_support::Connection other = test_support::make_connection();
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_register_notification_handler(other.get(), GRID_NS, publish_update_notif_name,
                                                                                _publisher_update_notification, first.get()));
  first.reset();
  EXPECT_EQ(1U, update_handlers(engine));
  EXPECT_EQ(0U, update_handlers(*other->notification));
}

TEST_F(NotificationEngine, CapabilityDestroyedDuringDispatchIsNotTouched) {
  test_support::Capability first = test_support::make_capability("urn:x", "C");
  test_support::Capability second = test_support::make_capability("urn:x", "D");
  Handler destroy = [&](wb_dom_node *) {
    first.reset();
    second.reset();
  };
  follow(first.get());
  on(GRID_NS, publish_update_notif_name, destroy);
  follow(second.get());
  handle_and_wait(update("add", "a@d/qlk"));
  EXPECT_EQ(nullptr, second);
  EXPECT_EQ(1U, update_handlers(*connection_->notification)) << "only the application's own is left";
}

TEST_F(NotificationEngine, CapabilityDestroyedDuringDispatchIsForgottenByAListThatChangesThen) {
  test_support::Capability capability = test_support::make_capability("urn:x", "C");
  Handler added = [](wb_dom_node *) {};
  Handler destroy = [&](wb_dom_node *) {
    if (capability == nullptr) return;
    capability.reset();
    on(GRID_NS, publish_update_notif_name, added);
  };
  on(GRID_NS, publish_update_notif_name, destroy);
  follow(capability.get());
  handle_and_wait(update("add", "a@d/qlk"));
  EXPECT_EQ(2U, update_handlers(*connection_->notification)) << "the application's own two are left";
}

TEST_F(NotificationEngine, CapabilitiesComeAndGoWhileUpdatesAreDispatched) {
  std::atomic<bool> stop = false;
  std::thread updates([&] {
    for (unsigned i = 0; !stop; ++i) handle(update(i % 2 == 0 ? "add" : "delete", "a@d/qlk"));
  });
  std::thread reader([&] {
    const test_support::Capability lasting = test_support::make_capability("urn:x", "L");
    follow(lasting.get());
    while (!stop) test_support::jids_of(lasting.get());
  });
  for (int i = 0; i < 200; ++i) {
    const test_support::Capability capability = test_support::make_capability("urn:x", "C");
    follow(capability.get());
    test_support::jids_of(capability.get());
  }
  stop = true;
  updates.join();
  reader.join();
  EXPECT_EQ(0U, update_handlers(*connection_->notification));
}

TEST_F(NotificationEngine, LetsAHandlerDestroyItsConnection) {
  std::atomic<bool> destroyed = false;
  std::atomic<int> further = 0;
  Handler destroy = [&](wb_dom_node *) {
    connection_.reset();
    destroyed = true;
  };
  Handler never = [&](wb_dom_node *) { ++further; };
  on("urn:x", "n", destroy);
  on("urn:x", "n", never);
  const std::weak_ptr<quillon_notification> engine = connection_->notification->weak_self;
  handle(from_controller("<n xmlns='urn:x'/>"));
  ASSERT_TRUE(wait_for([&] { return destroyed && engine.expired(); }));
  EXPECT_EQ(0, further);
}

TEST_F(NotificationEngine, ChecksArguments) {
  const test_support::Capability capability = test_support::make_capability("urn:x", "C");
  const Node payload = parse("<n xmlns='urn:x'/>");
  EXPECT_EQ(QUILLON_STATUS_QUILLON_ERROR, quillon_notification_call(nullptr, capability.get(), payload.get()));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_notification_register_handler(nullptr, nullptr, nullptr, call, nullptr));
  EXPECT_TRUE(log_.records().empty()) << log_.all();
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_notification_call(connection_->notification, nullptr, payload.get()));
  EXPECT_EQ(QUILLON_STATUS_WB_ERROR, quillon_notification_handle(connection_->notification, nullptr));
  EXPECT_EQ(1U, log_.count_exact("quillon_notification_handle retain failed"));
  const std::string too_long(65537, 'n');
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS,
            quillon_connection_register_notification_handler(connection_.get(), "urn:x", too_long.c_str(), call, nullptr));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_notification_destroy(nullptr));
}

TEST_F(NotificationEngine, PublishWithoutATopicIsAnXmlErrorAndConsumesThePayload) {
  quillon_capability *unnamed = nullptr;
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_create(&unnamed));
  const test_support::Capability owner(unnamed);
  EXPECT_EQ(QUILLON_STATUS_XML_ERROR,
            quillon_connection_notify(connection_.get(), unnamed, parse("<n xmlns='urn:x'/>").release()));
  EXPECT_EQ(1U, log_.count("quillon_connection_notify"));
}

class Publishing : public test_support::GridSession {};

TEST_F(Publishing, SendsTheItemToTheTopicUnderRisingIds) {
  const test_support::Capability capability = test_support::make_capability("urn:x", "C");
  connection_->notification->iq_id = 0xab9;
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(QUILLON_STATUS_OK,
              quillon_connection_notify(connection_.get(), capability.get(), parse("<n xmlns='urn:x'>1</n>").release()));
  }
  const auto expected = [](const std::string &id) {
    return "<iq xmlns=\"jabber:client\" id=\"" + id + "\" to=\"" PUBSUB_JID "\" type=\"set\">" +
           "<pubsub xmlns=\"http://jabber.org/protocol/pubsub\"><publish node=\"C-1.0\"><item>"
           "<grid xmlns=\"quillon\" type=\"notification\"><n xmlns=\"urn:x\">1</n></grid></item></publish></pubsub></iq>";
  };
  EXPECT_EQ((std::vector<std::string>{expected("ab9"), expected("aba")}), client_.sent());
}

TEST_F(Publishing, TheFirstIdIsTheTimeOfCreation) {
  const int64_t now = static_cast<int64_t>(std::time(nullptr));
  const int64_t seed = connection_->notification->iq_id;
  EXPECT_EQ(0, seed % 1000);
  EXPECT_LE(now - 60, seed / 1000);
  EXPECT_GE(now, seed / 1000);
}

}  // namespace

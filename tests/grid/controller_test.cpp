// What the controller decides: definitions, rights, tokens, and whom it refuses.
#include <gtest/gtest.h>

#include "grid_client.h"

namespace {

using grid_test::Client;
using test_support::LocalGrid;

class ControllerTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { grid_ = std::make_unique<LocalGrid>(LocalGrid::Approval::automatic); }
  static void TearDownTestSuite() { grid_.reset(); }
  static std::unique_ptr<LocalGrid> grid_;
};
std::unique_ptr<LocalGrid> ControllerTest::grid_;

constexpr char kGrid[] = "{http://quillon.internal/quillon}";

std::string name_in_grid(const char *local) { return std::string(kGrid) + local; }

// <name xmlns=grid/> with an optional child, sent to the controller; the answer as XML, empty when there was none.
std::string ask_controller(Client &client, const char *name, const char *child = nullptr, const char *text = "") {
  wb_dom_ctx *context = nullptr;
  wb_dom_node *request = nullptr, *element = nullptr, *content = nullptr, *response = nullptr;
  EXPECT_TRUE(wb_dom_context_create(&context, nullptr));
  EXPECT_TRUE(wb_dom_element_create(context, name_in_grid(name).c_str(), &request, nullptr));
  if (child != nullptr) {
    EXPECT_TRUE(wb_dom_element_create(context, name_in_grid(child).c_str(), &element, nullptr));
    EXPECT_TRUE(wb_dom_text_create(context, text, &content, nullptr));
    EXPECT_TRUE(wb_dom_add_child(element, content, nullptr) && wb_dom_add_child(request, element, nullptr));
  }
  if (quillon_connection_query_controller(client.connection, request, &response) != QUILLON_STATUS_OK) return "";
  char *xml = nullptr;
  EXPECT_TRUE(wb_serialize_xml(response, &xml, nullptr, nullptr));
  const std::string answer = xml;
  free(xml);
  wb_dom_context_destroy(wb_dom_get_context(response));
  return answer;
}

bool holds(const std::string &text, const char *part) { return text.find(part) != std::string::npos; }

}  // namespace

TEST_F(ControllerTest, DefinitionsAreProposedOnceAndModifiedOnlyWhenTheyExist) {
  Client client(*grid_, "definer");
  ASSERT_EQ(QUILLON_STATUS_OK, client.connect());
  quillon_capability *capability = client.add_capability("unused");
  const char *queries[] = {"get", "list"}, *actions[] = {"set"}, *twice[] = {"get", "get"}, *nameless[] = {""};
  struct Case {
    const char *why;
    decltype(&quillon_capability_propose) act;
    const char *name, *version;
    const char **queries;
    int count;
    QUILLON_STATUS expected;
  };
  constexpr auto propose = quillon_capability_propose;
  constexpr auto modify = quillon_capability_modify;
  const Case cases[] = {
      {"new", propose, "Defined", "1.0", queries, 2, QUILLON_STATUS_OK},
      {"duplicate", propose, "Defined", "2.0", queries, 2, QUILLON_STATUS_PROPOSE_CAPABILITY_ERROR},
      {"no name", propose, "", "1.0", queries, 2, QUILLON_STATUS_PROPOSE_CAPABILITY_ERROR},
      {"no version", propose, "Other", "", queries, 2, QUILLON_STATUS_PROPOSE_CAPABILITY_ERROR},
      {"an operation twice", propose, "Other", "1.0", twice, 2, QUILLON_STATUS_PROPOSE_CAPABILITY_ERROR},
      {"an operation without a name", propose, "Other", "1.0", nameless, 1, QUILLON_STATUS_PROPOSE_CAPABILITY_ERROR},
      {"the controller's own", propose, "CoreCapability", "1.0", queries, 2, QUILLON_STATUS_PROPOSE_CAPABILITY_ERROR},
      {"unknown", modify, "Other", "1.0", queries, 2, QUILLON_STATUS_MODIFY_CAPABILITY_ERROR},
      {"the controller's own", modify, "CoreCapability", "9.0", queries, 2, QUILLON_STATUS_MODIFY_CAPABILITY_ERROR},
      {"known", modify, "Defined", "1.1", queries, 1, QUILLON_STATUS_OK},
  };
  for (const Case &test : cases) {
    EXPECT_EQ(test.expected, test.act(capability, client.connection, test.name, test.version, test.queries, test.count, actions,
                                      1, "a description", "a platform"))
        << test.why << " " << test.name;
  }
  const std::string status = ask_controller(client, "getCapabilityStatusRequest", "name", "Defined");
  for (const char *part : {"1.1", "a description", "a platform", "get", "readOnly", "set", "writeOnly", "inactive"}) {
    EXPECT_TRUE(holds(status, part)) << part << " in " << status;
  }
  EXPECT_FALSE(holds(status, "list")) << "the modification left it out: " << status;
  EXPECT_TRUE(holds(ask_controller(client, "getCapabilityStatusRequest", "name", "Other"), "not registered"));
}

TEST_F(ControllerTest, ChangesAreAnnouncedToEverybody) {
  grid_test::Record<std::string> updates;
  Client watcher(*grid_, "change-watcher"), definer(*grid_, "change-definer");
  quillon_connection_register_topic_notification_handler(
      watcher.connection,
      [](wb_dom_node *node, void *record) {
        const auto text = [&](const char *name) {
          return grid_test::text_of(wb_dom_get_first_element(node, name_in_grid(name).c_str()));
        };
        static_cast<grid_test::Record<std::string> *>(record)->add(text("change") + " " + text("name") + " " + text("version"));
      },
      &updates);
  for (Client *client : {&watcher, &definer}) ASSERT_EQ(QUILLON_STATUS_OK, client->connect());
  quillon_capability *capability = definer.add_capability("unused");
  ASSERT_EQ(QUILLON_STATUS_OK,
            quillon_capability_propose(capability, definer.connection, "Changing", "1.0", nullptr, 0, nullptr, 0, "d", "p"));
  ASSERT_EQ(QUILLON_STATUS_OK,
            quillon_capability_modify(capability, definer.connection, "Changing", "2.0", nullptr, 0, nullptr, 0, "d", "p"));
  EXPECT_EQ((std::vector<std::string>{"add Changing 1.0", "update Changing 2.0"}), updates.wait_for(2));
}

TEST_F(ControllerTest, RightsAreTrueOnlyForWhatWasGranted) {
  Client client(*grid_, "asking"), granted(*grid_, "granted");
  for (Client *each : {&client, &granted}) ASSERT_EQ(QUILLON_STATUS_OK, each->connect());
  const auto may = [&](const char *operation, const char *user) {
    return quillon_connection_is_authorized(client.connection, "Guarded", operation, user);
  };
  EXPECT_FALSE(may("open", "granted"));
  grid_->allow("granted", "Guarded", "open");
  EXPECT_TRUE(may("open", "granted"));
  EXPECT_TRUE(may("open", ("Granted@" + grid_->domain() + "/qlk").c_str()));
  EXPECT_FALSE(may("close", "granted"));
  EXPECT_FALSE(may("open", "asking"));
  EXPECT_FALSE(may("open", "nobody"));
  grid_->disable("granted");
  EXPECT_FALSE(may("open", "granted")) << "of an account that is disabled";
  grid_->approve("granted");
  EXPECT_TRUE(may("open", "granted"));
  grid_->forbid("granted", "Guarded", "open");
  EXPECT_FALSE(may("open", "granted"));
}

TEST_F(ControllerTest, TokensBelongToTheirUserUntilTheAccountIsDeleted) {
  Client client(*grid_, "token-user");
  ASSERT_EQ(QUILLON_STATUS_OK, client.connect());
  std::string tokens[2];
  for (std::string &text : tokens) {
    quillon_authentication_token *token = nullptr;
    ASSERT_EQ(QUILLON_STATUS_OK, quillon_authentication_token_create(&token, client.connection));
    const char *value = quillon_authentication_token_get(token);
    ASSERT_NE(nullptr, value);
    text = value;
    EXPECT_EQ("token-user", grid_->token_owner(text));
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_authentication_token_destroy(token));
  }
  EXPECT_NE(tokens[0], tokens[1]);
  EXPECT_EQ(64u, tokens[0].size());
  EXPECT_EQ("", grid_->token_owner(tokens[0].substr(1)));
  EXPECT_EQ(std::string::npos, grid_->controller_log().find(tokens[0]));
  grid_->remove("token-user");
  EXPECT_EQ("", grid_->token_owner(tokens[0]));
}

TEST_F(ControllerTest, AForbiddenSubscriberIsRefusedAndOneWhoIsForbiddenLaterHearsNothingMore) {
  Client publisher(*grid_, "forbid-publisher"), subscriber(*grid_, "forbid-subscriber"), refused(*grid_, "forbid-refused");
  subscriber.listen();
  for (Client *client : {&publisher, &subscriber, &refused}) ASSERT_EQ(QUILLON_STATUS_OK, client->connect());
  grid_->forbid("forbid-refused", "Forbidden", "subscribe");
  EXPECT_EQ(QUILLON_STATUS_NOT_AUTHORIZED, quillon_capability_subscribe(refused.add_capability("Forbidden"), refused.connection));
  quillon_capability *published = publisher.add_capability("Forbidden");
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_publish(published, publisher.connection));
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_subscribe(subscriber.add_capability("Forbidden"), subscriber.connection));
  const auto tell = [&](const char *text) {
    ASSERT_EQ(QUILLON_STATUS_OK, quillon_connection_notify(publisher.connection, published, grid_test::payload("told", text)));
  };
  tell("before");
  ASSERT_EQ(std::vector<std::string>{"before"}, subscriber.told.wait_for(1));
  grid_->forbid("forbid-subscriber", "Forbidden", "subscribe");  // returns when the topic is closed to it
  tell("hidden");
  grid_->allow("forbid-subscriber", "Forbidden", "subscribe");
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_subscribe(subscriber.add_capability("Forbidden"), subscriber.connection));
  tell("after");
  EXPECT_EQ((std::vector<std::string>{"before", "after"}), subscriber.told.wait_for(2));
}

TEST_F(ControllerTest, AnAccountThatIsNotApprovedGetsNothing) {
  Client client(*grid_, "outsider");
  grid_->deny("outsider");
  ASSERT_EQ(QUILLON_STATUS_CONNECTION_DENIED, client.connect());  // the session stays up
  for (const char *request :
       {"getRegisteredCapabilitiesRequest", "getAllPublishersRequest", "subscribeRequest", "proposeCapabilityRequest"}) {
    EXPECT_TRUE(holds(ask_controller(client, request), "not authorized")) << request;
  }
  EXPECT_EQ("", ask_controller(client, "noSuchRequest")) << "an XMPP error, and no waiting for the time-out";
}

TEST_F(ControllerTest, ADynamicCapabilityKeepsItsTopicWhenItIsAnnouncedInThePlainForm) {
  LocalGrid grid(LocalGrid::Approval::automatic);
  Client publisher(grid, "dynamic-publisher"), subscriber(grid, "dynamic-subscriber");
  subscriber.listen();
  quillon_capability *capability = nullptr;
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_create(&capability));
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_set_namespace(capability, grid_test::kNamespace));
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_dynamic_capability_set_name(capability, "Changeable"));
  for (Client *client : {&publisher, &subscriber}) ASSERT_EQ(QUILLON_STATUS_OK, client->connect());
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_dynamic_capability_publish(capability, publisher.connection));
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_dynamic_capability_subscribe(capability, subscriber.connection));
  for (size_t round = 1; round <= 2; ++round) {
    SCOPED_TRACE(round);
    grid.server_stop();
    for (Client *client : {&publisher, &subscriber}) ASSERT_EQ(round, client->disconnected.wait_for(round).size());
    grid.server_forget();  // so that only what is announced again can work
    grid.server_start();
    for (Client *client : {&publisher, &subscriber}) ASSERT_EQ(QUILLON_STATUS_OK, client->connect());
    ASSERT_EQ(QUILLON_STATUS_OK,
              quillon_connection_notify(publisher.connection, capability, grid_test::payload("told", "still here")));
    EXPECT_EQ(std::vector<std::string>(round, "still here"), subscriber.told.wait_for(round));
  }
  publisher.destroy_connection();
  subscriber.destroy_connection();
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_capability_destroy(capability));
}

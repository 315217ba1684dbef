// What an application does, each time with something that cannot be had.
#include <qlk/testpeer/wait.hpp>

#include "member.h"
#include "quillon_grid.h"
#include "servers.h"
#include "stream_parser.h"
#include "sweep.h"

namespace exhaustion {
namespace {

using testpeer::eventually;
using Statuses = std::vector<QUILLON_STATUS>;

constexpr QUILLON_STATUS kOk = QUILLON_STATUS_OK;

// What every exchange with the grid may come to: it could not be written, could not be sent, or was not answered.
const Statuses kExchange = {QUILLON_STATUS_XML_ERROR, QUILLON_STATUS_SEND_TIMEOUT, QUILLON_STATUS_SEND_ERROR,
                            QUILLON_STATUS_UNKNOWN,   QUILLON_STATUS_XMPP_ERROR,   QUILLON_STATUS_QUILLON_ERROR};

Statuses with(Statuses more) {
  more.insert(more.end(), kExchange.begin(), kExchange.end());
  return more;
}

// ---- The life of a connection

Flow create_flow(Member &) {
  static quillon_connection *made;
  return {.name = "create",
          .statuses = {QUILLON_STATUS_QUILLON_ERROR, QUILLON_STATUS_WB_ERROR, QUILLON_STATUS_EVENT_ERROR},
          .prepare = [] { made = nullptr; },
          .act = [] { return quillon_connection_create(&made); },
          .verify =
              [](QUILLON_STATUS status) {
                ASSERT_EQ(status == kOk, made != nullptr) << status;
                quillon_connection_destroy(made);
              },
          .may_leave = was_left_as_it_was};
}

Flow connect_flow(Member &member) {
  return {.name = "connect",
          .statuses = with({QUILLON_STATUS_CONNECTION_ERROR, QUILLON_STATUS_WB_ERROR, QUILLON_STATUS_PTHREAD_ERROR}),
          .prepare =
              [&member] {
                member.disconnect();
                member.forget_calls();
              },
          .act = [&member] { return member.connect(); },
          .verify =
              [&member](QUILLON_STATUS status) {
                EXPECT_EQ(status == kOk ? 1 : 0, member.connected());
                EXPECT_LE(member.disconnected(), 1);
                member.expect_up();
                EXPECT_EQ(kOk, member.disconnect());
                EXPECT_FALSE(member.is_connected());
              }};
}

// The name is looked up on a thread of its own.
Flow connect_by_name_flow(Member &member) {
  const std::string &host = servers().host;
  quillon_config_set_host(member.config(), ("localhost" + host.substr(host.rfind(':'))).c_str());
  Flow flow = connect_flow(member);
  flow.name = "connect by name";
  return flow;
}

Flow disconnect_flow(Member &member) {
  return {.name = "disconnect",
          .statuses = {},
          .prepare =
              [&member] {
                member.expect_up();
                member.forget_calls();
              },
          .act = [&member] { return member.disconnect(); },
          .verify =
              [&member](QUILLON_STATUS status) {
                EXPECT_FALSE(status == kOk && member.is_connected());
                EXPECT_TRUE(status != kOk || member.disconnected() == 1) << member.disconnected();
                EXPECT_EQ(kOk, member.disconnect());
                EXPECT_EQ(1, member.disconnected());
                member.expect_up();
              }};
}

Flow destroy_flow(Member &member) {
  return {.name = "destroy",
          .statuses = {},
          .prepare = [&member] { member.expect_up(); },
          .act = [&member] { return member.destroy_connection(); },
          .verify = [&member](QUILLON_STATUS) { member.make_connection(); }};
}

// ---- What a member does

// As if the controller had told of another publisher.
void tell_of_publisher(Member &member) {
  const test_support::Node message = test_support::parse(
      "<message from='" CONTROLLER_JID "'><grid xmlns='quillon' type='notification'><publisherUpdateNotification xmlns='" GRID_NS
      "'><change>add</change><publisherJID>carol@" GRID_DOMAIN
      "/qlk</publisherJID></publisherUpdateNotification></grid></message>");
  EXPECT_EQ(kOk, quillon_notification_handle(member.connection()->notification, message.get()));
}

Flow subscribe_flow(Member &member) {
  static test_support::Capability capability;
  return {.name = "subscribe",
          .statuses = kExchange,
          .prepare =
              [&member] {
                member.expect_up();
                capability = test_support::make_capability(kNamespace, "Tides");
              },
          .act = [&member] { return quillon_capability_subscribe(capability.get(), member.connection()); },
          .verify =
              [&member](QUILLON_STATUS status) {
                if (status == kOk) {
                  EXPECT_EQ(1U, test_support::jids_of(capability.get()).size());
                  tell_of_publisher(member);
                  EXPECT_TRUE(eventually(kDeadline, [] { return test_support::jids_of(capability.get()).size() == 2; }));
                }
                member.expect_works_again([&] { return quillon_capability_subscribe(capability.get(), member.connection()); });
                EXPECT_LE(1U, test_support::jids_of(capability.get()).size());
                capability.reset();
              }};
}

Flow publish_flow(Member &member) {
  return {.name = "publish",
          .statuses = kExchange,
          .prepare = [&member] { member.expect_up(); },
          .act = [&member] { return quillon_capability_publish(member.capability(), member.connection()); },
          .verify =
              [&member](QUILLON_STATUS) {
                member.expect_works_again([&] { return quillon_capability_publish(member.capability(), member.connection()); });
              }};
}

Flow query_flow(Member &member) {
  return {.name = "query",
          .statuses = with({QUILLON_STATUS_CAPABILITY_NOT_FOUND}),
          .prepare =
              [&member] {
                member.expect_works_again([&] { return quillon_capability_subscribe(member.capability(), member.connection()); });
                member.write_request(kQuestion);
              },
          .act = [&member] { return member.ask_publisher(); },
          .verify =
              [&member](QUILLON_STATUS status) {
                member.expect_response(status, kQuestion);
                member.expect_up();
              }};
}

// Begun, and called back with what became of it, exactly once.
Flow async_flow(Member &member, const char *name, const std::function<void()> &prepare) {
  static wb_dom_node *request;
  static std::atomic<int> calls;
  const auto write = [prepare] {
    prepare();
    request = test_support::parse("<question xmlns='urn:test'/>").release();
    calls = 0;
  };
  const auto ask = [&member] {
    const auto count = [](const quillon_query_result *, void *) { ++calls; };
    const QUILLON_STATUS status =
        quillon_connection_query_async(member.connection(), member.capability(), request, 1000, count, nullptr, nullptr);
    if (status == kOk) eventually(kDeadline, [] { return calls > 0; });
    return status;
  };
  return {.name = name,
          .statuses = {QUILLON_STATUS_PTHREAD_ERROR},
          .prepare = write,
          .act = ask,
          .verify = [write, ask](QUILLON_STATUS status) {
            EXPECT_EQ(status == kOk ? 1 : 0, calls);
            if (status != kOk) test_support::NodeRelease()(request);
            write();
            EXPECT_EQ(kOk, ask());
            EXPECT_EQ(1, calls);
          }};
}

Flow async_query_flow(Member &member) {
  return async_flow(member, "async query", [&member] {
    member.expect_works_again([&] { return quillon_capability_subscribe(member.capability(), member.connection()); });
  });
}

// The first of a connection, which starts its threads.
Flow first_async_query_flow(Member &member) {
  return async_flow(member, "first async query", [&member] {
    member.destroy_connection();
    member.make_connection();
  });
}

// The controller asks the member in turn.
Flow answer_flow(Member &member) {
  return {.name = "answer",
          .statuses = kExchange,
          .prepare =
              [&member] {
                member.expect_up();
                member.forget_calls();
                member.write_request(kAskMe);
              },
          .act = [&member] { return member.ask_controller(); },
          .verify =
              [&member](QUILLON_STATUS status) {
                member.expect_response(status, kAskMe);
                member.expect_up();
                member.write_request(kAskMe);
                const QUILLON_STATUS again = member.ask_controller();
                member.expect_response(again, kAskMe);
                EXPECT_GE(member.answered(), 1);
                EXPECT_LE(member.answered(), 2);  // the first question may have come through after all
              }};
}

// Sent, published by the service, and heard.
Flow notify_flow(Member &member) {
  const auto write = [&member] {
    member.expect_up();
    member.forget_calls();
    member.write_request(kNews);
  };
  return {.name = "notify",
          .statuses = {QUILLON_STATUS_XML_ERROR, QUILLON_STATUS_SEND_ERROR, QUILLON_STATUS_UNKNOWN},
          .prepare = write,
          .act =
              [&member] {
                const QUILLON_STATUS status = member.notify();
                // What is lost on its way back is not heard.
                constexpr std::chrono::milliseconds kWay(200);
                if (status == kOk) eventually(kWay, [&] { return member.heard() > 0 || !member.is_connected(); });
                return status;
              },
          .verify =
              [&member, write](QUILLON_STATUS) {
                EXPECT_LE(member.heard(), 1);
                write();
                EXPECT_EQ(kOk, member.notify());
                EXPECT_TRUE(eventually(kDeadline, [&] { return member.heard() == 1; }));
                member.expect_up();
              }};
}

Flow token_flow(Member &member) {
  static quillon_authentication_token *token;
  return {.name = "token",
          .statuses = {},
          .prepare =
              [&member] {
                member.expect_up();
                token = nullptr;
              },
          .act =
              [&member] {
                const QUILLON_STATUS status = quillon_authentication_token_create(&token, member.connection());
                if (status == kOk) quillon_authentication_token_get(token);
                return status;
              },
          .verify =
              [&member](QUILLON_STATUS status) {
                ASSERT_EQ(status == kOk, token != nullptr);
                member.expect_up();
                if (token != nullptr) {
                  EXPECT_STREQ(kTokenText, quillon_authentication_token_get(token));
                }
                quillon_authentication_token_destroy(token);
              }};
}

Flow reconnection_flow(Member &member) {
  static quillon_reconnection *reconnection;
  return {.name = "reconnection",
          .statuses = {QUILLON_STATUS_QUILLON_ERROR, QUILLON_STATUS_PTHREAD_ERROR},
          .prepare =
              [&member] {
                member.disconnect();
                member.forget_calls();
                reconnection = nullptr;
              },
          .act =
              [&member] {
                QUILLON_STATUS status = quillon_reconnection_create(&reconnection, member.connection());
                if (status == kOk) status = quillon_reconnection_start(reconnection);
                constexpr std::chrono::milliseconds kTime(300);
                if (status == kOk) eventually(kTime, [&] { return member.connected() + member.disconnected() > 0; });
                return status;
              },
          .verify =
              [&member](QUILLON_STATUS status) {
                EXPECT_TRUE(status != kOk || reconnection != nullptr);
                if (reconnection != nullptr) {
                  EXPECT_EQ(kOk, quillon_reconnection_stop(reconnection));
                  EXPECT_EQ(kOk, quillon_reconnection_destroy(reconnection));
                }
                member.expect_up();
                member.disconnect();
              }};
}

// ---- Without a connection

Flow configure_flow(Member &) {
  static quillon_config *made, *copy;
  return {.name = "configure",
          .statuses = {},
          .prepare = [] { made = copy = nullptr; },
          .act =
              [] {
                const char *hosts[] = {"one", "two:1"}, *groups[] = {"a", "b"};
                QUILLON_STATUS status = quillon_config_create(&made);
                if (status == kOk) status = quillon_config_set_hosts(made, hosts, 2);
                if (status == kOk) status = quillon_config_set_user_name(made, "Alice");
                if (status == kOk) status = quillon_config_set_groups(made, groups, 2);
                if (status == kOk) status = quillon_config_set_description(made, "text");
                if (status == kOk) status = quillon_config_set_client_cert_key_password(made, "secret");
                if (status == kOk) quillon_config_clone(made, &copy);
                return status;
              },
          .verify =
              [](QUILLON_STATUS status) {
                EXPECT_TRUE(status != kOk || made != nullptr);
                quillon_config_destroy(copy);
                quillon_config_destroy(made);
              }};
}

Flow bulk_flow(Member &member) {
  static quillon_bulkdownload *bulk;
  static wb_dom_node *request;
  static int items;
  const auto fetch = [&member](bool begins) {
    QUILLON_STATUS status = begins ? quillon_bulkdownload_create(&bulk, member.config()) : kOk;
    if (status == kOk) status = quillon_bulkdownload_set_url(bulk, servers().bulk_url.c_str());
    if (status == kOk) status = quillon_bulkdownload_set_request(bulk, request);
    if (status == kOk) status = quillon_bulkdownload_open(bulk);
    if (status != kOk) return status;
    for (;;) {
      wb_dom_node *item = nullptr;
      const QUILLON_STATUS step = quillon_bulkdownload_next(bulk, &item);
      if (step != kOk && status == kOk) status = step;
      if (item != nullptr) {
        ++items;
        wb_dom_context_destroy(wb_dom_get_context(item));
      } else if (step != QUILLON_STATUS_XML_ERROR) {
        break;
      }
    }
    quillon_bulkdownload_close(bulk);
    return status;
  };
  return {
      .name = "bulk",
      .statuses = {QUILLON_STATUS_WB_ERROR, QUILLON_STATUS_XML_ERROR, QUILLON_STATUS_REST_ERROR, QUILLON_STATUS_REST_INIT_ERROR},
      .prepare =
          [] {
            bulk = nullptr;
            request = test_support::parse("<give/>").release();
            items = 0;
          },
      .act = [fetch] { return fetch(true); },
      .verify =
          [fetch](QUILLON_STATUS status) {
            if (status == kOk) {
              EXPECT_EQ(kItems, items);
            }
            items = 0;
            EXPECT_EQ(kOk, fetch(bulk == nullptr));
            EXPECT_EQ(kItems, items);
            quillon_bulkdownload_destroy(&bulk);
            test_support::NodeRelease()(std::exchange(request, nullptr));
          }};
}

// ---- XML

QUILLON_STATUS status_of(bool done, const wb_err &err) {
  if (done) return kOk;
  return err.code == WB_ERR_NO_MEMORY ? QUILLON_STATUS_MALLOC_ERROR : QUILLON_STATUS_XML_ERROR;
}

constexpr std::string_view kDocument =
    "<?xml version='1.0'?><a xmlns='urn:a' xmlns:p='urn:p' b='1' p:c='two &amp; three'><d>text<![CDATA[<more>]]></d>"
    "<p:e><f/><f>a long enough text that a place of its own is needed for it, wherever texts are kept</f></p:e></a>";

Flow parse_flow(Member &) {
  static wb_dom_node *root;
  const auto parse = [] {
    wb_err err = {};
    return status_of(wb_dom_parse(kDocument.data(), kDocument.size(), &root, &err), err);
  };
  return {.name = "parse",
          .statuses = {},
          .prepare = [] { root = nullptr; },
          .act = parse,
          .verify =
              [](QUILLON_STATUS status) {
                ASSERT_EQ(status == kOk, root != nullptr);
                if (root != nullptr) test_support::NodeRelease()(root);
              }};
}

Flow serialise_flow(Member &) {
  static test_support::Node root;
  static char *xml;
  return {.name = "serialise",
          .statuses = {},
          .prepare =
              [] {
                if (root == nullptr) root = test_support::parse(kDocument);
                xml = nullptr;
              },
          .act =
              [] {
                wb_err err = {};
                return status_of(wb_serialize_xml(root.get(), &xml, nullptr, &err), err);
              },
          .verify =
              [](QUILLON_STATUS status) {
                ASSERT_EQ(status == kOk, xml != nullptr);
                std::free(xml);
              }};
}

Flow stream_flow(Member &) {
  struct Counter : wb::StreamParser::Handler {
    void on_stream_open(wb_dom_node *) override { ++opened; }
    void on_stanza(wb_dom_node *) override { ++stanzas; }
    void on_stream_close() override { ++closed; }
    int opened = 0, stanzas = 0, closed = 0;
  };
  static Counter counter;
  return {.name = "stream",
          .statuses = {},
          .prepare = [] { counter = {}; },
          .act =
              [] {
                wb::StreamParser parser(counter, {});
                const std::string_view head = "<stream:stream xmlns='jabber:client' xmlns:stream='urn:s' id='1'>";
                wb::StreamError error = parser.feed(head.data(), head.size());
                const std::string_view stanza = kDocument.substr(kDocument.find("<a"));
                for (int i = 0; i < 3 && error == wb::StreamError::none; ++i) error = parser.feed(stanza.data(), stanza.size());
                const std::string_view end = "</stream:stream>";
                if (error == wb::StreamError::none) error = parser.feed(end.data(), end.size());
                if (error == wb::StreamError::none) return kOk;
                return error == wb::StreamError::no_memory ? QUILLON_STATUS_MALLOC_ERROR : QUILLON_STATUS_XML_ERROR;
              },
          .verify =
              [](QUILLON_STATUS status) {
                EXPECT_LE(counter.stanzas, 3);
                EXPECT_EQ(status == kOk ? 1 : 0, counter.closed);
              }};
}

// ---- Each with each shortage

using MakeFlow = Flow (*)(Member &);

struct Row {
  std::string name;
  MakeFlow make;
  Shortage (*shortage)();

  friend void PrintTo(const Row &row, std::ostream *out) { *out << row.name; }
};

std::vector<Row> rows() {
  struct Named {
    const char *name;
    MakeFlow make;
    bool starts_threads = false, opens_descriptors = false;
  };
  const Named flows[] = {{"Create", create_flow, true},
                         {"Connect", connect_flow, true, true},
                         {"ConnectByName", connect_by_name_flow, true, true},
                         {"Disconnect", disconnect_flow},
                         {"Destroy", destroy_flow},
                         {"Subscribe", subscribe_flow},
                         {"Publish", publish_flow},
                         {"Query", query_flow},
                         {"AsyncQuery", async_query_flow},
                         {"FirstAsyncQuery", first_async_query_flow, true},
                         {"Answer", answer_flow},
                         {"Notify", notify_flow},
                         {"Token", token_flow},
                         {"Reconnection", reconnection_flow, true, true},
                         {"Configure", configure_flow},
                         {"Bulk", bulk_flow, true, true},
                         {"Parse", parse_flow},
                         {"Serialise", serialise_flow},
                         {"Stream", stream_flow}};
  std::vector<Row> all;
  for (const Named &flow : flows) {
    const std::string name = flow.name;
    all.push_back({name + "OneAllocation", flow.make, one_allocation});
    all.push_back({name + "NoMoreMemory", flow.make, all_further_allocations});
    if (flow.starts_threads) all.push_back({name + "OneThread", flow.make, one_thread});
    if (flow.starts_threads) all.push_back({name + "NoMoreThreads", flow.make, all_further_threads});
    if (flow.opens_descriptors) all.push_back({name + "NoMoreDescriptors", flow.make, all_further_descriptors});
  }
  return all;
}

// What a process does for the first time.
Flow first_create_flow() {
  static quillon_connection *made;
  return {.name = "create",
          .statuses = {QUILLON_STATUS_QUILLON_ERROR, QUILLON_STATUS_WB_ERROR, QUILLON_STATUS_EVENT_ERROR},
          .prepare = log_nowhere,
          .act = [] { return quillon_connection_create(&made); },
          .verify =
              [](QUILLON_STATUS status) {
                ASSERT_EQ(status == kOk, made != nullptr);
                quillon_connection_destroy(made);
                Member().expect_up();
              }};
}

// OpenSSL sets itself up at the first handshake, and does not try again when memory was lacking then: no first connect here.
TEST(FirstTime, OneAllocationIsMissed) { sweep_first("first create", first_create_flow, one_allocation()); }
TEST(FirstTime, NoMoreMemoryIsThere) { sweep_first("first create", first_create_flow, all_further_allocations()); }
TEST(FirstTime, NoMoreDescriptorsAreThere) { sweep_first("first create", first_create_flow, all_further_descriptors()); }

class Exhaustion : public testing::TestWithParam<Row> {};

TEST_P(Exhaustion, IsSurvived) {
  Member member;
  sweep(GetParam().make(member), GetParam().shortage());
}

INSTANTIATE_TEST_SUITE_P(Each, Exhaustion, testing::ValuesIn(rows()), [](const auto &row) { return row.param.name; });

}  // namespace
}  // namespace exhaustion

#include <qlk/testpeer/wait.hpp>

#include "flows.h"
#include "quillon_grid.h"
#include "servers.h"

namespace exhaustion {

using testpeer::eventually;

namespace {

// As if the controller had told of another publisher.
void tell_of_publisher(Member &member) {
  const test_support::Node message = test_support::parse(
      "<message from='" CONTROLLER_JID "'><grid xmlns='quillon' type='notification'><publisherUpdateNotification xmlns='" GRID_NS
      "'><change>add</change><publisherJID>carol@" GRID_DOMAIN
      "/qlk</publisherJID></publisherUpdateNotification></grid></message>");
  EXPECT_EQ(kOk, quillon_notification_handle(member.connection()->notification, message.get()));
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

}  // namespace

std::vector<QUILLON_STATUS> exchange_statuses(std::vector<QUILLON_STATUS> more) {
  for (const QUILLON_STATUS status : {QUILLON_STATUS_XML_ERROR, QUILLON_STATUS_SEND_TIMEOUT, QUILLON_STATUS_SEND_ERROR,
                                      QUILLON_STATUS_UNKNOWN, QUILLON_STATUS_XMPP_ERROR, QUILLON_STATUS_QUILLON_ERROR})
    more.push_back(status);
  return more;
}

Flow subscribe_flow(Member &member) {
  static test_support::Capability capability;
  return {.name = "subscribe",
          .statuses = exchange_statuses(),
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
          .statuses = exchange_statuses(),
          .prepare = [&member] { member.expect_up(); },
          .act = [&member] { return quillon_capability_publish(member.capability(), member.connection()); },
          .verify =
              [&member](QUILLON_STATUS) {
                member.expect_works_again([&] { return quillon_capability_publish(member.capability(), member.connection()); });
              }};
}

Flow query_flow(Member &member) {
  return {.name = "query",
          .statuses = exchange_statuses({QUILLON_STATUS_CAPABILITY_NOT_FOUND}),
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

// Every stanza is shown, with its secrets hidden.
Flow traced_query_flow(Member &member) {
  const auto look = [](quillon_connection *, QUILLON_TRACE_DIRECTION, const char *, size_t, void *) {};
  Flow flow = query_flow(member);
  flow.name = "traced query";
  flow.prepare = [&member, look, prepare = flow.prepare] {
    EXPECT_EQ(kOk, quillon_connection_set_stanza_trace(member.connection(), look, nullptr));
    prepare();
  };
  return flow;
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
          .statuses = exchange_statuses(),
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

}  // namespace exhaustion

#include <qlk/testpeer/wait.hpp>

#include "black_hole.h"
#include "flows.h"
#include "servers.h"

namespace exhaustion {

using testpeer::eventually;

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
          .statuses = exchange_statuses({QUILLON_STATUS_CONNECTION_ERROR, QUILLON_STATUS_WB_ERROR, QUILLON_STATUS_PTHREAD_ERROR}),
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

// A host that refuses, one that is silent, and the one that answers: all three are dialled.
Flow race_flow(Member &member) {
  static const test_support::BlackHole silent;
  Flow flow = connect_flow(member);
  flow.name = "race";
  flow.prepare = [&member, prepare = flow.prepare] {
    const char *hosts[] = {"127.0.0.1:1", silent.host().c_str(), servers().host.c_str()};
    EXPECT_EQ(kOk, quillon_config_set_hosts(member.config(), hosts, 3));
    EXPECT_EQ(kOk, quillon_config_set_address_racing(member.config(), true));
    prepare();
  };
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

Flow drain_flow(Member &member) {
  constexpr uint32_t kMilliseconds = 1000;
  Flow flow = disconnect_flow(member);
  flow.name = "drain";
  flow.act = [&member] { return quillon_connection_drain(member.connection(), kMilliseconds); };
  return flow;
}

Flow destroy_flow(Member &member) {
  return {.name = "destroy",
          .statuses = {},
          .prepare = [&member] { member.expect_up(); },
          .act = [&member] { return member.destroy_connection(); },
          .verify = [&member](QUILLON_STATUS) { member.make_connection(); }};
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

// A prompt reconnection that tells what becomes of the connection.
Flow reports_flow(Member &member) {
  static std::atomic<int> reports, unordered;
  static std::atomic<QUILLON_RECONNECTION_STATE> last;
  static quillon_reconnection *reconnection;
  const auto hear = [](const quillon_reconnection_report *report, void *) {
    if (last.exchange(report->state) == report->state) ++unordered;
    ++reports;
  };
  const auto start = [&member, hear] {
    QUILLON_STATUS status = quillon_reconnection_create(&reconnection, member.connection());
    if (status == kOk) status = quillon_reconnection_set_delays(reconnection, 50, 100, 50);
    if (status == kOk) status = quillon_reconnection_set_report_cb(reconnection, hear, nullptr);
    return status == kOk ? quillon_reconnection_start(reconnection) : status;
  };
  return {.name = "reports",
          .statuses = {QUILLON_STATUS_QUILLON_ERROR, QUILLON_STATUS_PTHREAD_ERROR},
          .prepare =
              [&member] {
                member.disconnect();
                reports = unordered = 0;
                last = QUILLON_RECONNECTION_STATE_MAX;
                reconnection = nullptr;
              },
          .act =
              [start] {
                const QUILLON_STATUS status = start();
                constexpr std::chrono::milliseconds kTime(300);
                if (status == kOk) eventually(kTime, [] { return reports > 0; });
                return status;
              },
          .verify =
              [&member, start](QUILLON_STATUS status) {
                if (reconnection == nullptr) {
                  EXPECT_EQ(kOk, start());
                } else if (status != kOk) {
                  EXPECT_EQ(kOk, quillon_reconnection_set_delays(reconnection, 50, 100, 50));
                  EXPECT_EQ(kOk, quillon_reconnection_start(reconnection));
                }
                // Whatever was lacking, the thread goes on and tells of the session that it brings.
                EXPECT_TRUE(eventually(kDeadline, [&member] { return member.is_connected(); }));
                EXPECT_TRUE(status != kOk || eventually(kDeadline, [] { return last == QUILLON_RECONNECTION_STATE_UP; }));
                EXPECT_EQ(0, unordered);
                EXPECT_EQ(kOk, quillon_reconnection_stop(reconnection));
                EXPECT_EQ(kOk, quillon_reconnection_destroy(reconnection));
                member.expect_up();
                member.disconnect();
              }};
}

}  // namespace exhaustion

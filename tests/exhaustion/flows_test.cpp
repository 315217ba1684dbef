// Each flow, each time with something that cannot be had.
#include "flows.h"

namespace exhaustion {
namespace {

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
                         {"Race", race_flow, true, true},
                         {"Disconnect", disconnect_flow},
                         {"Drain", drain_flow},
                         {"Destroy", destroy_flow},
                         {"Subscribe", subscribe_flow},
                         {"Publish", publish_flow},
                         {"Query", query_flow},
                         {"TracedQuery", traced_query_flow},
                         {"AsyncQuery", async_query_flow},
                         {"FirstAsyncQuery", first_async_query_flow, true},
                         {"Answer", answer_flow},
                         {"Notify", notify_flow},
                         {"Token", token_flow},
                         {"Reconnection", reconnection_flow, true, true},
                         {"Reports", reports_flow, true, true},
                         {"Configure", configure_flow},
                         {"Reload", reload_flow, false, true},
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

// OpenSSL sets itself up at the first handshake, and does not try again when memory was lacking then: so nothing has to work
// afterwards.
Flow first_connect_flow() {
  static Member member;
  Flow flow = connect_flow(member);
  flow.name = "first connect";
  flow.verify = [](QUILLON_STATUS status) {
    EXPECT_EQ(status == kOk ? 1 : 0, member.connected());
    EXPECT_EQ(kOk, member.disconnect());
    EXPECT_EQ(kOk, member.destroy_connection());
  };
  return flow;
}

TEST(FirstTime, OneAllocationIsMissed) { sweep_first("first create", first_create_flow, one_allocation()); }
TEST(FirstTime, OneAllocationOfAConnectIsMissed) { sweep_first("first connect", first_connect_flow, one_allocation()); }
TEST(FirstTime, NoMoreMemoryIsThereToConnect) { sweep_first("first connect", first_connect_flow, all_further_allocations()); }
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

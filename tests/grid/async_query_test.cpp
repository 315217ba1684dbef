// Asynchronous queries between clients of the real server.
#include <gtest/gtest.h>
#include <quillon_async.h>

#include <algorithm>

#include "grid_client.h"

namespace {

using grid_test::Client;
using grid_test::Record;

constexpr uint32_t kLong = 60'000;  // milliseconds

struct Ended {
  QUILLON_QUERY_OUTCOME outcome;
  QUILLON_STATUS status;
  std::string answer;
};

void record(const quillon_query_result *result, void *ended) {
  static_cast<Record<Ended> *>(ended)->add(
      {result->outcome, result->status, result->response != nullptr ? grid_test::text_of(result->response) : ""});
}

void begin(Client &asker, quillon_capability *capability, const std::string &text, Record<Ended> &ended) {
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_query_async(asker.connection, capability, grid_test::payload("ask", text),
                                                              kLong, record, &ended, nullptr));
}

size_t count(const std::vector<Ended> &ended, QUILLON_QUERY_OUTCOME outcome) {
  return static_cast<size_t>(std::count_if(ended.begin(), ended.end(), [&](const Ended &end) { return end.outcome == outcome; }));
}

}  // namespace

TEST(AsyncQueryTest, ManyAreAnsweredFailOverAndEndWithTheirSession) {
  test_support::LocalGrid grid(test_support::LocalGrid::Approval::automatic);
  Record<Ended> ended;  // outlives the asker
  Client first(grid, "async-first"), second(grid, "async-second"), asker(grid, "async-asker");
  quillon_config_set_send_timeout_seconds(asker.config, 2);  // a publisher that went with a question is passed over soon
  ASSERT_EQ(QUILLON_STATUS_OK, asker.connect());
  for (Client *server : {&first, &second}) {
    server->serve();
    ASSERT_EQ(QUILLON_STATUS_OK, server->connect());
    ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_publish(server->add_capability("Async"), server->connection));
  }
  quillon_capability *capability = asker.add_capability("Async");
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_subscribe(capability, asker.connection));
  constexpr size_t kCount = 300;
  for (size_t i = 0; i < kCount; ++i) begin(asker, capability, std::to_string(i), ended);
  EXPECT_EQ(kCount, count(ended.wait_for(kCount), QUILLON_QUERY_OUTCOME_ANSWERED));

  // One publisher goes while calls are in flight: each of them is answered by one or the other.
  for (size_t i = 0; i < kCount; ++i) {
    begin(asker, capability, std::to_string(i), ended);
    if (i == kCount / 2) {
      ASSERT_EQ(QUILLON_STATUS_OK, first.disconnect());
    }
  }
  EXPECT_EQ(2 * kCount, count(ended.wait_for(2 * kCount, std::chrono::seconds(90)), QUILLON_QUERY_OUTCOME_ANSWERED));

  // The asker's own session goes: each call ends, and what it says is true of it.
  for (size_t i = 0; i < kCount; ++i) begin(asker, capability, std::to_string(i), ended);
  ASSERT_EQ(QUILLON_STATUS_OK, asker.disconnect());
  begin(asker, capability, "too late", ended);
  const std::vector<Ended> all = ended.wait_for(3 * kCount + 1);
  ASSERT_EQ(3 * kCount + 1, all.size());
  EXPECT_EQ(QUILLON_QUERY_OUTCOME_NOT_SENT, all.back().outcome);
  EXPECT_EQ(QUILLON_STATUS_NO_CONNECTION, all.back().status);
  EXPECT_EQ(0U, count(all, QUILLON_QUERY_OUTCOME_REFUSED));
  asker.destroy_connection();
  EXPECT_EQ(3 * kCount + 1, ended.all().size());
}

#include "call_gate.h"

#include <gtest/gtest.h>

#include <future>
#include <optional>

namespace qlk {
namespace {

constexpr std::chrono::seconds kSoon(30);

TEST(CallGate, WhoWaitsForTheCallsIsWokenByTheLastAndByItsOpening) {
  for (const bool opens : {false, true}) {
    CallGate gate;
    std::optional<CallGate::Pass> call(std::in_place, gate);
    gate.close();
    auto waited = std::async(std::launch::async, [&] { return gate.wait_until_empty(SteadyClock::now() + 100 * kSoon); });
    opens ? gate.open() : call.reset();
    EXPECT_EQ(std::future_status::ready, waited.wait_for(kSoon));
    gate.give_up_waiting();
    EXPECT_EQ(!opens, waited.get());
  }
}

}  // namespace
}  // namespace qlk

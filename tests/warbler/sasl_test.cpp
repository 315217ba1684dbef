// One exchange by a mechanism: what it is shown, and when it is over.
#include "sasl.h"

#include <gtest/gtest.h>
#include <warbler/data.h>

#include <ostream>
#include <string>
#include <vector>

namespace {

// What a mechanism says in turn: its start and each step.
struct Saying {
  const char *out;  // nullptr: nothing
  bool done;
  wb_sasl_error error = WB_SASL_ERR_NONE;
};

struct Script {
  std::vector<Saying> sayings;
  std::vector<std::string> heard = {};
  size_t said = 0;
};

bool say_next(Script &script, wb_sasl_mech_instance *instance, wb_sasl_complete complete) {
  if (script.said == script.sayings.size()) return false;
  const Saying &saying = script.sayings[script.said++];
  char *out = wb_data_strdup(saying.out);
  complete(instance, reinterpret_cast<uint8_t *>(out), out != nullptr ? std::string(out).size() : 0, true, saying.done,
           saying.error);
  return true;
}

// The table in this suite is the script.
bool init(wb_sasl_mech_instance *instance, wb_htable *config, wb_err *) {
  wb_sasl_mech_instance_set_data(instance, config);
  return true;
}

Script &script_of(wb_sasl_mech_instance *instance) { return *static_cast<Script *>(wb_sasl_mech_instance_get_data(instance)); }

bool start(wb_sasl_mech_instance *instance, uint8_t *, size_t, wb_sasl_complete complete, wb_err *) {
  return say_next(script_of(instance), instance, complete);
}

bool step(wb_sasl_mech_instance *instance, uint8_t *in, size_t length, wb_sasl_complete complete, wb_err *) {
  Script &script = script_of(instance);
  script.heard.emplace_back(reinterpret_cast<const char *>(in), length);
  return say_next(script, instance, complete);
}

struct ExchangeCase {
  const char *name;
  std::vector<Saying> sayings;
  bool answers;                          // the mechanism has evaluate_step
  std::vector<const char *> challenges;  // of which all but the last go well
  bool last_goes_well;
  const char *added;  // to the success
  bool succeeds;
  std::vector<std::string> heard;
};

void PrintTo(const ExchangeCase &one, std::ostream *out) { *out << one.name; }

const ExchangeCase kExchangeCases[] = {
    {"DoneAtOnce", {{"user", true}}, true, {}, true, "", true, {}},
    {"WithoutSteps", {{"user", false}}, false, {}, true, "", true, {}},
    {"AdditionWithoutSteps", {{"user", false}}, false, {}, true, "YQ==", true, {}},
    {"AdditionAfterDone", {{"user", true}}, true, {}, true, "YQ==", true, {}},
    {"SuccessTooEarly", {{"user", false}, {nullptr, true}}, true, {}, true, "", false, {}},
    {"SuccessAmidTheExchange", {{"user", false}, {"b", false}, {nullptr, true}}, true, {"YQ=="}, true, "", false, {"a"}},
    {"Challenge", {{"user", false}, {"b", true}}, true, {"YQ=="}, true, "", true, {"a"}},
    {"AdditionIsTheLastStep", {{"user", false}, {"b", false}, {nullptr, true}}, true, {"YQ=="}, true, "Yg==", true, {"a", "b"}},
    {"EmptyAddition", {{"user", false}, {nullptr, true}}, true, {}, true, "=", true, {""}},
    {"AdditionIsRefused", {{"user", false}, {nullptr, true, WB_SASL_ERR_NOT_AUTHORIZED}}, true, {}, true, "Yg==", false, {"b"}},
    {"AdditionIsNotEnough", {{"user", false}, {nullptr, false}}, true, {}, true, "Yg==", false, {"b"}},
    {"AdditionIsAnswered", {{"user", false}, {"c", true}}, true, {}, true, "Yg==", false, {"b"}},
    {"AdditionIsBroken", {{"user", false}, {nullptr, true}}, true, {}, true, "%", false, {}},
    {"ChallengeAfterDone", {{"user", true}, {"b", true}}, true, {"YQ=="}, false, "", true, {}},
    {"ChallengeWithoutSteps", {{"user", false}}, false, {"YQ=="}, false, "", true, {}},
};

class SaslExchange : public testing::TestWithParam<ExchangeCase> {};

TEST_P(SaslExchange, IsOverWhenTheMechanismIsDone) {
  const ExchangeCase &one = GetParam();
  const wb_sasl_mech mech{"TEST", {init, nullptr, start, one.answers ? step : nullptr}};
  Script script{one.sayings};
  wb::SaslExchange exchange(mech);
  wb::SaslOutput out;
  ASSERT_TRUE(exchange.start(reinterpret_cast<wb_htable *>(&script), out, nullptr));
  EXPECT_EQ("dXNlcg==", out.base64);
  for (size_t i = 0; i < one.challenges.size(); ++i) {
    EXPECT_EQ(one.last_goes_well || i + 1 < one.challenges.size(), exchange.step(one.challenges[i], out, nullptr));
  }
  wb_err err{};
  EXPECT_EQ(one.succeeds, exchange.succeed(one.added, &err)) << err.message;
  EXPECT_EQ(one.heard, script.heard);
}

INSTANTIATE_TEST_SUITE_P(Exchanges, SaslExchange, testing::ValuesIn(kExchangeCases),
                         [](const auto &test) { return test.param.name; });

}  // namespace

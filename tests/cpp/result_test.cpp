#include <gtest/gtest.h>

#include <memory>
#include <quillon.hpp>
#include <string>

namespace {

using quillon::result;

TEST(CppResult, HoldsAValueOrAStatus) {
  result<std::string> good = std::string("sunny");
  EXPECT_TRUE(good.ok());
  EXPECT_TRUE(good);
  EXPECT_EQ(QUILLON_STATUS_OK, good.status());
  EXPECT_EQ("sunny", *good);
  EXPECT_EQ(5U, good->size());
  EXPECT_EQ("sunny", good.value());
  const result<std::string> bad = QUILLON_STATUS_SEND_TIMEOUT;
  EXPECT_FALSE(bad);
  EXPECT_EQ(QUILLON_STATUS_SEND_TIMEOUT, bad.status());
  EXPECT_EQ(quillon_status_get_message(QUILLON_STATUS_SEND_TIMEOUT), bad.text());
}

TEST(CppResult, ValueThrowsTheStatus) {
  const auto status_thrown = [](auto failing) -> QUILLON_STATUS {
    try {
      static_cast<void>(failing.value());
    } catch (const quillon::error &thrown) {
      EXPECT_EQ(quillon::text_of(thrown.status()), thrown.what());
      return thrown.status();
    }
    return QUILLON_STATUS_OK;
  };
  EXPECT_EQ(QUILLON_STATUS_NOT_AUTHORIZED, status_thrown(result<int>(QUILLON_STATUS_NOT_AUTHORIZED)));
  EXPECT_EQ(QUILLON_STATUS_NO_CONNECTION, status_thrown(result<>(QUILLON_STATUS_NO_CONNECTION)));
  EXPECT_EQ(QUILLON_STATUS_OK, status_thrown(result<int>(3)));
  EXPECT_EQ(QUILLON_STATUS_OK, status_thrown(result<>()));
}

TEST(CppResult, SuccessWithoutAValueIsNone) { EXPECT_EQ(QUILLON_STATUS_UNKNOWN, result<int>(QUILLON_STATUS_OK).status()); }

TEST(CppResult, GivesAwayWhatCanOnlyBeMoved) {
  result<std::unique_ptr<int>> held = std::make_unique<int>(7);
  const std::unique_ptr<int> taken = std::move(held).value();
  EXPECT_EQ(7, *taken);
}

TEST(CppResult, EveryNumberHasAText) {
  for (int status = 0; status <= QUILLON_STATUS_MAX + 1; ++status)
    EXPECT_FALSE(quillon::text_of(static_cast<QUILLON_STATUS>(status)).empty()) << status;
}

}  // namespace

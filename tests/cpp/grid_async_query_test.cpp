// Asynchronous queries of the C++ layer on a real grid: by handler, by future, and awaited by a coroutine.
#include <gtest/gtest.h>

#include <coroutine>
#include <future>
#include <quillon.hpp>
#include <stdexcept>

#include "grid_member.h"
#include "local_grid.h"

namespace {

using quillon::capability;
using quillon::connection;
using quillon::query_end;
using quillon::xml::element;
using quillon::xml::view;
using test_support::connection_of;
using test_support::LocalGrid;
using test_support::weather;
using namespace std::chrono_literals;

constexpr std::chrono::seconds kPatience{60};

// A coroutine that begins at once and that nobody waits for.
struct Detached {
  struct promise_type {
    Detached get_return_object() { return {}; }
    std::suspend_never initial_suspend() noexcept { return {}; }
    std::suspend_never final_suspend() noexcept { return {}; }
    void return_void() {}
    void unhandled_exception() { std::terminate(); }
  };
};

// Two questions, one after the other, and one that nothing can begin.
Detached ask_twice(connection &client, const capability &asked, std::promise<std::string> &told) {
  const query_end first = co_await client.query_awaited(asked, element("{urn:weather}echo", "once"), kPatience);
  const query_end second = co_await client.query_awaited(asked, element("{urn:weather}echo", "twice"), kPatience);
  const query_end none = co_await client.query_awaited(asked, element(), kPatience);
  EXPECT_EQ(QUILLON_QUERY_OUTCOME_NOT_SENT, none.outcome);
  EXPECT_EQ(QUILLON_STATUS_XML_ERROR, none.status);
  told.set_value(std::string(first.response.text()) + std::string(second.response.text()));
}

TEST(CppGridAsync, ACallEndsInAHandlerAFutureOrACoroutine) {
  LocalGrid grid;
  const capability served = weather(), asked = weather();
  connection server = connection_of(grid, "server");
  ASSERT_TRUE(server.on_query("{urn:weather}echo", [](view request) { return request.copy(); }));
  ASSERT_TRUE(server.on_query("{urn:weather}nothing", [](view) { return element(); }));
  ASSERT_TRUE(server.connect());
  ASSERT_TRUE(served.publish(server));
  std::promise<query_end> lost;
  {
    connection client = connection_of(grid, "client");
    ASSERT_TRUE(client.connect());
    ASSERT_TRUE(asked.subscribe(client));

    std::promise<query_end> handled;
    ASSERT_TRUE(client.query_async(asked, element("{urn:weather}echo", "x"), kPatience, [&](query_end end) {
      handled.set_value(std::move(end));
      throw std::runtime_error("is logged and goes no further");
    }));
    const query_end end = handled.get_future().get();
    ASSERT_TRUE(end) << end.status;
    EXPECT_EQ("x", end.response.text());
    EXPECT_EQ("server@" + grid.domain() + "/qlk", end.publisher);

    std::promise<std::string> told;
    ask_twice(client, asked, told);
    EXPECT_EQ("oncetwice", told.get_future().get());

    EXPECT_EQ(QUILLON_QUERY_OUTCOME_REFUSED,
              client.query_controller_future(element("{urn:weather}unknown"), kPatience).value().get().outcome);
    EXPECT_EQ(QUILLON_STATUS_SEND_TIMEOUT,
              client.query_future(asked, element("{urn:weather}nothing"), 300ms).value().get().status);

    std::promise<query_end> stopped;
    auto pending = client.query_async(asked, element("{urn:weather}nothing"), kPatience,
                                      [&](query_end cancelled) { stopped.set_value(std::move(cancelled)); });
    ASSERT_TRUE(pending);
    EXPECT_TRUE(pending->cancel());
    EXPECT_EQ(QUILLON_QUERY_OUTCOME_UNKNOWN, stopped.get_future().get().outcome);
    EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, client.query_async(asked, element("{urn:weather}echo"), kPatience, nullptr).status());
    ASSERT_TRUE(client.query_async(asked, element("{urn:weather}nothing"), kPatience,
                                   [&](query_end left) { lost.set_value(std::move(left)); }));
  }
  auto left = lost.get_future();
  ASSERT_EQ(std::future_status::ready, left.wait_for(0s)) << "told before the connection has gone";
  EXPECT_EQ(QUILLON_STATUS_CONNECTION_ERROR, left.get().status);
}

}  // namespace

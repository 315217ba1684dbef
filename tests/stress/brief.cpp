#include "brief.h"

#include <iterator>
#include <thread>
#include <utility>

namespace stress {
namespace {

using namespace std::chrono_literals;

// A connection that is destroyed once, by whoever comes first.
struct Brief {
  Brief(Member given, unsigned chance) : member(std::move(given)), connection(member.connection.get()), number(chance) {}

  void end() {
    if (is_ending.exchange(true)) return;
    member.connection.reset();
    member.watch->is_gone = true;
    ended.count_down();
  }
  static Brief &of(void *given) { return *static_cast<Brief *>(given); }

  Member member;
  quillon_connection *const connection;
  const unsigned number;
  std::atomic<bool> is_ending = false;
  testpeer::Latch ended, is_inside;
  std::atomic<unsigned> begun = 0, called_back = 0;  // asynchronous queries
  std::thread thread;
  quillon_reconnection *reconnection = nullptr;
};

// What is begun, and by which callback the connection is ended: where none does that, another thread will. Once it may have been,
// nothing more is called.
struct Way {
  const char *name;
  void (*begin)(Brief &brief, const Servers &servers);
};

void begin_query(Brief &brief, quillon_query_done_cb callback) {
  wb_dom_node *const request = test_support::parse("<question xmlns='urn:stress'/>").release();
  ++brief.begun;
  const QUILLON_STATUS status =
      quillon_connection_query_controller_async(brief.connection, request, 2000, callback, &brief, nullptr);
  EXPECT_EQ(QUILLON_STATUS_OK, status);
}

wb_dom_node *end_in_query(wb_dom_node *request, void *given) {
  Brief::of(given).end();
  return request;
}

constexpr Way kWays[] = {
    {"connect_cb",
     [](Brief &brief, const Servers &) {
       quillon_connection_set_connect_cb_user_data(brief.connection, &brief);
       quillon_connection_set_connect_cb(brief.connection, [](quillon_connection *, void *given) { Brief::of(given).end(); });
       connect(brief.connection);
     }},
    {"disconnect_cb",
     [](Brief &brief, const Servers &) {
       quillon_connection_set_disconnect_cb_user_data(brief.connection, &brief);
       quillon_connection_set_disconnect_cb(brief.connection,
                                            [](quillon_connection *, QUILLON_STATUS, void *given) { Brief::of(given).end(); });
       connect(brief.connection);
     }},
    {"account_cb",
     [](Brief &brief, const Servers &servers) {
       quillon_connection_set_account_cb_user_data(brief.connection, &brief);
       quillon_connection_set_account_cb(brief.connection,
                                         [](quillon_connection *, QUILLON_STATUS, void *given) { Brief::of(given).end(); });
       connect(brief.connection);
       servers.speak();
     }},
    {"ssl_ctx_cb",
     [](Brief &brief, const Servers &) {
       quillon_connection_set_ssl_ctx_cb_user_data(brief.connection, &brief);
       quillon_connection_set_ssl_ctx_cb(brief.connection,
                                         [](quillon_connection *, void *, void *given) { Brief::of(given).end(); });
       connect(brief.connection);
     }},
    {"a handler of notifications",
     [](Brief &brief, const Servers &servers) {
       quillon_connection_register_notification_handler(
           brief.connection, "urn:stress", "news", [](wb_dom_node *, void *given) { Brief::of(given).end(); }, &brief);
       connect(brief.connection);
       servers.speak();
     }},
    {"a handler of queries",
     [](Brief &brief, const Servers &servers) {
       quillon_connection_register_query_handler(brief.connection, "urn:stress", "asked", end_in_query, &brief);
       connect(brief.connection);
       servers.speak();
     }},
    {"the callback of a query",
     [](Brief &brief, const Servers &) {
       connect(brief.connection);
       begin_query(brief, [](const quillon_query_result *, void *given) {
         ++Brief::of(given).called_back;
         Brief::of(given).end();
       });
     }},
    {"the report of a reconnection",
     [](Brief &brief, const Servers &) {
       ASSERT_EQ(QUILLON_STATUS_OK, quillon_reconnection_create(&brief.reconnection, brief.connection));
       quillon_reconnection_set_delays(brief.reconnection, 10, 100, 10);
       quillon_reconnection_set_report_cb(
           brief.reconnection, [](const quillon_reconnection_report *, void *given) { Brief::of(given).end(); }, &brief);
       EXPECT_EQ(QUILLON_STATUS_OK, quillon_reconnection_start(brief.reconnection));
     }},
    // Other calls must have returned when a connection is destroyed, but not these.
    {"a thread, while a reconnection runs",
     [](Brief &brief, const Servers &) {
       ASSERT_EQ(QUILLON_STATUS_OK, quillon_reconnection_create(&brief.reconnection, brief.connection));
       EXPECT_EQ(QUILLON_STATUS_OK, quillon_reconnection_start(brief.reconnection));
     }},
    {"a thread, during a connect",
     [](Brief &brief, const Servers &) {
       brief.thread = std::thread([&brief] {
         connect(brief.connection);
         brief.is_inside.count_down();
       });
       testpeer::eventually(10s, [&] {
         return brief.is_inside.wait(0ms) || statistics_of(brief.connection).phase != QUILLON_CONNECTION_PHASE_DOWN;
       });
     }},
    {"a thread, during a query",
     [](Brief &brief, const Servers &) {
       connect(brief.connection);
       brief.thread = std::thread([&brief] {
         ask(brief.connection, nullptr, "unanswered");
         brief.is_inside.count_down();
       });
       testpeer::eventually(10s,
                            [&] { return brief.is_inside.wait(0ms) || statistics_of(brief.connection).queries_in_flight > 0; });
     }},
    {"a thread, during a call within a callback",
     [](Brief &brief, const Servers &) {
       connect(brief.connection);
       begin_query(brief, [](const quillon_query_result *, void *given) {
         Brief &called_back = Brief::of(given);
         ++called_back.called_back;
         called_back.is_inside.count_down();
         do_within_callback(called_back.connection, called_back.number);
       });
       brief.is_inside.wait(10s);
     }},
};

}  // namespace

void end_soon_in_some_way(Member member, const Servers &servers, Random &random, std::chrono::seconds at_most) {
  const Way &way = kWays[pick(random, std::size(kWays))];
  SCOPED_TRACE(way.name);
  Brief brief(std::move(member), pick(random, 100));
  way.begin(brief, servers);
  brief.ended.wait(std::chrono::milliseconds(pick(random, 50)));
  brief.end();
  EXPECT_TRUE(brief.ended.wait(at_most)) << way.name;
  if (brief.thread.joinable()) brief.thread.join();
  if (brief.reconnection != nullptr) {
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_reconnection_destroy(brief.reconnection));
  }
  EXPECT_EQ(brief.begun, brief.called_back) << way.name;
}

}  // namespace stress

#include "member.h"

#include <algorithm>
#include <iterator>

#include "quillon_grid.h"

namespace stress {

std::atomic<size_t> answers = 0, asynchronous_answers = 0, sessions = 0;

namespace {

using test_support::Node;

std::atomic<size_t> numbers = 0;

Node make_question(const char *name, size_t number) {
  return test_support::parse(std::string("<") + name + " xmlns='urn:stress' number='" + std::to_string(number) + "'/>");
}

void expect_number(const wb_dom_node *answer, size_t number) {
  EXPECT_STREQ(std::to_string(number).c_str(), wb_dom_get_attribute(answer, "number"));
}

// ---- Callbacks

// Counts the call, and now and then does something.
void count_and_act(Watch &watch, std::atomic<unsigned> &counter, unsigned every) {
  const unsigned count = watch.seen(counter);
  if (count % every == 0 && !watch.is_quiet) do_within_callback(watch.connection, count / every);
}

void on_connect(quillon_connection *, void *watch) { count_and_act(Watch::of(watch), Watch::of(watch).connected, 4); }
void on_account(quillon_connection *, QUILLON_STATUS, void *watch) { count_and_act(Watch::of(watch), Watch::of(watch).told, 4); }
void on_news(wb_dom_node *, void *watch) { count_and_act(Watch::of(watch), Watch::of(watch).received, 64); }
wb_dom_node *on_query(wb_dom_node *request, void *watch) {
  count_and_act(Watch::of(watch), Watch::of(watch).received, 64);
  return request;
}

// On the event loop, where what would block is refused.
void on_disconnect(quillon_connection *connection, QUILLON_STATUS, void *given) {
  Watch &watch = Watch::of(given);
  if (watch.seen(watch.disconnected) % 4 != 0 || watch.is_quiet) return;
  begin_to_ask(nullptr, watch, 500, 1);
  EXPECT_EQ(QUILLON_STATUS_SEND_ERROR, quillon_connection_drain(connection, 100));
  EXPECT_EQ(QUILLON_STATUS_CONNECTION_ERROR, quillon_connection_connect(connection));
  EXPECT_NE(QUILLON_STATUS_OK, ask(connection, nullptr));
}
void on_stanza(quillon_connection *, QUILLON_TRACE_DIRECTION, const char *, size_t, void *given) {
  Watch &watch = Watch::of(given);
  if (watch.seen(watch.traced) % 64 == 0 && !watch.is_quiet) begin_to_ask(nullptr, watch, 500, 0);
}

void expect_outcome(const quillon_query_result &result, size_t number) {
  static const std::initializer_list<QUILLON_STATUS> kStatuses[] = {
      {QUILLON_STATUS_OK},
      {QUILLON_STATUS_XMPP_ERROR, QUILLON_STATUS_QUILLON_ERROR},
      {QUILLON_STATUS_NO_CONNECTION, QUILLON_STATUS_CAPABILITY_NOT_FOUND, QUILLON_STATUS_SEND_TIMEOUT,
       QUILLON_STATUS_CONNECTION_ERROR, QUILLON_STATUS_UNKNOWN},
      {QUILLON_STATUS_SEND_TIMEOUT, QUILLON_STATUS_CONNECTION_ERROR, QUILLON_STATUS_UNKNOWN}};
  ASSERT_LT(result.outcome, QUILLON_QUERY_OUTCOME_MAX);
  const auto &statuses = kStatuses[result.outcome];
  EXPECT_TRUE(std::find(statuses.begin(), statuses.end(), result.status) != statuses.end())
      << "outcome " << result.outcome << " with " << result.status;
  const bool is_answered = result.outcome == QUILLON_QUERY_OUTCOME_ANSWERED;
  EXPECT_EQ(is_answered, result.response != nullptr);
  EXPECT_TRUE(result.outcome == QUILLON_QUERY_OUTCOME_NOT_SENT || result.publisher != nullptr) << result.outcome;
  if (!is_answered) return;
  expect_number(result.response, number);
  ++asynchronous_answers;
  // The response is freed by whoever comes next.
  static std::mutex mutex;
  static Node kept;
  EXPECT_TRUE(wb_dom_context_retain(wb_dom_get_context(result.response), nullptr));
  Node response(result.response);
  const std::lock_guard lock(mutex);
  kept.swap(response);
}

void on_done(const quillon_query_result *result, void *given) {
  auto &question = *static_cast<Question *>(given);
  Watch &watch = *question.watch;
  EXPECT_EQ(1U, ++question.ended);
  watch.seen(watch.ended);
  expect_outcome(*result, question.number);
  if (question.followers > 0) begin_to_ask(nullptr, watch, 500, question.followers - 1);
  if (question.number % 16 == 0 && !watch.is_quiet) do_within_callback(watch.connection, question.number / 16);
}

}  // namespace

// ---- What was asked

Question &Watch::add_question(unsigned followers) {
  const std::lock_guard lock(mutex_);
  Question &question = questions_.emplace_back();
  question.watch = this;
  question.number = ++numbers;
  question.followers = followers;
  return question;
}

void Watch::expect_each_question_ended_once() {
  const std::lock_guard lock(mutex_);
  for (const Question &question : questions_) EXPECT_EQ(question.is_begun ? 1U : 0U, question.ended) << question.number;
}

size_t Watch::questions() {
  const std::lock_guard lock(mutex_);
  return questions_.size();
}

// ---- Members

Member make_member(std::vector<std::string> hosts, Watch &watch, Random &random) {
  Member member;
  quillon_config *config = nullptr;
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_config_create(&config));
  member.config.reset(config, ConfigDestroy());
  std::shuffle(hosts.begin(), hosts.end(), random);
  std::vector<const char *> texts;
  for (const std::string &host : hosts) texts.push_back(host.c_str());
  quillon_config_set_hosts(config, texts.data(), static_cast<int>(texts.size()));
  quillon_config_set_user_name(config, "alice");
  set_credentials(config, Identities::get().client);
  const char *const authority = Identities::get().authority.certificate().c_str();
  quillon_config_set_server_cert_chain_filename(config, authority);
  quillon_config_set_bulk_server_cert_chain_filename(config, authority);
  quillon_config_set_send_timeout_seconds(config, 2);
  quillon_config_set_address_racing(config, once_in(random, 3));
  const auto overflow = once_in(random, 2) ? QUILLON_HANDLER_QUEUE_OVERFLOW_DROP : QUILLON_HANDLER_QUEUE_OVERFLOW_CLOSE;
  quillon_config_set_handler_queue_bound(config, static_cast<int>(pick(random, 3) * 50), overflow);
  quillon_config_set_handler_queue_bytes(config, 0, once_in(random, 3) ? 200'000 : 0);
  member.capability = test_support::make_capability("urn:stress", "Stress");
  member.connection = test_support::make_connection();
  member.watch = &watch;
  quillon_connection *connection = watch.connection = member.connection.get();
  static char timeout[] = "2";  // seconds
  EXPECT_TRUE(wb_htable_put(connection->wb_config, "connect_timeout_seconds", timeout, nullptr, nullptr));
  quillon_connection_set_config(connection, config);
  quillon_connection_set_connect_cb_user_data(connection, &watch);
  quillon_connection_set_disconnect_cb_user_data(connection, &watch);
  set_callbacks(connection, watch);
  return member;
}

void set_callbacks(quillon_connection *connection, Watch &watch, bool has_account_cb) {
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_set_account_cb(connection, has_account_cb ? on_account : nullptr));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_set_account_cb_user_data(connection, &watch));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_set_disconnect_cb(connection, on_disconnect));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_set_connect_cb(connection, on_connect));
}

void register_handlers(quillon_connection *connection, Watch &watch) {
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_register_query_handler(connection, "urn:stress", "asked", on_query, &watch));
  if (watch.received % 4 != 0) return;  // notification handlers add up
  EXPECT_EQ(QUILLON_STATUS_OK,
            quillon_connection_register_notification_handler(connection, "urn:stress", "news", on_news, &watch));
}

void set_reports(quillon_reconnection *reconnection, Watch &watch) {
  const auto on_report = [](const quillon_reconnection_report *, void *given) {
    count_and_act(Watch::of(given), Watch::of(given).reported, 2);
  };
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_reconnection_set_report_cb(reconnection, on_report, &watch));
}

void set_trace(quillon_connection *connection, Watch &watch, bool is_on) {
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_set_stanza_trace(connection, is_on ? on_stanza : nullptr, &watch));
}

void set_credentials(quillon_config *config, const testpeer::Credentials &credentials) {
  quillon_config_set_client_cert_chain_filename(config, credentials.certificate.c_str());
  quillon_config_set_client_cert_key_filename(config, credentials.key.c_str());
}

quillon_statistics statistics_of(const quillon_connection *connection) {
  quillon_statistics now;
  now.size = sizeof now;
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_get_statistics(connection, &now));
  return now;
}

// ---- Calls

void expect_status(QUILLON_STATUS status, std::initializer_list<QUILLON_STATUS> others, const char *call) {
  const bool is_one = std::find(others.begin(), others.end(), status) != others.end();
  EXPECT_TRUE(status == QUILLON_STATUS_OK || is_one) << call << " came to " << status;
}

QUILLON_STATUS connect(quillon_connection *connection) {
  const QUILLON_STATUS status = quillon_connection_connect(connection);
  expect_status(status,
                {QUILLON_STATUS_CONNECTION_ERROR, QUILLON_STATUS_SEND_TIMEOUT, QUILLON_STATUS_XMPP_ERROR,
                 QUILLON_STATUS_QUILLON_ERROR, QUILLON_STATUS_SEND_ERROR, QUILLON_STATUS_UNKNOWN},
                "connect");
  if (status == QUILLON_STATUS_OK) ++sessions;
  return status;
}

QUILLON_STATUS drain(quillon_connection *connection, unsigned milliseconds) {
  const QUILLON_STATUS status = quillon_connection_drain(connection, milliseconds);
  expect_status(status, {QUILLON_STATUS_SEND_TIMEOUT}, "drain");
  return status;
}

QUILLON_STATUS notify(quillon_connection *connection, quillon_capability *capability) {
  const QUILLON_STATUS status =
      quillon_connection_notify(connection, capability, test_support::parse("<news xmlns='urn:stress'/>").release());
  expect_status(status, {QUILLON_STATUS_SEND_ERROR, QUILLON_STATUS_UNKNOWN}, "notify");
  return status;
}

QUILLON_STATUS ask(quillon_connection *connection, quillon_capability *capability, const char *name) {
  const size_t number = ++numbers;
  Node request = make_question(name, number);
  wb_dom_node *received = nullptr;
  const QUILLON_STATUS status = capability != nullptr ? quillon_connection_query(connection, capability, request.get(), &received)
                                                      : quillon_connection_query_controller(connection, request.get(), &received);
  if (status != QUILLON_STATUS_CAPABILITY_NOT_FOUND) static_cast<void>(request.release());  // consumed
  const Node answer(received);
  expect_status(status,
                {QUILLON_STATUS_CAPABILITY_NOT_FOUND, QUILLON_STATUS_SEND_TIMEOUT, QUILLON_STATUS_XMPP_ERROR,
                 QUILLON_STATUS_QUILLON_ERROR, QUILLON_STATUS_UNKNOWN, QUILLON_STATUS_SEND_ERROR, QUILLON_STATUS_NO_CONNECTION},
                "query");
  EXPECT_EQ(status == QUILLON_STATUS_OK, answer != nullptr);
  if (answer == nullptr) return status;
  expect_number(answer.get(), number);
  ++answers;
  return status;
}

QUILLON_STATUS begin_to_ask(quillon_capability *capability, Watch &watch, unsigned milliseconds, unsigned followers,
                            quillon_pending_query **pending, const char *name) {
  Question &question = watch.add_question(followers);
  Node request = make_question(name, question.number);
  const QUILLON_STATUS status =
      capability != nullptr
          ? quillon_connection_query_async(watch.connection, capability, request.get(), milliseconds, on_done, &question, pending)
          : quillon_connection_query_controller_async(watch.connection, request.get(), milliseconds, on_done, &question, pending);
  expect_status(status, {QUILLON_STATUS_NO_CONNECTION}, "asynchronous query");
  if (status != QUILLON_STATUS_OK) return status;
  static_cast<void>(request.release());  // consumed
  question.is_begun = true;
  return status;
}

void do_within_callback(quillon_connection *connection, size_t number) {
  switch (number % 5) {
    case 0:
      ask(connection, nullptr);
      return;
    case 1:
      drain(connection, 100);
      return;
    case 2:
      connect(connection);
      return;
    case 3:
      EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_disconnect(connection));
      return;
    default:
      ask(connection, nullptr, "unanswered");
  }
}

}  // namespace stress

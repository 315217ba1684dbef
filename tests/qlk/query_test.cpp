#include "quillon_query.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <map>
#include <thread>

#include "grid_session.h"
#include "owners.h"
#include "quillon_capability.h"
#include "quillon_connection.h"
#include "quillon_log_capture.h"
#include "wait_for.h"

namespace {

using test_support::Node;
using test_support::parse;
using test_support::wait_for;

std::string request_iq(const std::string &payload) {
  return "<iq xmlns='jabber:client' type='get' id='7' from='bob@d/qlk' to='alice@d/qlk'><grid xmlns='quillon' type='request'>" +
         payload + "</grid></iq>";
}

// A handler made of a function of the test.
wb_dom_node *call(wb_dom_node *request, void *arg) {
  return (*static_cast<std::function<wb_dom_node *(wb_dom_node *)> *>(arg))(request);
}

class QueryEngine : public testing::Test {
 protected:
  QueryEngine() { log_.clear(); }

  void handle(const std::string &xml) {
    const Node iq = parse(xml);
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_query_handle(connection_->query, iq.get()));
  }

  // Requests are handled in order: once a last one was refused, the others were done with.
  void handle_and_wait(const std::string &xml) {
    handle(xml);
    handle("<iq xmlns='jabber:client' type='last'/>");
    ASSERT_TRUE(wait_for([&] { return log_.contains("Expected type as get. But got last"); }));
  }

  test_support::QuillonLogCapture log_;
  test_support::Connection connection_ = test_support::make_connection();
};

TEST_F(QueryEngine, HandsThePayloadToTheHandlerOfItsNameInAnyCase) {
  std::string seen;
  std::function<wb_dom_node *(wb_dom_node *)> first = [](wb_dom_node *) -> wb_dom_node * {
    ADD_FAILURE() << "replaced";
    return nullptr;
  };
  std::function<wb_dom_node *(wb_dom_node *)> second = [&](wb_dom_node *request) -> wb_dom_node * {
    seen = wb_dom_get_ename(request);
    return nullptr;
  };
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_connection_register_query_handler(connection_.get(), "urn:X", "Ask", call, &first));
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_connection_register_query_handler(connection_.get(), "urn:x", "ASK", call, &second));
  handle_and_wait(request_iq("<ask xmlns='urn:x'/>"));
  EXPECT_EQ("{urn:x}ask", seen);
  EXPECT_EQ(1U, log_.count_exact("response && query->connection is null"));
}

struct Malformed {
  const char *name, *xml, *record;
};
// Names the case in failure messages.
void PrintTo(const Malformed &c, std::ostream *out) { *out << c.name; }
const Malformed kMalformed[] = {
    {"NoType", "<iq xmlns='jabber:client'/>", "Get attribute for type failed"},
    {"TypeSet", "<iq xmlns='jabber:client' type='set'/>", "Expected type as get. But got set"},
    {"NoGrid", "<iq xmlns='jabber:client' type='get'/>", "get_first_child for grid failed"},
    {"OtherChild", "<iq xmlns='jabber:client' type='get'><grid xmlns='other'/></iq>",
     "Expected {quillon}grid. But got {other}grid"},
    {"GridWithoutType", "<iq xmlns='jabber:client' type='get'><grid xmlns='quillon'/></iq>",
     "Get attribute for grid type failed"},
    {"GridResponse", "<iq xmlns='jabber:client' type='get'><grid xmlns='quillon' type='response'/></iq>",
     "Expected type as request. But got response"},
    {"NoPayload", "<iq xmlns='jabber:client' type='getter'><gridx xmlns='quillon' type='requests'/></iq>",
     "get_first_child on grid failed"}};
class QueryMalformed : public QueryEngine, public testing::WithParamInterface<Malformed> {};
TEST_P(QueryMalformed, IsLoggedAndDropped) {
  handle_and_wait(GetParam().xml);
  EXPECT_EQ(1U, log_.count_exact(GetParam().record)) << log_.all();
}
INSTANTIATE_TEST_SUITE_P(Requests, QueryMalformed, testing::ValuesIn(kMalformed),
                         [](const auto &c) { return std::string(c.param.name); });

TEST_F(QueryEngine, IsSilentAboutARequestWithoutHandler) {
  handle_and_wait(request_iq("<unknown xmlns='urn:x'/>"));
  EXPECT_EQ(1U, log_.records().size()) << log_.all();  // about the last request
}

TEST_F(QueryEngine, LetsAHandlerDestroyItsConnection) {
  std::atomic<bool> returned = false;
  std::function<wb_dom_node *(wb_dom_node *)> handler = [&](wb_dom_node *) -> wb_dom_node * {
    connection_.reset();
    returned = true;
    return parse("<answer xmlns='urn:x'/>").release();
  };
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_connection_register_query_handler(connection_.get(), "urn:x", "ask", call, &handler));
  handle(request_iq("<ask xmlns='urn:x'/>"));
  ASSERT_TRUE(wait_for([&] { return log_.contains("response && query->connection is null"); }));
  EXPECT_TRUE(returned);
}

TEST_F(QueryEngine, DestroyWaitsForTheHandlerAndDropsTheRest) {
  std::atomic<int> calls = 0;
  std::atomic<bool> go_on = false;
  std::function<wb_dom_node *(wb_dom_node *)> handler = [&](wb_dom_node *) -> wb_dom_node * {
    ++calls;
    while (!go_on) std::this_thread::yield();
    ++calls;
    return nullptr;
  };
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_connection_register_query_handler(connection_.get(), "urn:x", "ask", call, &handler));
  handle(request_iq("<ask xmlns='urn:x'/>"));
  handle(request_iq("<ask xmlns='urn:x'/>"));
  ASSERT_TRUE(wait_for([&] { return calls == 1; }));
  quillon_query *query = std::exchange(connection_->query, nullptr);
  std::thread destroyer([&] { quillon_query_destroy(query); });
  ASSERT_TRUE(wait_for([&] { return !query->request_handler.keep_running(); }));
  go_on = true;
  destroyer.join();
  EXPECT_EQ(2, calls);
}

TEST_F(QueryEngine, ChecksArguments) {
  const Node request = parse("<ask xmlns='urn:x'/>");
  const qlk::StringPtr jid = qlk::make_string("bob@d/qlk"), name = qlk::make_string("ask");
  const test_support::Capability capability = test_support::make_capability("urn:x", "C");
  quillon_query *query = connection_->query;
  wb_dom_node *response = request.get();
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_query_create(&query, nullptr));
  EXPECT_EQ(nullptr, query);
  query = connection_->query;
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_query_call_with_jid(nullptr, jid.get(), request.get(), &response));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_query_call_with_jid(query, nullptr, request.get(), &response));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_query_call_with_jid(query, jid.get(), nullptr, &response));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_query_call(query, nullptr, request.get(), &response));
  EXPECT_EQ(QUILLON_STATUS_CAPABILITY_NOT_FOUND, quillon_query_call(query, capability.get(), request.get(), &response));
  EXPECT_EQ(nullptr, response);
  EXPECT_EQ("<ask xmlns=\"urn:x\"/>", test_support::serialize(request.get())) << "the request is still the caller's";
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_query_register_handler(query, name.get(), nullptr, call, nullptr));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_query_register_handler(query, name.get(), name.get(), nullptr, nullptr));
  EXPECT_EQ(QUILLON_STATUS_WB_ERROR, quillon_query_handle(query, nullptr));
  for (const char *record : {"connection is null", "query is null", "jid is null", "request is null", "capability is null",
                             "quillon_query_handle retain failed"})
    EXPECT_EQ(1U, log_.count_exact(record)) << record;
  const std::string too_long(65537, 'n');
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS,
            quillon_connection_register_query_handler(connection_.get(), "urn:x", too_long.c_str(), call, nullptr));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_query_destroy(nullptr));
}

// Nobody is connected, and a time-out of 0 is over at once.
TEST_F(QueryEngine, TriesEachPublisherOnceAndConsumesTheRequest) {
  const test_support::Capability capability = test_support::make_capability("urn:x", "C");
  for (const char *jid : {"a@d/qlk", "b@d/qlk", "c@d/qlk"}) qlk::_add_jid(capability.get(), qlk::make_string(jid).get());
  wb_dom_node *response = nullptr;
  const QUILLON_STATUS status =
      quillon_query_call(connection_->query, capability.get(), parse("<ask xmlns='urn:x'/>").release(), &response);
  EXPECT_EQ(QUILLON_STATUS_SEND_TIMEOUT, status);
  EXPECT_EQ(nullptr, response);
  EXPECT_EQ(3U, log_.count_exact("send and wait failed"));
}

// Asks publishers that answer as the test says.
class QueryCalls : public test_support::GridSession {
 protected:
  QueryCalls() {
    client_.respond([this](const wb_dom_node *iq) {
      asked_ += wb_dom_get_attribute(iq, "to")[0];
      return answers_[asked_.back()];
    });
  }

  // Publishers are told apart by the first letter of their JIDs.
  static void set_publishers(quillon_capability *capability, const std::string &letters) {
    for (const std::string &jid : test_support::jids_of(capability)) qlk::_remove_jid(capability, qlk::make_string(jid).get());
    for (const char letter : letters) qlk::_add_jid(capability, qlk::make_string(letter + std::string("@d/qlk")).get());
  }

  // The publishers that are asked, in order.
  std::string ask(quillon_capability *capability, QUILLON_STATUS expected) {
    asked_.clear();
    wb_dom_node *response = nullptr;
    EXPECT_EQ(expected,
              quillon_connection_query(connection_.get(), capability, parse("<ask xmlns='urn:x'/>").release(), &response));
    const Node owner(response);
    EXPECT_EQ(expected == QUILLON_STATUS_OK, response != nullptr);
    return asked_;
  }

  std::string asked_;
  std::map<char, std::string> answers_;
  const std::string answer_ = test_support::grid_reply("<answer xmlns='urn:x'/>");
  const std::string refusal_ = "<iq xmlns='jabber:client' type='error'/>";
  const test_support::Capability capability_ = test_support::make_capability("urn:x", "C");
};

TEST_F(QueryCalls, WrapsTheRequestAndHandsTheResponseOut) {
  answers_['a'] = test_support::grid_reply("<answer xmlns='urn:x'>42</answer>");
  wb_dom_node *response = nullptr;
  const qlk::StringPtr jid = qlk::make_string("a@d/qlk");
  ASSERT_EQ(QUILLON_STATUS_OK,
            quillon_query_call_with_jid(connection_->query, jid.get(), parse("<ask xmlns='urn:x'>?</ask>").release(), &response));
  const Node owner(response);
  EXPECT_STREQ("42", wb_dom_get_first_text(response));
  EXPECT_EQ(std::vector<std::string>{"<iq xmlns=\"jabber:client\" to=\"a@d/qlk\" type=\"get\"><grid xmlns=\"quillon\" "
                                     "type=\"request\"><ask xmlns=\"urn:x\">?</ask></grid></iq>"},
            client_.asked());
  EXPECT_EQ(QUILLON_STATUS_OK,
            quillon_query_call_with_jid(connection_->query, jid.get(), parse("<ask xmlns='urn:x'/>").release(), nullptr))
      << "a response that nobody wants";
}

struct ReplyCase {
  const char *name, *reply;
  QUILLON_STATUS status;
  std::vector<std::string> records;
};
void PrintTo(const ReplyCase &c, std::ostream *out) { *out << c.name; }
const ReplyCase kReplies[] = {
    {"None", "", QUILLON_STATUS_SEND_TIMEOUT, {"send and wait failed"}},
    {"NoType", "<iq xmlns='jabber:client'/>", QUILLON_STATUS_XMPP_ERROR, {"get attribute type failed"}},
    {"Error",
     "<iq xmlns='jabber:client' type='error'/>",
     QUILLON_STATUS_XMPP_ERROR,
     {"response type=error did not match qresp_result_tag=result"}},
    {"NoGrid", "<iq xmlns='jabber:client' type='result'/>", QUILLON_STATUS_XMPP_ERROR, {"get first child failed"}},
    {"GridWithoutType",
     "<iq xmlns='jabber:client' type='result'><grid/></iq>",
     QUILLON_STATUS_QUILLON_ERROR,
     {"response type=(null) did not match qresp_response_tag=response"}},
    {"GridRequest",
     "<iq xmlns='jabber:client' type='result'><grid type='request'><a/></grid></iq>",
     QUILLON_STATUS_QUILLON_ERROR,
     {"response type=request did not match qresp_response_tag=response"}},
    {"NoPayload",
     "<iq xmlns='jabber:client' type='result'><grid type='response'/></iq>",
     QUILLON_STATUS_QUILLON_ERROR,
     {"response is null"}},
    {"LongerTypes", "<iq xmlns='jabber:client' type='results'><grid type='responses'><a/></grid></iq>", QUILLON_STATUS_OK, {}}};
class QueryReplies : public QueryCalls, public testing::WithParamInterface<ReplyCase> {};
TEST_P(QueryReplies, DecideTheStatus) {
  answers_['a'] = GetParam().reply;
  set_publishers(capability_.get(), "a");
  ask(capability_.get(), GetParam().status);
  for (const std::string &record : GetParam().records) EXPECT_EQ(1U, log_.count_exact(record)) << log_.all();
  EXPECT_EQ(GetParam().records.empty(), log_.records().empty()) << log_.all();
}
INSTANTIATE_TEST_SUITE_P(Kinds, QueryReplies, testing::ValuesIn(kReplies),
                         [](const auto &c) { return std::string(c.param.name); });

TEST_F(QueryCalls, MovesOnAfterSilenceAndXmppErrorsAndStaysWithWhoAnswered) {
  set_publishers(capability_.get(), "abc");
  answers_ = {{'a', ""}, {'b', refusal_}, {'c', answer_}};
  EXPECT_EQ("abc", ask(capability_.get(), QUILLON_STATUS_OK));
  EXPECT_EQ("c", ask(capability_.get(), QUILLON_STATUS_OK));
  answers_ = {{'a', answer_}};
  EXPECT_EQ("ca", ask(capability_.get(), QUILLON_STATUS_OK));
  EXPECT_EQ("a", ask(capability_.get(), QUILLON_STATUS_OK));
}

TEST_F(QueryCalls, AGridLevelFailureEndsTheSearchAndIsStayedWith) {
  set_publishers(capability_.get(), "abc");
  answers_ = {{'b', "<iq xmlns='jabber:client' type='result'><grid type='other'/></iq>"}, {'c', answer_}};
  EXPECT_EQ("ab", ask(capability_.get(), QUILLON_STATUS_QUILLON_ERROR));
  EXPECT_EQ("b", ask(capability_.get(), QUILLON_STATUS_QUILLON_ERROR));
}

TEST_F(QueryCalls, WhenNobodyAnswersTheChoiceStays) {
  set_publishers(capability_.get(), "abc");
  answers_ = {{'b', answer_}};
  EXPECT_EQ("ab", ask(capability_.get(), QUILLON_STATUS_OK));
  answers_ = {{'a', refusal_}};
  EXPECT_EQ("bca", ask(capability_.get(), QUILLON_STATUS_XMPP_ERROR)) << "the last attempt's status";
  answers_ = {{'b', answer_}};
  EXPECT_EQ("b", ask(capability_.get(), QUILLON_STATUS_OK));
}

TEST_F(QueryCalls, AnIndexBeyondTheListRestartsAtTheFirstAndIsReplaced) {
  set_publishers(capability_.get(), "abc");
  answers_ = {{'c', answer_}};
  EXPECT_EQ("abc", ask(capability_.get(), QUILLON_STATUS_OK));
  set_publishers(capability_.get(), "xy");
  answers_ = {{'x', answer_}};
  EXPECT_EQ("x", ask(capability_.get(), QUILLON_STATUS_OK));
  set_publishers(capability_.get(), "xyz");
  EXPECT_EQ("x", ask(capability_.get(), QUILLON_STATUS_OK)) << "0 was stored";
}

// Logs, and destroys the connection once an attempt has failed.
test_support::Connection *doomed = nullptr;
int log_and_destroy(FILE *, const char *format, va_list args) __attribute__((format(printf, 2, 0)));

int log_and_destroy(FILE *, const char *format, va_list args) {
  if (format == std::string_view("send and wait failed")) std::thread([] { doomed->reset(); }).join();
  return test_support::LogCapture::receive(format, args);
}

// The session ended, and the application destroys the connection before the call has gone on.
TEST_F(QueryCalls, NobodyIsAskedOnceTheConnectionIsDestroyed) {
  doomed = &connection_;
  set_publishers(capability_.get(), "ab");
  wb_log_set_function(log_and_destroy);
  EXPECT_EQ("a", ask(capability_.get(), QUILLON_STATUS_SEND_TIMEOUT));
}

TEST_F(QueryCalls, TopicsOfOneSizeShareTheChoice) {
  const test_support::Capability same = test_support::make_capability("urn:y", "D"),
                                 other = test_support::make_capability("urn:x", "DD");
  for (const auto *capability : {&capability_, &same, &other}) set_publishers(capability->get(), "ab");
  answers_ = {{'b', answer_}};
  EXPECT_EQ("ab", ask(capability_.get(), QUILLON_STATUS_OK));
  EXPECT_EQ("b", ask(same.get(), QUILLON_STATUS_OK));
  EXPECT_EQ("ab", ask(other.get(), QUILLON_STATUS_OK));
}

TEST_F(QueryCalls, ManyThreadsAskWhilePublishersChange) {
  set_publishers(capability_.get(), "abc");
  client_.respond([this](const wb_dom_node *iq) { return wb_dom_get_attribute(iq, "to")[0] == 'a' ? refusal_ : answer_; });
  std::atomic<int> answered = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 16; ++i) {
    threads.emplace_back([&] {
      for (int n = 0; n < 50; ++n) {
        wb_dom_node *response = nullptr;
        if (quillon_connection_query(connection_.get(), capability_.get(), parse("<ask xmlns='urn:x'/>").release(), &response) ==
            QUILLON_STATUS_OK)
          ++answered;
        const Node owner(response);
      }
    });
  }
  for (int n = 0; n < 200; ++n) {
    qlk::_remove_jid(capability_.get(), qlk::make_string("b@d/qlk").get());
    qlk::_add_jid(capability_.get(), qlk::make_string("b@d/qlk").get());
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(800, answered) << "c was there all the time";
}

// Answers requests; the reply goes to the fake session.
class QueryReply : public test_support::GridSession {
 protected:
  std::string reply_to(const std::string &iq, std::function<wb_dom_node *(wb_dom_node *)> handler) {
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_register_query_handler(connection_.get(), "urn:x", "ask", call, &handler));
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_query_handle(connection_->query, parse(iq).get()));
    EXPECT_TRUE(wait_for([&] { return !client_.sent().empty(); }));
    return client_.sent()[0];
  }
  const std::string answer_ =
      "<iq xmlns=\"jabber:client\" id=\"7\" to=\"bob@d/qlk\" from=\"alice@d/qlk\" type=\"result\"><grid xmlns=\"quillon\" "
      "type=\"response\">";
};

TEST_F(QueryReply, GoesBackToTheSender) {
  EXPECT_EQ(answer_ + "<answer xmlns=\"urn:x\"/></grid></iq>", reply_to(request_iq("<ask xmlns='urn:x'/>"), [](wb_dom_node *) {
              return parse("<answer xmlns='urn:x'/>").release();
            }));
}

TEST_F(QueryReply, MayBeTheRequestItself) {
  EXPECT_EQ(answer_ + "<ask xmlns=\"urn:x\">echo</ask></grid></iq>",
            reply_to(request_iq("<ask xmlns='urn:x'>echo</ask>"), [](wb_dom_node *request) { return request; }));
}

}  // namespace

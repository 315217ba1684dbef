#include <gtest/gtest.h>

#include <memory>
#include <thread>

#include "grid_session.h"
#include "quillon_authentication_token.h"
#include "quillon_grid.h"

namespace {

using test_support::grid_reply;

class Authorization : public test_support::GridSession {
 protected:
  bool ask() { return quillon_connection_is_authorized(connection_.get(), "Cap", "op", "bob"); }
};

TEST_F(Authorization, SendsTheQuestion) {
  client_.respond([](const wb_dom_node *) { return grid_reply("<r xmlns='" ADMIN_NS "'><authorized>true</authorized></r>"); });
  EXPECT_TRUE(ask());
  EXPECT_EQ(std::vector<std::string>{to_controller(
                "<qn:getAuthorizedByUserRequest xmlns=\"" GRID_NS "\" xmlns:qn=\"" ADMIN_NS "\" xmlns:xsi=\"" XSI_NS "\">"
                "<qn:capabilityName>Cap</qn:capabilityName><qn:operationName>op</qn:operationName><qn:user>bob</qn:user>"
                "</qn:getAuthorizedByUserRequest>")},
            client_.asked());
}

TEST_F(Authorization, EverythingButTrueIsFalse) {
  for (const char *payload :
       {"<r xmlns='" ADMIN_NS "'><authorized>True</authorized></r>", "<r xmlns='" ADMIN_NS "'><authorized>1</authorized></r>",
        "<r xmlns='" ADMIN_NS "'><authorized>truer</authorized></r>", "<r xmlns='" ADMIN_NS "'><authorized/></r>",
        "<r xmlns='" ADMIN_NS "'/>", "<r xmlns='" GRID_NS "'><authorized>true</authorized></r>"}) {
    client_.respond([payload](const wb_dom_node *) { return grid_reply(payload); });
    EXPECT_FALSE(ask()) << payload;
  }
  for (const char *iq : {"", "<iq xmlns='jabber:client' type='error'/>"}) {
    client_.respond([iq](const wb_dom_node *) { return iq; });
    EXPECT_FALSE(ask()) << iq;
  }
}

TEST_F(Authorization, ChecksArguments) {
  EXPECT_FALSE(quillon_connection_is_authorized(nullptr, "c", "o", "u"));
  EXPECT_FALSE(quillon_connection_is_authorized(connection_.get(), nullptr, "o", "u"));
  EXPECT_FALSE(quillon_connection_is_authorized(connection_.get(), "c", nullptr, "u"));
  EXPECT_FALSE(quillon_connection_is_authorized(connection_.get(), "c", "o", nullptr));
  EXPECT_EQ((std::vector<std::string>{"Invalid connection object", "Invalid capability name", "Invalid operation name",
                                      "Invalid user"}),
            log_.records());
  EXPECT_TRUE(client_.asked().empty());
}

struct TokenDestroy {
  void operator()(quillon_authentication_token *token) const { quillon_authentication_token_destroy(token); }
};

class AuthenticationToken : public test_support::GridSession {
 protected:
  AuthenticationToken() {
    quillon_authentication_token *token = nullptr;
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_authentication_token_create(&token, connection_.get()));
    token_.reset(token);
  }
  void reply(const std::string &payload) {
    client_.respond([payload](const wb_dom_node *) { return grid_reply(payload); });
  }
  const char *get() { return quillon_authentication_token_get(token_.get()); }

  std::unique_ptr<quillon_authentication_token, TokenDestroy> token_;
};

TEST_F(AuthenticationToken, IsFetchedOnce) {
  reply("<getTokenResponse xmlns='" ADMIN_NS "'><token>s3cret</token></getTokenResponse>");
  EXPECT_TRUE(client_.asked().empty());
  const char *first = get();
  EXPECT_STREQ("s3cret", first);
  EXPECT_EQ(first, get());
  EXPECT_EQ(std::vector<std::string>{to_controller("<getTokenRequest xmlns=\"" ADMIN_NS "\"/>")}, client_.asked());
  EXPECT_FALSE(log_.contains("s3cret"));
}

TEST_F(AuthenticationToken, WithoutATextTheNextCallAsksAgain) {
  size_t asked = 0;
  for (const char *payload :
       {"<getTokenResponse xmlns='" ADMIN_NS "'><token/></getTokenResponse>", "<getTokenResponse xmlns='" ADMIN_NS "'/>",
        "<other xmlns='" ADMIN_NS "'><token>s3cret</token></other>"}) {
    reply(payload);
    EXPECT_EQ(nullptr, get()) << payload;
    EXPECT_EQ(++asked, client_.asked().size());
    EXPECT_EQ(QUILLON_STATUS_OK, qlk::_populate_token(token_.get()));
    ++asked;
  }
  client_.respond(nullptr);
  EXPECT_EQ(nullptr, get());
  EXPECT_EQ(QUILLON_STATUS_SEND_TIMEOUT, qlk::_populate_token(token_.get()));
  reply("<getTokenResponse2 xmlns='" ADMIN_NS "'><token>late</token></getTokenResponse2>");
  EXPECT_STREQ("late", get());
}

TEST_F(AuthenticationToken, ThreadsGetTheSameText) {
  reply("<getTokenResponse xmlns='" ADMIN_NS "'><token>s3cret</token></getTokenResponse>");
  const char *texts[4] = {};
  std::vector<std::thread> threads;
  for (const char *&text : texts) threads.emplace_back([&] { text = get(); });
  for (std::thread &thread : threads) thread.join();
  for (const char *text : texts) EXPECT_EQ(texts[0], text);
  EXPECT_STREQ("s3cret", texts[0]);
}

TEST_F(AuthenticationToken, ChecksArguments) {
  EXPECT_EQ(nullptr, quillon_authentication_token_get(nullptr));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_authentication_token_destroy(nullptr));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, qlk::_populate_token(nullptr));
}

}  // namespace

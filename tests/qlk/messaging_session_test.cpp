// Messaging over a real session with a server inside the test, which plays the controller and the other clients as well.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <qlk/testpeer/peer.hpp>
#include <thread>

#include "grid_objects.h"
#include "quillon_grid.h"
#include "quillon_log_capture.h"
#include "wait_for.h"

namespace {

using test_support::Node;
using test_support::parse;
using test_support::wait_for;
using testpeer::Element;

constexpr char kSilent[] = "silent@" GRID_DOMAIN "/qlk", kFailing[] = "failing@" GRID_DOMAIN "/qlk",
               kGood[] = "good@" GRID_DOMAIN "/qlk";

constexpr std::chrono::seconds kSoon(20);

auto sent_to(const char *jid) {
  return [jid](const Element &stanza) { return stanza.attribute("to") == jid; };
}

// The publishers answer each in its own way.
bool serve(testpeer::Connection &link, const Element &stanza) {
  const std::string to = stanza.attribute("to");
  if (to == kFailing) link.reply(stanza, {.error = "item-not-found"});
  if (to == kGood) link.reply(stanza, {.payload = "<grid xmlns='quillon' type='response'><answer xmlns='urn:x'/></grid>"});
  return to == kSilent || to == kFailing || to == kGood;
}

void call_notified(wb_dom_node *payload, void *arg) { (*static_cast<std::function<void(wb_dom_node *)> *>(arg))(payload); }
wb_dom_node *answer(wb_dom_node *, void *) { return parse("<answer xmlns='urn:x'/>").release(); }

struct ConfigDestroy {
  void operator()(quillon_config *config) const { quillon_config_destroy(config); }
};

class MessagingSession : public testing::Test {
 protected:
  void connect(std::vector<std::string> publishers) {
    server_ = std::make_unique<testpeer::ScriptedPeer>(testpeer::Options{.domain = GRID_DOMAIN,
                                                                         .certificate = authority_.server(GRID_DOMAIN),
                                                                         .on_stanza = serve,
                                                                         .act_as_controller = true,
                                                                         .controller = CONTROLLER_JID,
                                                                         .publishers = std::move(publishers)});
    const testpeer::Credentials client = authority_.client("alice", GRID_DOMAIN);
    quillon_config *config = nullptr;
    ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_create(&config));
    config_.reset(config);
    quillon_config_set_host(config, server_->host().c_str());
    quillon_config_set_user_name(config, "alice");
    quillon_config_set_client_cert_chain_filename(config, client.certificate.c_str());
    quillon_config_set_client_cert_key_filename(config, client.key.c_str());
    quillon_config_set_server_cert_chain_filename(config, authority_.certificate().c_str());
    quillon_config_set_send_timeout_seconds(config, 1);
    connection_ = test_support::make_connection();
    quillon_connection_set_config(connection_.get(), config);
    ASSERT_EQ(QUILLON_STATUS_OK, quillon_connection_connect(connection_.get())) << log_.all();
  }

  QUILLON_STATUS ask(quillon_capability *capability) {
    wb_dom_node *response = nullptr;
    const QUILLON_STATUS status =
        quillon_connection_query(connection_.get(), capability, parse("<ask xmlns='urn:x'/>").release(), &response);
    const Node owner(response);
    return status;
  }

  size_t asked(const char *jid) const {
    const auto stanzas = server_->stanzas();
    return static_cast<size_t>(std::count_if(stanzas.begin(), stanzas.end(), sent_to(jid)));
  }

  test_support::QuillonLogCapture log_;
  testpeer::CertificateAuthority authority_;
  std::unique_ptr<testpeer::ScriptedPeer> server_;
  std::unique_ptr<quillon_config, ConfigDestroy> config_;
  test_support::Connection connection_;
};

TEST_F(MessagingSession, AQueryFindsThePublisherThatAnswers) {
  const test_support::Capability capability = test_support::make_capability("urn:x", "C");
  connect({kSilent, kFailing, kGood});
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_subscribe(capability.get(), connection_.get()));
  EXPECT_EQ((std::vector<std::string>{kSilent, kFailing, kGood}), test_support::jids_of(capability.get()));
  EXPECT_EQ(QUILLON_STATUS_OK, ask(capability.get()));
  EXPECT_EQ(QUILLON_STATUS_OK, ask(capability.get()));
  EXPECT_EQ(1U, asked(kSilent));
  EXPECT_EQ(1U, asked(kFailing));
  EXPECT_EQ(2U, asked(kGood));
  EXPECT_EQ("alice@" GRID_DOMAIN "/qlk", server_->wait_for_stanza(sent_to(kGood), kSoon).value().attribute("from"));
}

TEST_F(MessagingSession, SixteenThreadsAsk) {
  const test_support::Capability capability = test_support::make_capability("urn:x", "C");
  connect({kFailing, kGood});
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_subscribe(capability.get(), connection_.get()));
  std::atomic<int> answered = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 16; ++i) {
    threads.emplace_back([&] {
      for (int n = 0; n < 20; ++n) answered += ask(capability.get()) == QUILLON_STATUS_OK ? 1 : 0;
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(320, answered);
}

TEST_F(MessagingSession, ARequestIsAnsweredAndANotificationDispatched) {
  connect({});
  std::atomic<int> notified = 0;
  std::function<void(wb_dom_node *)> handler = [&](wb_dom_node *) { ++notified; };
  quillon_connection_register_query_handler(connection_.get(), "urn:x", "ask", answer, nullptr);
  quillon_connection_register_notification_handler(connection_.get(), "urn:x", "n", call_notified, &handler);
  server_->send("<iq xmlns='jabber:client' type='get' id='q1' from='" + std::string(kGood) +
                "' to='alice@" GRID_DOMAIN "/qlk'><grid xmlns='quillon' type='request'><ask xmlns='urn:x'/></grid></iq>");
  server_->notify("<n xmlns='urn:x'/>");
  const auto is_response = [](const Element &stanza) { return stanza.attribute("id") == "q1"; };
  const Element response = server_->wait_for_stanza(is_response, kSoon).value();
  EXPECT_EQ(kGood, response.attribute("to"));
  EXPECT_EQ("result", response.attribute("type"));
  ASSERT_NE(nullptr, response.child("grid"));
  EXPECT_EQ("response", response.child("grid")->attribute("type"));
  EXPECT_TRUE(response.child("grid")->children.at(0).is("answer", "urn:x"));
  EXPECT_TRUE(wait_for([&] { return notified == 1; }));
}

TEST_F(MessagingSession, ANotificationReachesTheService) {
  const test_support::Capability capability = test_support::make_capability("urn:x", "C");
  connect({});
  EXPECT_EQ(QUILLON_STATUS_OK,
            quillon_connection_notify(connection_.get(), capability.get(), parse("<n xmlns='urn:x'/>").release()));
  const auto is_for_service = [](const Element &stanza) { return stanza.child("pubsub") != nullptr; };
  const Element publish = server_->wait_for_stanza(is_for_service, kSoon).value();
  EXPECT_EQ(PUBSUB_JID, publish.attribute("to"));
  EXPECT_EQ("C-1.0", publish.child("pubsub")->children.at(0).attribute("node"));
}

TEST_F(MessagingSession, AHandlerMayQueryAndThenDestroyTheConnection) {
  const test_support::Capability capability = test_support::make_capability("urn:x", "C");
  connect({kGood});
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_subscribe(capability.get(), connection_.get()));
  std::atomic<bool> destroyed = false;
  std::function<void(wb_dom_node *)> handler = [&](wb_dom_node *) {
    EXPECT_EQ(QUILLON_STATUS_OK, ask(capability.get()));
    connection_.reset();
    destroyed = true;
  };
  quillon_connection_register_notification_handler(connection_.get(), "urn:x", "n", call_notified, &handler);
  server_->notify("<n xmlns='urn:x'/>");
  EXPECT_TRUE(wait_for([&] { return destroyed.load(); }));
}

TEST_F(MessagingSession, AQueryThatWaitsEndsWhenTheSessionDoes) {
  const test_support::Capability capability = test_support::make_capability("urn:x", "C");
  connect({kSilent});
  quillon_config_set_send_timeout_seconds(config_.get(), 60);
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_capability_subscribe(capability.get(), connection_.get()));
  std::thread closer([&] {
    EXPECT_TRUE(server_->wait_for_stanza(sent_to(kSilent), kSoon));
    server_->newest()->close_stream();
  });
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(QUILLON_STATUS_SEND_TIMEOUT, ask(capability.get()));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
  closer.join();
}

}  // namespace

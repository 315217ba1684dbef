// A connection and a server within the test, which plays the controller and answers as the test tells it to.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <qlk/testpeer/peer.hpp>
#include <string>
#include <thread>
#include <vector>

#include "grid_objects.h"
#include "quillon_connection.h"
#include "quillon_grid.h"
#include "quillon_log_capture.h"
#include "wait_for.h"

namespace qlk_test {

using testpeer::Element;
using testpeer::ScriptedPeer;
using Statuses = std::vector<QUILLON_STATUS>;

// A result that comes from another thread.
template <typename Function>
auto run_aside(Function function) {
  return std::async(std::launch::async, std::move(function));
}

template <typename Result>
bool is_done(std::future<Result> &future, std::chrono::seconds at_most = std::chrono::seconds(10)) {
  return future.wait_for(at_most) == std::future_status::ready;
}

struct ConfigDestroy {
  void operator()(quillon_config *config) const { quillon_config_destroy(config); }
};
using Config = std::unique_ptr<quillon_config, ConfigDestroy>;

class ConnectionFixture : public testing::Test {
 protected:
  // What the application's callbacks saw.
  struct Seen {
    Statuses account, disconnected;
    int connected = 0;
  };

  static void SetUpTestSuite() { authority_ = std::make_unique<testpeer::CertificateAuthority>(); }
  static void TearDownTestSuite() { authority_.reset(); }

  ConnectionFixture() {
    quillon_config *config = nullptr;
    quillon_config_create(&config);
    config_.reset(config);
    const testpeer::Credentials client = authority_->client("alice", GRID_DOMAIN);
    quillon_config_set_user_name(config, "Alice");
    quillon_config_set_client_cert_chain_filename(config, client.certificate.c_str());
    quillon_config_set_client_cert_key_filename(config, client.key.c_str());
    quillon_config_set_server_cert_chain_filename(config, authority_->certificate().c_str());
    quillon_config_set_send_timeout_seconds(config, 5);
    connection_ = test_support::make_connection();
    quillon_connection_set_config(raw(), config);
    quillon_connection_set_account_cb(raw(), on_account);
    quillon_connection_set_account_cb_user_data(raw(), this);
    quillon_connection_set_connect_cb(raw(), on_connect);
    quillon_connection_set_connect_cb_user_data(raw(), this);
    quillon_connection_set_disconnect_cb(raw(), on_disconnect);
    quillon_connection_set_disconnect_cb_user_data(raw(), this);
  }

  ~ConnectionFixture() override { connection_.reset(); }

  quillon_connection *raw() { return connection_.get(); }

  // Makes the server and sets it as the only host.
  void serve(testpeer::Options options = {}) {
    options.domain = GRID_DOMAIN;
    options.certificate = served_ = authority_->server(GRID_DOMAIN);
    options.act_as_controller = true;
    options.controller = CONTROLLER_JID;
    options.on_stanza = [this](testpeer::Connection &link, const Element &stanza) { return decide_on_account(link, stanza); };
    server_ = std::make_unique<ScriptedPeer>(std::move(options));
    quillon_config_set_host(config_.get(), server_->host().c_str());
  }

  // The controller's word on the account from now on; empty: it says nothing.
  void approve_with(const std::string &approval) {
    const std::lock_guard lock(mutex_);
    approval_ = approval;
  }

  void update_account(const std::string &state) {
    server_->notify("<connectionUpdateNotification xmlns='" GRID_NS "'><status>" + state +
                    "</status></connectionUpdateNotification>");
  }

  // The server ends the session in order.
  void end_session() { server_->newest()->close_stream(); }

  QUILLON_STATUS connect() { return quillon_connection_connect(raw()); }
  bool wait_until_pending() {
    return test_support::wait_for([this] { return seen().account == Statuses{QUILLON_STATUS_ACCOUNT_PENDING}; });
  }

  Seen seen() const {
    const std::lock_guard lock(mutex_);
    return seen_;
  }

  // Run within the callback, after it was counted.
  std::function<void(QUILLON_STATUS)> in_account_cb_, in_disconnect_cb_;
  std::function<void()> in_connect_cb_;

  inline static std::unique_ptr<testpeer::CertificateAuthority> authority_;
  const test_support::QuillonLogCapture log_;
  Config config_;
  test_support::Connection connection_;
  std::unique_ptr<ScriptedPeer> server_;
  testpeer::Credentials served_;  // of the server

 private:
  static void on_account(quillon_connection *, QUILLON_STATUS status, void *self) {
    auto &fixture = *static_cast<ConnectionFixture *>(self);
    {
      const std::lock_guard lock(fixture.mutex_);
      fixture.seen_.account.push_back(status);
    }
    if (fixture.in_account_cb_) fixture.in_account_cb_(status);
  }
  static void on_disconnect(quillon_connection *, QUILLON_STATUS status, void *self) {
    auto &fixture = *static_cast<ConnectionFixture *>(self);
    {
      const std::lock_guard lock(fixture.mutex_);
      fixture.seen_.disconnected.push_back(status);
    }
    if (fixture.in_disconnect_cb_) fixture.in_disconnect_cb_(status);
  }
  static void on_connect(quillon_connection *, void *self) {
    auto &fixture = *static_cast<ConnectionFixture *>(self);
    {
      const std::lock_guard lock(fixture.mutex_);
      ++fixture.seen_.connected;
    }
    if (fixture.in_connect_cb_) fixture.in_connect_cb_();
  }

  bool decide_on_account(testpeer::Connection &link, const Element &stanza) {
    const Element *grid = stanza.child("grid");
    if (grid == nullptr || grid->children.empty() || grid->children.front().local != "connectRequest") return false;
    std::string approval;
    {
      const std::lock_guard lock(mutex_);
      approval = approval_;
    }
    if (approval.empty()) return true;
    const std::string response = "<connectResponse xmlns='" GRID_NS "'>" + approval + "</connectResponse>";
    link.reply(stanza, {.payload = "<grid xmlns='quillon' type='response'>" + response + "</grid>"});
    return true;
  }

  mutable std::mutex mutex_;
  Seen seen_;
  std::string approval_ = "<approvalStatus>approved</approvalStatus>";
};

constexpr char kPending[] = "<approvalStatus>pending</approvalStatus>";
constexpr char kDenied[] = "<approvalStatus>denied</approvalStatus>";
constexpr char kApproved[] = "<approvalStatus>approved</approvalStatus>";

}  // namespace qlk_test

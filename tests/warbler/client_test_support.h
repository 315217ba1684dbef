// What the client's suites share: one authority with its certificates, and servers and clients that fit together.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "fake_server.h"
#include "test_client.h"
#include "wait_for.h"

namespace client_test {

using test_support::Element;
using test_support::FakeServer;
using test_support::Fault;
using test_support::Stage;
using test_support::TestClient;
using testpeer::Credentials;

constexpr char kJid[] = "user@grid.test/qlk";
constexpr char kConnected[] = "connected user@grid.test/qlk";

using Records = std::vector<std::string>;  // what a client has noted

struct Identities {
  testpeer::CertificateAuthority authority{"The Grid's Authority"}, other_authority{"Another Authority"};
  Credentials server = authority.server("grid.test");
  Credentials client = authority.client("user", "grid.test");

  static Identities &get() {
    static Identities identities;
    return identities;
  }
};

inline FakeServer::Options server_options() {
  FakeServer::Options options;
  options.certificate = Identities::get().server;
  options.client_authority = Identities::get().authority.certificate();
  return options;
}

inline test_support::ClientSettings client_settings(std::map<std::string, std::string> table = {}) {
  test_support::ClientSettings settings;
  settings.certificate = Identities::get().client;
  settings.authority = Identities::get().authority.certificate();
  settings.table = std::move(table);
  return settings;
}

// Connects and waits for the session.
inline void establish(TestClient &client, const FakeServer &server) {
  const size_t before = client.count("connected");
  ASSERT_TRUE(client.connect(server.host()));
  ASSERT_TRUE(client.wait_for("connected", before + 1)) << client.all();
}

// Both have seen everything that was on its way: the server answers an IQ that the client sends.
inline void exchange_all(TestClient &client) {
  static std::atomic<int> number = 0;
  const std::string name = "ping" + std::to_string(++number);
  ASSERT_TRUE(client.track("<iq xmlns='jabber:client' type='get' to='grid.test'><ping xmlns='urn:xmpp:ping'/></iq>", name, 20));
  ASSERT_TRUE(client.wait_for(name + ": result")) << client.all();
}

inline std::string message(const std::string &id, const std::string &body = "") {
  return "<message xmlns='jabber:client' id='" + id + "' to='bob@grid.test'><body>" + body + "</body></message>";
}

inline std::string request() {
  return "<iq xmlns='jabber:client' type='get' to='bob@grid.test/qlk'><question xmlns='urn:test:question'/></iq>";
}

}  // namespace client_test

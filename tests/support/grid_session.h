// A connection that believes it is connected, above a fake XMPP session. For tests that see the library's private headers.
#pragma once

#include <gtest/gtest.h>

#include "client_fake.h"
#include "grid_objects.h"
#include "quillon_connection.h"
#include "quillon_log_capture.h"

namespace test_support {

class GridSession : public testing::Test {
 protected:
  GridSession() {
    set_connected(true);
    log_.clear();
  }
  ~GridSession() override {
    if (connection_ != nullptr) set_connected(false);
  }

  void set_connected(bool connected) {
    connection_->is_xmpp_connected = connected;
    connection_->is_grid_connected = connected;
  }

  // The payload of the only IQ that was asked, within its envelope as the tests expect it.
  static std::string to_controller(const std::string &payload) {
    return "<iq xmlns=\"jabber:client\" to=\"controller@" QLK_GRID_DOMAIN
           "/qlk\" type=\"get\"><grid xmlns=\"quillon\" type=\"request\">" +
           payload + "</grid></iq>";
  }

  QuillonLogCapture log_;
  ClientFake client_;
  Connection connection_ = make_connection();
};

}  // namespace test_support

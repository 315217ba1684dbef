// A member of the grid whose own code asks for nothing while a flow is short of something.
#pragma once

#include <atomic>
#include <functional>

#include "grid_objects.h"
#include "quillon_connection.h"

namespace exhaustion {

class Member {
 public:
  Member();
  ~Member();
  Member(const Member &) = delete;
  Member &operator=(const Member &) = delete;

  quillon_connection *connection() const { return connection_; }
  quillon_capability *capability() const { return capability_.get(); }
  quillon_config *config() const { return config_; }

  void make_connection();
  // The same as the flow of that name.
  QUILLON_STATUS destroy_connection();

  QUILLON_STATUS connect() { return quillon_connection_connect(connection_); }
  QUILLON_STATUS disconnect() { return quillon_connection_disconnect(connection_); }
  bool is_connected() const { return quillon_connection_is_connected(connection_); }

  // The next request of that name, made beforehand.
  void write_request(const char *name);
  // Sends it to the controller, or to the capability's publisher, and keeps the response.
  QUILLON_STATUS ask_controller();
  QUILLON_STATUS ask_publisher();
  // Whether there is a response of that name if the status is OK, and none otherwise. Drops it.
  void expect_response(QUILLON_STATUS status, const char *name);
  QUILLON_STATUS notify();

  // Does it until it succeeds, connecting again where the session was lost.
  void expect_works_again(const std::function<QUILLON_STATUS()> &what);
  // Up, and asks with success.
  void expect_up();

  void forget_calls() { connected_ = disconnected_ = heard_ = answered_ = 0; }
  int connected() const { return connected_; }
  int disconnected() const { return disconnected_; }
  int heard() const { return heard_; }        // notifications
  int answered() const { return answered_; }  // questions

 private:
  quillon_config *config_ = nullptr;
  quillon_connection *connection_ = nullptr;
  test_support::Capability capability_;
  wb_dom_node *request_ = nullptr, *response_ = nullptr;
  std::atomic<int> connected_ = 0, disconnected_ = 0, heard_ = 0, answered_ = 0;
  char opening_[8] = "20";  // seconds, of an attempt
};

// Every record is written out, and none is kept.
void log_nowhere();

// True once since the last call: a creation of a connection has failed in its last step, which leaves all that was made.
bool was_left_as_it_was();

}  // namespace exhaustion

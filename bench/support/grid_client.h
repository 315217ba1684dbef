// A connection of the library to the echo server, which approves of everybody and publishes every capability.
#pragma once

#include <quillon.h>

#include "raw_client.h"

namespace bench {

class GridClient {
 public:
  // The connection is made, not connected. Ends the program with a message when something fails, as all functions here do.
  explicit GridClient(const Target &target);
  ~GridClient();
  GridClient(const GridClient &) = delete;
  GridClient &operator=(const GridClient &) = delete;

  void connect();
  void disconnect();
  // Subscribes to a capability, which has the publishers that the server was told.
  void subscribe();
  // Asks a publisher, consuming the payload, and drops the answer.
  void ask(wb_dom_node *payload);

  quillon_connection *connection() { return connection_; }
  quillon_capability *capability() { return capability_; }

 private:
  quillon_config *config_ = nullptr;
  quillon_connection *connection_ = nullptr;
  quillon_capability *capability_ = nullptr;
};

}  // namespace bench

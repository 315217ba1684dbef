// A session of libstrophe, on the caller's thread.
#pragma once

#include <strophe.h>

#include <functional>

#include "raw_client.h"

namespace bench {

class StropheClient {
 public:
  explicit StropheClient(const Target &target);
  ~StropheClient();
  StropheClient(const StropheClient &) = delete;
  StropheClient &operator=(const StropheClient &) = delete;

  // Comes to a bound session, by which on_up is called, and runs its loop until stop. Ends the program with a message when there
  // is no session.
  void run(std::function<void()> on_up);
  void stop() {
    stopped_ = true;
    xmpp_stop(context_);
  }

  // Ends the stream, and stops when the server has done so too.
  void leave() {
    stopped_ = true;
    xmpp_disconnect(connection_);
  }

  xmpp_ctx_t *context() { return context_; }
  xmpp_conn_t *connection() { return connection_; }

 private:
  const Target &target_;
  std::function<void()> on_up_;
  bool stopped_ = false;
  xmpp_ctx_t *context_;
  xmpp_conn_t *connection_ = nullptr;
};

}  // namespace bench

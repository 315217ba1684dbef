// A session of gloox, on the caller's thread.
#pragma once

#include <gloox/client.h>
#include <gloox/connectionlistener.h>

#include <functional>

#include "raw_client.h"

namespace bench {

class GlooxClient : private gloox::ConnectionListener {
 public:
  explicit GlooxClient(const Target &target);

  // Comes to a bound session, by which on_up is called, and receives until stop. Ends the program with a message when there is no
  // session.
  void run(std::function<void()> on_up);
  void stop() { stopped_ = true; }
  // Ends the stream. It waits for nobody.
  void leave() {
    stop();
    client_.disconnect();
  }
  gloox::Client &client() { return client_; }

 private:
  void onConnect() override { on_up_(); }
  void onDisconnect(gloox::ConnectionError error) override;
  bool onTLSConnect(const gloox::CertInfo &) override { return true; }

  std::function<void()> on_up_;
  bool stopped_ = false;
  gloox::Client client_;
};

}  // namespace bench

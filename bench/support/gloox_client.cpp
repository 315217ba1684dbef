#include "gloox_client.h"

#include <gloox/connectiontcpclient.h>

#include "measure.h"

namespace bench {

// It sends no client certificate that the servers here would take, and so always comes with a password.
GlooxClient::GlooxClient(const Target &target) : client_(gloox::JID(target.jid()), target.password, target.port) {
  client_.setServer("127.0.0.1");
  client_.disableRoster();
  client_.setPresence(gloox::Presence::Unavailable, 0);
  client_.registerConnectionListener(this);
  client_.setCACerts({target.ca});
  client_.setCompression(false);
  client_.setTls(target.tls ? gloox::TLSRequired : gloox::TLSDisabled);
}

void GlooxClient::onDisconnect(gloox::ConnectionError error) {
  if (!stopped_) fail("gloox has no session: error " + std::to_string(error));
}

void GlooxClient::run(std::function<void()> on_up) {
  on_up_ = std::move(on_up);
  if (!client_.connect(false)) fail("gloox cannot connect");
  while (!stopped_ && client_.recv() == gloox::ConnNoError) {
  }
  if (!stopped_) fail("gloox has lost its session");
}

}  // namespace bench

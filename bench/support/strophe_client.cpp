#include "strophe_client.h"

#include "measure.h"

namespace bench {

StropheClient::StropheClient(const Target &target) : target_(target) {
  xmpp_initialize();
  context_ = xmpp_ctx_new(nullptr, nullptr);
  connection_ = xmpp_conn_new(context_);
  xmpp_conn_set_jid(connection_, target.jid().c_str());
  xmpp_conn_set_cafile(connection_, target.ca.c_str());
  if (target.has_password || !target.tls) {
    xmpp_conn_set_pass(connection_, target.password.c_str());
  } else {
    xmpp_conn_set_client_cert(connection_, target.certificate.c_str(), target.key.c_str());
  }
  xmpp_conn_set_flags(connection_, target.tls ? XMPP_CONN_FLAG_MANDATORY_TLS : XMPP_CONN_FLAG_DISABLE_TLS);
}

StropheClient::~StropheClient() {
  xmpp_conn_release(connection_);
  xmpp_ctx_free(context_);
  xmpp_shutdown();
}

void StropheClient::run(std::function<void()> on_up) {
  on_up_ = std::move(on_up);
  const auto handler = [](xmpp_conn_t *, xmpp_conn_event_t event, int, xmpp_stream_error_t *, void *arg) {
    StropheClient &self = *static_cast<StropheClient *>(arg);
    if (event == XMPP_CONN_CONNECT) return self.on_up_();
    if (!self.stopped_) fail("libstrophe has no session");
    xmpp_stop(self.context_);
  };
  if (xmpp_connect_client(connection_, "127.0.0.1", target_.port, handler, this) != XMPP_EOK) fail("libstrophe cannot connect");
  xmpp_run(context_);
}

}  // namespace bench

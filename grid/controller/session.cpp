#include "session.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/time.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace controller {

namespace {

constexpr char kNameKey[] = "controller.sasl_response";
constexpr long kRetryMicrosecondsMin = 125'000, kRetryMicrosecondsMax = 1'000'000;
constexpr timeval kStopLimit = {2, 0};

void require(bool done, const wb_err &err, const char *what) {
  if (!done) throw std::runtime_error(std::string(what) + ": " + (err.message != nullptr ? err.message : "failed"));
}

// SASL EXTERNAL: the certificate says who we are, and the initial response repeats it as the bare JID, which every server takes.
bool sasl_init(wb_sasl_mech_instance *instance, wb_htable *config, wb_err *) {
  wb_sasl_mech_instance_set_data(instance, config);
  return true;
}

bool sasl_start(wb_sasl_mech_instance *instance, uint8_t *, size_t, wb_sasl_complete complete, wb_err *) {
  auto *config = static_cast<wb_htable *>(wb_sasl_mech_instance_get_data(instance));
  char *name = wb_data_strdup(static_cast<const char *>(wb_htable_get(config, kNameKey)));
  const size_t length = name != nullptr ? std::char_traits<char>::length(name) : 0;
  complete(instance, reinterpret_cast<uint8_t *>(name), length, true, false, WB_SASL_ERR_NONE);
  return true;
}

constexpr wb_sasl_mech_functions kExternal = {sasl_init, nullptr, sasl_start, nullptr};

}  // namespace

Session::Session(event_base *base, const Options &options) : options_(options), retry_microseconds_(kRetryMicrosecondsMin) {
  wb_err err = {};
  wb_htable *table = nullptr;
  require(wb_htable_create(0, wb_strcase_hashcode, wb_strcase_compare, &table, &err), err, "configuration table");
  table_.reset(table);
  put("selector", base);
  put("domain", options.domain.c_str());
  put("userjid", jid_.c_str());
  put("streamtype", "socket");
  put("client_reconnect_countdown", "0");
  put("tls-connect-cb", &tls_hook_);
  put("tls-connect-cb-arg", this);
  put(kNameKey, bare_jid_.c_str());
  make_sasl_factory();
  timer_.reset(evtimer_new(base, on_timer, this));
  if (timer_ == nullptr) throw std::runtime_error("no timer");
  wb_workq *queue = nullptr;
  require(wb_workq_create(table, &queue, &err), err, "work queue");
  queue_.reset(queue);
  wb_client *client = nullptr;
  require(wb_client_create(queue, &client, &err), err, "client");
  client_.reset(client);
  constexpr std::pair<const char *, wb_event_callback> kEvents[] = {{"clientConnected", on_connected},
                                                                    {"clientDisconnected", on_disconnected},
                                                                    {"presenceReceived", on_presence},
                                                                    {"iqReceived", on_iq}};
  for (const auto &[name, callback] : kEvents)
    require(wb_event_bind(wb_client_event(client, name), callback, this, &err), err, name);
}

Session::~Session() { close(); }

void Session::put(const char *key, const void *value) {
  wb_err err = {};
  require(wb_htable_put(table_.get(), key, const_cast<void *>(value), nullptr, &err), err, key);
}

void Session::make_sasl_factory() {
  wb_err err = {};
  wb_sasl_factory *factory = nullptr;
  wb_sasl_mech *mech = nullptr;
  require(wb_sasl_factory_create(table_.get(), &factory, &err), err, "SASL factory");
  const bool put = wb_htable_put(table_.get(), "client_sasl_factory", factory, wb_sasl_factory_htable_cleaner, &err);
  if (!put) wb_sasl_factory_destroy(factory);
  require(put, err, "SASL factory");
  require(wb_sasl_mech_create("EXTERNAL", &kExternal, &mech, &err), err, "SASL mechanism");
  const bool added = wb_sasl_factory_add_mech(factory, mech, &err);
  if (!added) wb_sasl_mech_destroy(mech);
  require(added, err, "SASL mechanism");
}

void Session::start(Handlers handlers) {
  handlers_ = std::move(handlers);
  connect();
}

void Session::stop(std::function<void()> done) {
  if (is_stopping_) return;
  is_stopping_ = true;
  stopped_ = std::move(done);
  evtimer_add(timer_.get(), &kStopLimit);
  if (is_connected_) {
    wb_client_disconnect(client_.get(), WB_ERR_NONE);
  } else {
    finish_stop();
  }
}

void Session::finish_stop() {
  const auto done = std::exchange(stopped_, nullptr);
  if (done) done();
}

void Session::connect() {
  wb_err err = {};
  put("host", options_.hosts[host_].c_str());
  if (wb_client_connect(client_.get(), table_.get(), &err)) return;
  wb_log_err(WB_LOG_ERROR, &err, "cannot connect");
  wait_before_next();
}

void Session::wait_before_next() {
  const timeval delay = {retry_microseconds_ / 1'000'000, retry_microseconds_ % 1'000'000};
  evtimer_add(timer_.get(), &delay);
  host_ = (host_ + 1) % options_.hosts.size();
  retry_microseconds_ = std::min(2 * retry_microseconds_, kRetryMicrosecondsMax);
}

void Session::send(Stanza stanza) {
  wb_err err = {};
  if (!wb_client_send_stanza(client_.get(), stanza.release(), &err)) wb_log_err(WB_LOG_WARN, &err, "a stanza is not sent");
}

void Session::track(Stanza iq, Reply reply, unsigned timeout_seconds) {
  wb_err err = {};
  auto kept = std::make_unique<Reply>(std::move(reply));
  if (wb_client_track_iq(client_.get(), iq.release(), on_reply, kept.get(), timeout_seconds, &err)) {
    static_cast<void>(kept.release());  // on_reply has it now
    return;
  }
  wb_log_err(WB_LOG_WARN, &err, "an IQ is not sent");
  (*kept)(nullptr);
}

void Session::on_reply(wb_dom_node *result, void *arg) {
  const std::unique_ptr<Reply> reply(static_cast<Reply *>(arg));
  contained("reply", [&] { (*reply)(result); });
}

void Session::on_connected(wb_event_data *event, void *arg) {
  auto *self = static_cast<Session *>(arg);
  self->is_connected_ = true;
  self->retry_microseconds_ = kRetryMicrosecondsMin;
  wb_log(WB_LOG_INFO, "connected as %s", static_cast<const char *>(event->data));
  contained("connected", [&] { self->handlers_.connected(); });
}

void Session::on_disconnected(wb_event_data *, void *arg) {
  auto *self = static_cast<Session *>(arg);
  if (std::exchange(self->is_connected_, false)) {
    wb_log(WB_LOG_INFO, "disconnected from %s", self->options_.hosts[self->host_].c_str());
    contained("disconnected", [&] { self->handlers_.disconnected(); });
  }
  if (self->is_stopping_) {
    self->finish_stop();
  } else {
    self->wait_before_next();
  }
}

void Session::on_presence(wb_event_data *event, void *arg) {
  contained("presence", [&] { static_cast<Session *>(arg)->handlers_.presence(static_cast<const wb_dom_node *>(event->data)); });
}

void Session::on_iq(wb_event_data *event, void *arg) {
  contained("request", [&] { static_cast<Session *>(arg)->handlers_.iq(static_cast<const wb_dom_node *>(event->data)); });
}

void Session::on_timer(evutil_socket_t, short, void *arg) {
  auto *self = static_cast<Session *>(arg);
  if (self->is_stopping_) {
    self->finish_stop();
  } else {
    self->connect();
  }
}

void Session::prepare_tls(void *tls_context, void *arg) {
  const Options &options = static_cast<Session *>(arg)->options_;
  auto *context = static_cast<SSL_CTX *>(tls_context);
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
  if (SSL_CTX_use_certificate_chain_file(context, options.certificate.c_str()) == 1 &&
      SSL_CTX_use_PrivateKey_file(context, options.key.c_str(), SSL_FILETYPE_PEM) == 1 &&
      SSL_CTX_load_verify_locations(context, options.ca.c_str(), nullptr) == 1) {
    return;
  }
  char reason[256];
  ERR_error_string_n(ERR_get_error(), reason, sizeof reason);
  wb_log(WB_LOG_ERROR, "the certificates cannot be used: %s", reason);
}

}  // namespace controller

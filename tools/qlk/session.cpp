#include "session.h"

#include <openssl/ssl.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <map>
#include <random>

#include "terminal.h"
#include "text.h"
#include "xml.h"

namespace tool {

namespace {

constexpr std::chrono::seconds kFirstPause{1}, kLongestPause{30};
constexpr char kAdministratorDecides[] = "An administrator of the grid decides that.";
constexpr char kSaslSuccess[] = "{urn:ietf:params:xml:ns:xmpp-sasl}success";
constexpr char kBind[] = "{urn:ietf:params:xml:ns:xmpp-bind}bind";
constexpr char kBoundJid[] = "{urn:ietf:params:xml:ns:xmpp-bind}jid";
constexpr char kStanzaError[] = "{jabber:client}error";
constexpr char kEnvelope[] = "{quillon}grid";

bool is_named(const wb_dom_node *node, const char *ename) {
  const char *name = node != nullptr ? wb_dom_get_ename(node) : nullptr;
  return name != nullptr && std::string_view(name) == ename;
}

std::string text_in(const wb_dom_node *element) {
  const char *text = wb_dom_get_first_text(element);
  return text != nullptr ? text : "";
}

// What to do when no session came up, by the reason that was given.
const char *hint_for(const std::string &reason) {
  const auto has = [&](const char *part) { return reason.find(part) != std::string::npos; };
  if (has("cannot resolve")) return "Is the name right? It stands under hosts in the profile, or after --host.";
  if (has("cannot connect to")) return "Is the grid up, and is this its port? A local grid tells: quillon-grid status";
  if (has("another address")) return "The certificate is another user's: 'qlk doctor' compares them.";
  if (has("certificate is refused") || has("SASL") || has("authenticate us"))
    return "'qlk doctor' says what is wrong and how to mend it.";
  return "'qlk doctor' looks at each part in turn.";
}

const char *account_text(QUILLON_STATUS status) {
  switch (status) {
    case QUILLON_STATUS_ACCOUNT_DISABLED:
      return "disabled or denied";  // the grid tells both in the same way
    case QUILLON_STATUS_ACCOUNT_DELETED:
      return "deleted";
    case QUILLON_STATUS_ACCOUNT_AUTHORIZATION_CHANGED:
      return "changed in its rights";
    case QUILLON_STATUS_ACCOUNT_ENABLED:
      return "enabled";
    case QUILLON_STATUS_ACCOUNT_PENDING:
      return "pending";
    default:
      return "denied";
  }
}

void set_text(quillon_config *config, QUILLON_STATUS (*setter)(quillon_config *, const char *), const std::string &text,
              const char *what) {
  if (text.empty()) return;
  if (setter(config, text.c_str()) != QUILLON_STATUS_OK) throw Failure(ExitCode::usage, std::string(what) + " is too long");
}

QUILLON_SASL_RESPONSE sasl_response_of(const std::string &name) {
  static const std::map<std::string, QUILLON_SASL_RESPONSE, std::less<>> kNames = {{"", QUILLON_SASL_RESPONSE_USER_NAME},
                                                                                   {"user-name", QUILLON_SASL_RESPONSE_USER_NAME},
                                                                                   {"bare-jid", QUILLON_SASL_RESPONSE_BARE_JID},
                                                                                   {"none", QUILLON_SASL_RESPONSE_NONE}};
  const auto named = kNames.find(name);
  if (named != kNames.end()) return named->second;
  throw Failure(ExitCode::usage, "the SASL response is user-name, bare-jid or none, not '" + name + "'");
}

// On the event loop. One call each, so that lines of several threads do not mix.
void print_trace(quillon_connection *, QUILLON_TRACE_DIRECTION direction, const char *xml, size_t length, void *) {
  const std::string text = printable(std::string_view(xml, length));
  std::fprintf(stderr, "%c %s\n", direction == QUILLON_TRACE_SENT ? '>' : '<', text.c_str());
}

void write_keys(quillon_config *config, const std::string &file) {
  if (file.empty()) return;
  if (quillon_config_set_tls_key_log(config, file.c_str()) != QUILLON_STATUS_OK) {
    throw Failure(ExitCode::usage, "the keys of TLS sessions cannot be written to " + file,
                  "It has to be a new file, or one of yours that nobody else may read (chmod 600).");
  }
  note("whoever can read " + file + " can read what this session carries");
}

}  // namespace

std::vector<const char *> pointers_to(const std::vector<std::string> &texts) {
  std::vector<const char *> pointers;
  for (const std::string &text : texts) pointers.push_back(text.c_str());
  return pointers;
}

Config make_config(const Settings &settings) {
  const Profile &values = settings.values;
  quillon_config *created = nullptr;
  expect_ok(quillon_config_create(&created), "make a configuration");
  Config config(created);
  watch_stanzas(true);
  set_text(created, quillon_config_set_user_name, values.user, "the user's name");
  set_text(created, quillon_config_set_description, values.description, "the description");
  set_text(created, quillon_config_set_client_cert_chain_filename, values.certificate, "the certificate's name");
  set_text(created, quillon_config_set_client_cert_key_filename, values.key, "the key's name");
  set_text(created, quillon_config_set_client_cert_key_password, settings.passphrase.text(), "the pass phrase");
  set_text(created, quillon_config_set_server_cert_chain_filename, values.ca, "the CA file's name");
  set_text(created, quillon_config_set_bulk_server_cert_chain_filename, values.bulk_ca.empty() ? values.ca : values.bulk_ca,
           "the CA file's name");
  set_text(created, quillon_config_set_crl, values.crl, "the name of the file of revocations");
  if (!values.groups.empty()) {
    std::vector<const char *> groups = pointers_to(values.groups);
    expect_ok(quillon_config_set_groups(created, groups.data(), static_cast<int>(groups.size())), "set the groups");
  }
  if (!values.hosts.empty()) {
    std::vector<const char *> hosts = pointers_to(values.hosts);
    expect_ok(quillon_config_set_hosts(created, hosts.data(), static_cast<int>(hosts.size())), "set the hosts");
  }
  quillon_config_set_sasl_response(created, sasl_response_of(values.sasl_response));
  quillon_config_set_send_timeout_seconds(created, values.timeout_seconds);
  quillon_config_set_address_racing(created, settings.races_hosts);
  write_keys(created, settings.tls_key_log);
  return config;
}

Session::Session(const Settings &settings, Stop &stop, Report report)
    : stop_(stop),
      report_(std::move(report)),
      user_(settings.values.user),
      hosts_(settings.values.hosts),
      races_hosts_(settings.races_hosts),
      lost_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      config_(make_config(settings)) {
  quillon_connection *created = nullptr;
  expect_ok(quillon_connection_create(&created), "make a connection");
  connection_.reset(created);
  expect_ok(quillon_connection_set_config(created, config_.get()), "configure the connection");
  quillon_connection_set_ssl_ctx_cb(created, on_tls_context);
  quillon_connection_set_ssl_ctx_cb_user_data(created, this);
  quillon_connection_set_account_cb(created, on_account);
  quillon_connection_set_account_cb_user_data(created, this);
  quillon_connection_set_disconnect_cb(created, on_disconnected);
  quillon_connection_set_disconnect_cb_user_data(created, this);
  if (settings.traces) quillon_connection_set_stanza_trace(created, print_trace, nullptr);
  listener_.on_address = [this](const std::string &address) { hear_address(address); };
  listener_.on_stanza = [this](const wb_dom_node *stanza) { hear_stanza(stanza); };
  listener_.on_session_end = [this](const std::string &stage, const std::string &reason) { hear_session_end(stage, reason); };
}

Session::~Session() {
  stop_.set_action(nullptr);
  {
    const std::lock_guard lock(mutex_);
    has_joined_ = false;  // from here on the end is our doing
  }
  quillon_connection_disconnect(connection_.get());
  connection_.reset();
  set_record_listener(nullptr);
}

void Session::join() {
  set_record_listener(&listener_);
  quillon_connection *connection = connection_.get();
  stop_.set_action([connection] { quillon_connection_disconnect(connection); });
  for (size_t tried = 1;; ++tried) {
    begin_attempt(hosts_[tried - 1]);
    const QUILLON_STATUS status = quillon_connection_connect(connection);
    stop_.check();
    if (status == QUILLON_STATUS_OK) break;
    const Failure failure = explain(status);
    {
      const std::lock_guard lock(mutex_);
      if (has_session_ || races_hosts_ || tried == hosts_.size()) throw failure;
    }
    note(std::string(failure.what()) + "; trying " + hosts_[tried]);
  }
  const std::lock_guard lock(mutex_);
  has_joined_ = true;
  report_locked(Step::account, "approved");
}

bool Session::has_conflict() const { return lost_reason().find("conflict") != std::string::npos; }

Failure Session::loss(const std::string &advice) const {
  const std::string text = "the session is lost: " + lost_reason();
  if (has_conflict()) {
    return {ExitCode::no_connection, text, "A user has one session: another program has joined as " + user_ + "."};
  }
  const std::lock_guard lock(mutex_);
  const bool is_out = account_ == QUILLON_STATUS_ACCOUNT_DISABLED || account_ == QUILLON_STATUS_ACCOUNT_DELETED;
  return {ExitCode::no_connection, text, is_out ? kAdministratorDecides : advice};
}

void Session::join_again(const Reconnecting &reconnecting, const std::function<void()> &begin) {
  const Failure failure = loss("With --reconnect it is opened again.");
  if (has_conflict() || !reconnecting.is_wanted) throw failure;  // after a conflict it would throw the other one out in turn
  note(failure.what());
  const bool is_random = reconnecting.longest_pause_seconds > 0;
  const std::chrono::seconds longest = is_random ? std::chrono::seconds(reconnecting.longest_pause_seconds) : kLongestPause;
  for (auto time = kFirstPause;; time = std::min(time * 2, longest)) {
    std::chrono::milliseconds pause = time;
    if (is_random) pause = std::chrono::milliseconds(std::random_device()() % (pause.count() + 1));
    if (stop_.wait_for(pause)) stop_.check();
    try {
      join();
      return begin();
    } catch (const Failure &lost) {
      note(lost.what());
    }
  }
}

void Session::begin_attempt(const std::string &host) {
  const std::lock_guard lock(mutex_);
  host_ = host;
  for (std::string *text : {&end_reason_, &refusal_, &refusal_code_, &condition_, &lost_reason_}) text->clear();
  account_.reset();
  has_session_ = has_tls_ = has_joined_ = false;
  eventfd_t count = 0;
  eventfd_read(lost_.get(), &count);
  report_locked(Step::host, host);
}

// ---- What comes in, on the library's threads

void Session::on_tls_context(quillon_connection *, void *context, void *self) {
  auto *session = static_cast<Session *>(self);
  auto *tls = static_cast<SSL_CTX *>(context);
  quillon_config_fill_ssl_ctx(session->config_.get(), tls, false);
  SSL_CTX_set_app_data(tls, session);
  SSL_CTX_set_info_callback(tls, on_tls_info);
}

void Session::on_tls_info(const SSL *ssl, int where, int) {
  if ((where & SSL_CB_HANDSHAKE_DONE) != 0) static_cast<Session *>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(ssl)))->hear_tls(ssl);
}

void Session::hear_tls(const SSL *ssl) {
  const std::lock_guard lock(mutex_);
  if (std::exchange(has_tls_, true)) return;  // what comes later are tickets for sessions
  report_locked(Step::tls, std::string(SSL_get_version(ssl)) + ", " + SSL_get_cipher_name(ssl));
  X509 *peer = SSL_get0_peer_certificate(ssl);
  if (peer == nullptr) return;
  report_locked(Step::peer, printable(name_of(X509_get_subject_name(peer))) + ", until " + last_day(peer));
  report_locked(Step::authority, printable(name_of(X509_get_issuer_name(peer))));
}

void Session::hear_address(const std::string &address) {
  const std::lock_guard lock(mutex_);
  report_locked(Step::address, address);
}

void Session::hear_session_end(const std::string &stage, const std::string &reason) {
  const std::lock_guard lock(mutex_);
  if (stage != "closing") end_reason_ = printable(reason);
}

void Session::hear_stanza(const wb_dom_node *stanza) {
  {
    const std::lock_guard lock(mutex_);
    if (is_named(stanza, kSaslSuccess)) report_locked(Step::sasl, "EXTERNAL, by the certificate");
    if (is_named(stanza, "{jabber:client}iq")) hear_iq(stanza);
  }
  if (watcher_) watcher_(stanza);
}

void Session::hear_iq(const wb_dom_node *iq) {
  const wb_dom_node *child = wb_dom_get_first_child(iq);
  if (is_named(child, kBind)) {
    has_session_ = true;
    return report_locked(Step::session, printable(text_in(wb_dom_get_first_element(child, kBoundJid))));
  }
  if (const wb_dom_node *error = wb_dom_get_first_element(iq, kStanzaError); error != nullptr) {
    const char *condition = wb_dom_get_localname(wb_dom_get_first_child(error));
    condition_ = condition != nullptr ? condition : "no reason";
  }
  if (!is_named(child, kEnvelope)) return;
  const wb_dom_node *error = child_of(wb_dom_get_first_child(child), "error");
  if (error == nullptr) return;
  refusal_ = printable(child_text(error, "description"));
  refusal_code_ = printable(child_text(error, "code"));
}

void Session::on_account(quillon_connection *, QUILLON_STATUS status, void *self) {
  auto *session = static_cast<Session *>(self);
  const std::lock_guard lock(session->mutex_);
  session->account_ = status;
  if (status != QUILLON_STATUS_ACCOUNT_PENDING) return;
  const std::string text = "the account '" + session->user_ + "' waits for an administrator";
  if (session->report_) return session->report_locked(Step::account, text + "; Ctrl-C gives up");
  note(text + ": on a local grid, 'quillon-grid approve " + session->user_ + "'");
}

void Session::on_disconnected(quillon_connection *, QUILLON_STATUS status, void *self) {
  auto *session = static_cast<Session *>(self);
  const std::lock_guard lock(session->mutex_);
  if (!session->has_joined_) return;
  if (session->account_.has_value() && session->account_ != QUILLON_STATUS_ACCOUNT_ENABLED) {
    session->lost_reason_ = std::string("the account was ") + account_text(*session->account_);
  } else {
    session->lost_reason_ = session->end_reason_.empty() ? text_of(status) : session->end_reason_;
  }
  session->has_joined_ = false;
  eventfd_write(session->lost_.get(), 1);
}

// ---- What came of it

void Session::report_locked(Step step, const std::string &text) const {
  if (report_) report_(step, text);
}

Failure Session::explain(QUILLON_STATUS status) const {
  const std::lock_guard lock(mutex_);
  const std::string who = "the account '" + user_ + "' ";
  if (status == QUILLON_STATUS_CONNECTION_DENIED) {
    return {ExitCode::refused, who + "is denied",
            "An administrator of the grid decides that; on a local grid: quillon-grid approve " + user_};
  }
  if (status == QUILLON_STATUS_CONNECTION_ERROR && has_session_ && account_.has_value()) {
    return {ExitCode::refused, who + "is " + account_text(*account_), kAdministratorDecides};
  }
  if (status == QUILLON_STATUS_SEND_TIMEOUT) {
    return {ExitCode::timed_out, "the server " + host_ + " let us in, but the grid's controller does not answer",
            "A local grid tells how it is: quillon-grid status"};
  }
  if (status == QUILLON_STATUS_WB_ERROR && !has_session_) {
    return {ExitCode::usage, "'" + host_ + "' is no host, or '" + user_ + "' no user's name",
            "A host is name, name:port, 192.0.2.1:port or [2001:db8::1]:port."};
  }
  if (!has_session_ && !end_reason_.empty()) {
    const std::string prefix = end_reason_.find(host_) == std::string::npos ? host_ + ": " : "";
    return {ExitCode::no_connection, prefix + end_reason_, hint_for(end_reason_)};
  }
  if (!has_session_) return {ExitCode::timed_out, host_ + " does not answer", hint_for("")};
  const std::string &why = !refusal_.empty() ? refusal_ : !condition_.empty() ? condition_ : end_reason_;
  return {exit_code_of(status), "cannot join the grid at " + host_ + ": " + (why.empty() ? text_of(status) : why), hint_for(why)};
}

bool Session::is_lost() const {
  const std::lock_guard lock(mutex_);
  return !lost_reason_.empty();
}

std::string Session::lost_reason() const {
  const std::lock_guard lock(mutex_);
  return lost_reason_;
}

void Session::begin_request() {
  const std::lock_guard lock(mutex_);
  for (std::string *text : {&refusal_, &refusal_code_, &condition_}) text->clear();
}

std::string Session::refusal() const {
  const std::lock_guard lock(mutex_);
  return refusal_;
}

void Session::expect(QUILLON_STATUS status, const std::string &what) const {
  if (status == QUILLON_STATUS_OK) return;
  stop_.check();
  const std::lock_guard lock(mutex_);
  if (!lost_reason_.empty()) throw Failure(ExitCode::no_connection, "cannot " + what + ": " + lost_reason_);
  if (!refusal_.empty()) {
    const bool is_unknown = refusal_code_ == "unknown";
    throw Failure(is_unknown ? ExitCode::not_found : ExitCode::refused, "cannot " + what + ": " + refusal_);
  }
  if (!condition_.empty() && status == QUILLON_STATUS_XMPP_ERROR) {
    throw Failure(ExitCode::refused, "cannot " + what + ": " + condition_);
  }
  throw Failure(exit_code_of(status), "cannot " + what + ": " + text_of(status));
}

// ---- Capabilities

Capability::Capability(const std::string &name, const std::string &ns, bool is_dynamic) : name_(name), is_dynamic_(is_dynamic) {
  quillon_capability *created = nullptr;
  expect_ok(quillon_capability_create(&created), "make a capability");
  capability_.reset(created);
  const auto set_name = is_dynamic ? quillon_dynamic_capability_set_name : quillon_capability_set_name;
  if (set_name(created, name.c_str()) != QUILLON_STATUS_OK) throw Failure(ExitCode::usage, "the capability needs a name");
  if (quillon_capability_set_namespace(created, ns.c_str()) != QUILLON_STATUS_OK) {
    throw Failure(ExitCode::usage, "the namespace is empty or too long");
  }
}

void Capability::subscribe(Session &session) const {
  session.begin_request();
  const auto call = is_dynamic_ ? quillon_dynamic_capability_subscribe : quillon_capability_subscribe;
  session.expect(call(get(), session.connection()), "subscribe to " + name_);
}

void Capability::publish(Session &session) const {
  session.begin_request();
  const auto call = is_dynamic_ ? quillon_dynamic_capability_publish : quillon_capability_publish;
  session.expect(call(get(), session.connection()), "publish " + name_);
  // The library does not read the answer, which may be a refusal all the same.
  if (!session.refusal().empty()) session.expect(QUILLON_STATUS_NOT_AUTHORIZED, "publish " + name_);
}

}  // namespace tool

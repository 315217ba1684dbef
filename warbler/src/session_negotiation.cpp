// How a session comes up: stream heads, STARTTLS, SASL and resource binding.
#include <warbler/log.h>

#include <algorithm>
#include <charconv>
#include <cstring>

#include "guard.h"
#include "jid.h"
#include "session.h"
#include "xmpp_names.h"

namespace wb {

namespace {

constexpr unsigned kRedirectsMax = 3;
// So large a part of the time that is left for connecting is for a request that went ahead; the rest is for going step by step.
constexpr int kAheadShare = 3;
constexpr size_t kIdleSecondsMax = 86400;  // more is as good as no limit
constexpr std::string_view kStartTls = "<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>";
constexpr std::string_view kBindId = "bind";

std::string escaped(std::string_view text) {
  std::string out;
  for (const char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '\'':
        out += "&apos;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

bool is_named(const wb_dom_node *node, const char *uri, std::string_view local) {
  const char *node_uri = wb_dom_get_namespace_uri(node);
  return node_uri != nullptr && std::strcmp(node_uri, uri) == 0 && local == wb_dom_get_localname(node);
}

wb_dom_node *find_child(const wb_dom_node *parent, const char *uri, std::string_view local) {
  wb_dom_node *child = wb_dom_get_first_child(parent);
  while (child != nullptr && !is_named(child, uri, local)) child = wb_dom_get_sibling(child);
  return child;
}

std::string_view text_of(const wb_dom_node *node) {
  const char *text = node != nullptr ? wb_dom_get_first_text(node) : nullptr;
  return text != nullptr ? text : "";
}

// The name of the first child in that namespace that is not a text: the condition of an error or failure.
std::string condition_of(const wb_dom_node *error) {
  for (const wb_dom_node *child = wb_dom_get_first_child(error); child != nullptr; child = wb_dom_get_sibling(child)) {
    if (std::strcmp(wb_dom_get_localname(child), "text") != 0) return wb_dom_get_localname(child);
  }
  return "no condition";
}

// 0 for none.
size_t announced_limit(const wb_dom_node *features, std::string_view name) {
  const std::string_view text = text_of(find_child(find_child(features, ns::kLimits, "limits"), ns::kLimits, name));
  size_t limit = 0;
  std::from_chars(text.data(), text.data() + text.size(), limit);
  return limit;
}

}  // namespace

void Session::open_stream(std::string_view with) {
  std::string head = "<?xml version='1.0'?><stream:stream to='";
  head.append(escaped(options_.domain));
  // The address is a secret until TLS is up.
  if (link_->ssl() != nullptr) head.append("' from='").append(escaped(bare_jid(options_.user_jid)));
  head.append("' version='1.0' xml:lang='en' xmlns='")
      .append(ns::kClient)
      .append("' xmlns:stream='")
      .append(ns::kStreams)
      .append("'>");
  parser_.reset();
  features_seen_ = false;
  request_sent_ = ahead_ = !with.empty();
  ahead_deadline_ = Clock::now() + (deadline_ - Clock::now()) / kAheadShare;
  arm_timer();
  show_sent(with);
  write(head.append(with));
  pump();
}

void Session::on_negotiation(wb_dom_node *stanza) {
  switch (state_) {
    case State::opening:
      return on_opening(stanza);
    case State::authenticating:
      return on_authenticating(stanza);
    case State::binding:
      return on_binding(stanza);
    default:
      return protocol_error("the server sent something out of turn");
  }
}

// ---- STARTTLS

void Session::begin_opening() {
  state_ = State::opening;
  open_stream(step_by_step_ ? std::string_view() : kStartTls);
  if (!has_ended()) prepare_tls();
}

// Reading certificates and keys takes about as long as the server needs to answer: both go on at once.
void Session::prepare_tls() {
  tls_error_.clear();
  tls_ = make_tls(options_.hooks, names_, tls_error_);
}

void Session::on_opening(wb_dom_node *stanza) {
  if (is_named(stanza, ns::kStreams, "features")) {
    if (features_seen_) return protocol_error("the server announced its features twice");
    features_seen_ = true;
    if (find_child(stanza, ns::kTls, "starttls") == nullptr) return end(WB_ERR_TLS, "the server offers no STARTTLS");
    if (request_sent_) return;
    request_sent_ = true;
    write_element(kStartTls);
    return pump();
  }
  if (is_named(stanza, ns::kTls, "proceed") && features_seen_) return begin_tls();
  if (is_named(stanza, ns::kTls, "failure")) return end(WB_ERR_TLS, "the server refused STARTTLS");
  protocol_error("the server sent something else than its features and the word to proceed");
}

void Session::begin_tls() {
  ahead_ = false;
  parser_.reset();
  if (tls_ == nullptr || !link_->start_tls(std::move(tls_))) return end(WB_ERR_TLS, "TLS cannot begin: " + tls_error_);
  state_ = State::tls;
  on_handshake();
}

void Session::on_handshake() {
  const Link::Io io = link_->handshake();
  // The reason is kept by the link; what TLS has to say, an alert perhaps, leaves first.
  const Link::Io flushed = link_->flush();
  if (io == Link::Io::closed) return end(WB_ERR_TLS, "the server closed the connection in the TLS handshake");
  if (io == Link::Io::failed) return end(WB_ERR_TLS, "the TLS handshake failed: " + link_->reason());
  if (flushed == Link::Io::failed) return end(WB_ERR_SOCKET_CONNECT, "the connection failed: " + link_->reason());
  if (flushed == Link::Io::again) writable_->add();
  if (io == Link::Io::done) on_tls_up();
}

void Session::on_tls_up() {
  wb_log(WB_LOG_VERBOSE, "TLS is up: %s", describe_tls(link_->ssl()).c_str());
  if (verifies_peer(link_->ssl())) return begin_authenticating();
  if (options_.hooks.accept == nullptr) return end(WB_ERR_TLS, "the server is not verified and nobody is there to accept it");
  state_ = State::tls_accept;
  tls_session_ = {link_->ssl(), this};
  options_.hooks.accept(&tls_session_, options_.hooks.accept_arg);
}

void Session::go_on_after_accept(bool accept) {
  if (state_ != State::tls_accept) return;
  if (!accept) return end(WB_ERR_TLS, "the application refused the server");
  readable_->add();
  begin_authenticating();
}

// ---- SASL

bool Session::make_auth(size_t mechanism, std::string &auth) {
  wb_err err{};
  SaslOutput output;
  mechanism_ = mechanism;
  end_sasl();
  sasl_ = std::make_shared<SaslExchange>(*options_.factory->mechs[mechanism]);
  const bool started = sasl_->start(options_.table, output, &err);
  if (sasl_ == nullptr) return false;  // the mechanism has destroyed the client
  if (!started) {
    wb_log_err(WB_LOG_ERROR, &err, "SASL mechanism");
    end(WB_ERR_NOT_AUTHORIZED, "the SASL mechanism failed");
    return false;
  }
  auth.append("<auth xmlns='").append(ns::kSasl).append("' mechanism='").append(escaped(sasl_->mechanism())).append("'>");
  if (output.present) auth.append(output.base64);
  auth.append("</auth>");
  return true;
}

void Session::begin_authenticating() {
  state_ = State::authenticating;
  std::string auth;
  if (!step_by_step_ && !make_auth(0, auth)) return;
  open_stream(auth);
  if (!has_ended()) read_stream();
}

bool Session::is_offered(size_t mechanism) const {
  const std::string &name = options_.factory->mechs[mechanism]->name;
  return std::find(offered_.begin(), offered_.end(), name) != offered_.end();
}

// Goes on with the first mechanism from that place on which the server offers.
bool Session::authenticate_with_offered(size_t from) {
  for (size_t i = from; i < options_.factory->mechs.size(); ++i) {
    if (!is_offered(i)) continue;
    std::string auth;
    if (make_auth(i, auth)) {
      write_element(auth);
      pump();
    }
    return true;
  }
  return false;
}

void Session::on_mechanisms(wb_dom_node *features) {
  offered_.clear();
  for (const wb_dom_node *child = wb_dom_get_first_child(find_child(features, ns::kSasl, "mechanisms")); child != nullptr;
       child = wb_dom_get_sibling(child)) {
    if (is_named(child, ns::kSasl, "mechanism")) offered_.emplace_back(text_of(child));
  }
  if (request_sent_ && is_offered(mechanism_)) return;
  if (request_sent_) {
    // It went out unasked and will be refused; only with another mechanism is the refusal worth waiting for.
    for (size_t i = 0; i < options_.factory->mechs.size(); ++i) {
      if (is_offered(i)) return;
    }
  } else {
    request_sent_ = true;
    if (authenticate_with_offered(0)) return;
  }
  end(WB_ERR_NOT_AUTHORIZED, "the server offers none of our SASL mechanisms; it may have refused the client certificate");
}

void Session::on_authenticating(wb_dom_node *stanza) {
  if (is_named(stanza, ns::kStreams, "features")) {
    if (features_seen_) return protocol_error("the server announced its features twice");
    features_seen_ = true;
    return on_mechanisms(stanza);
  }
  if (!features_seen_) return protocol_error("the server did not begin with its features");
  ahead_ = false;
  if (is_named(stanza, ns::kSasl, "success")) return on_success(stanza);
  if (is_named(stanza, ns::kSasl, "challenge")) return on_challenge(stanza);
  if (is_named(stanza, ns::kSasl, "failure")) return on_sasl_failure(stanza);
  protocol_error("the server sent something else than SASL");
}

void Session::on_challenge(wb_dom_node *challenge) {
  wb_err err{};
  SaslOutput output;
  const bool answered = sasl_ != nullptr && sasl_->step(text_of(challenge), output, &err);
  if (has_ended()) return;
  if (!answered) {
    wb_log_err(WB_LOG_ERROR, &err, "SASL challenge");
    std::string abort = "<abort xmlns='";
    write_element(abort.append(ns::kSasl).append("'/>"));
    pump();
    return end(WB_ERR_NOT_AUTHORIZED, "the SASL exchange was aborted");
  }
  std::string response = "<response xmlns='";
  response.append(ns::kSasl).append("'>").append(output.present ? output.base64 : "").append("</response>");
  write_element(response);
  pump();
}

void Session::on_success(wb_dom_node *success) {
  wb_err err{};
  const bool agreed = sasl_ != nullptr && sasl_->succeed(text_of(success), &err);
  if (has_ended()) return;
  if (!agreed) {
    wb_log_err(WB_LOG_ERROR, &err, "SASL success");
    return end(WB_ERR_NOT_AUTHORIZED, "the SASL mechanism does not agree to the server's success");
  }
  begin_binding();
}

void Session::on_sasl_failure(wb_dom_node *failure) {
  const std::string condition = condition_of(failure);
  if (!is_offered(mechanism_) && authenticate_with_offered(0)) return;
  std::string reason = "the server refused to authenticate us: " + condition;
  if (const std::string_view text = text_of(find_child(failure, ns::kSasl, "text")); !text.empty())
    reason.append(" (").append(text).append(")");
  end(WB_ERR_NOT_AUTHORIZED, reason);
}

// ---- Resource binding

namespace {

std::string bind_request(const std::string &resource) {
  std::string iq = "<iq type='set' id='";
  iq.append(kBindId).append("'><bind xmlns='").append(ns::kBind).append("'");
  if (resource.empty()) return iq.append("/></iq>");
  return iq.append("><resource>").append(escaped(resource)).append("</resource></bind></iq>");
}

}  // namespace

void Session::begin_binding() {
  end_sasl();
  if (has_ended()) return;
  state_ = State::binding;
  open_stream(step_by_step_ ? std::string() : bind_request(options_.resource));
}

void Session::on_bind_features(wb_dom_node *features) {
  if (features_seen_) return protocol_error("the server announced its features twice");
  features_seen_ = true;
  if (find_child(features, ns::kBind, "bind") == nullptr) return protocol_error("the server offers no resource binding");
  stanza_bytes_max_ = announced_limit(features, "max-bytes");
  if (const size_t idle = announced_limit(features, "idle-seconds"); idle != 0) {
    keepalive_ = std::min(keepalive_, std::chrono::seconds(std::min(idle, kIdleSecondsMax)));
  }
  if (request_sent_) return;
  request_sent_ = true;
  write_element(bind_request(options_.resource));
  pump();
}

void Session::on_binding(wb_dom_node *stanza) {
  if (is_named(stanza, ns::kStreams, "features")) return on_bind_features(stanza);
  const char *id = wb_dom_get_attribute(stanza, "id");
  if (!is_named(stanza, ns::kClient, "iq") || !features_seen_)
    return protocol_error("the server sent something else than the bound address");
  if (id != nullptr && kBindId == id) on_bound(stanza);
}

void Session::on_bound(wb_dom_node *iq) {
  ahead_ = false;
  const char *type = wb_dom_get_attribute(iq, "type");
  if (type == nullptr || std::strcmp(type, "result") != 0) {
    const wb_dom_node *error = find_child(iq, ns::kClient, "error");
    return end(WB_ERR_PROTOCOL,
               "the server refused to bind the resource: " + (error != nullptr ? condition_of(error) : std::string("no reason")));
  }
  const std::string jid(text_of(find_child(find_child(iq, ns::kBind, "bind"), ns::kBind, "jid")));
  Jid parts;
  if (!parse_jid(jid, parts) || parts.resource.empty()) return protocol_error("the server bound no address");
  const bool as_asked =
      options_.resource.empty() ? jid_equal(bare_jid(jid), options_.user_jid) : jid_equal(jid, options_.user_jid);
  if (!as_asked) return end(WB_ERR_PROTOCOL, "the server bound another address than ours: " + jid);
  if (step_by_step_) owner_.remember_step_by_step(server_);
  state_ = State::established;
  heard_ = spoken_ = Clock::now();
  arm_timer();
  owner_.on_session_up(jid, stanza_bytes_max_);
}

// ---- Stream errors

void Session::on_stream_error(wb_dom_node *error) {
  const std::string reason = "the server sent the stream error " + condition_of(error);
  if (is_negotiating()) {
    const wb_dom_node *other = find_child(error, ns::kStreamErrors, "see-other-host");
    if (other != nullptr ? redirect(other) : retry_step_by_step(reason)) return;
  }
  leave("</stream:stream>", WB_ERR_PROTOCOL, reason, error);
}

void Session::dial_again(const Endpoint &where) {
  ahead_ = false;
  parser_.reset();
  drop_link();
  resolve({where});
  arm_timer();
}

bool Session::redirect(const wb_dom_node *other) {
  Endpoint endpoint;
  if (redirects_ >= kRedirectsMax || !parse_endpoint(text_of(other), endpoint)) return false;
  ++redirects_;
  server_ = std::move(endpoint);
  step_by_step_ = owner_.goes_step_by_step(server_);
  wb_log(WB_LOG_INFO, "the server sends us to %s", std::string(text_of(other)).c_str());
  dial_again(server_);
  return true;
}

// Some servers take what came together for a mistake.
bool Session::retry_step_by_step(std::string_view why) {
  if (!ahead_) return false;
  wb_log(WB_LOG_INFO, "%.*s; asking again one step at a time", static_cast<int>(why.size()), why.data());
  step_by_step_ = true;
  Endpoint same = server_;
  parse_endpoint(address_, same);
  dial_again(same);
  return true;
}

}  // namespace wb

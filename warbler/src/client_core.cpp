#include "client_core.h"

#include <pthread.h>
#include <warbler/log.h>

#include <algorithm>
#include <cstring>

#include "guard.h"
#include "log_context.h"
#include "xmpp_names.h"

namespace wb {

namespace {

// So many servers are remembered that want to be asked one step at a time.
constexpr size_t kServersKept = 16;

// What a connect hands to the loop.
struct ConnectItem {
  std::weak_ptr<ClientCore> core;
  std::shared_ptr<LoopGate> gate;
  std::function<void()> run;
};

void run_connect_item(void *arg, bool cancelled) {
  const std::unique_ptr<ConnectItem> item(static_cast<ConnectItem *>(arg));
  const LoopGate::Pass pass(item->gate);
  const std::shared_ptr<ClientCore> core = item->core.lock();
  if (cancelled || !pass || core == nullptr) return;
  guarded(nullptr, __func__, [&] {
    item->run();
    return true;
  });
}

const char *attribute(const wb_dom_node *node, const char *name) {
  const char *value = wb_dom_get_attribute(node, name);
  return value != nullptr ? value : "";
}

wb_dom_node *grid_child(const wb_dom_node *iq) {
  wb_dom_node *child = wb_dom_get_first_child(iq);
  while (child != nullptr && std::strcmp(wb_dom_get_localname(child), "grid") != 0) child = wb_dom_get_sibling(child);
  return child;
}

bool is_ping(const wb_dom_node *iq) {
  const wb_dom_node *child = wb_dom_get_first_child(iq);
  return child != nullptr && std::strcmp(wb_dom_get_namespace_uri(child), ns::kPing) == 0 &&
         std::strcmp(wb_dom_get_localname(child), "ping") == 0 && std::strcmp(attribute(iq, "type"), "get") == 0;
}

thread_local bool leaves_writing = false;

}  // namespace

ClientCore::ClientCore(wb_workq &queue, wb_client *handle)
    : queue_(queue),
      handle_(handle),
      events_{wb_event("clientConnected"),  wb_event("clientDisconnected"), wb_event("reconnectStatusChanged"),
              wb_event("presenceReceived"), wb_event("messageReceived"),    wb_event("iqReceived"),
              wb_event("clientDestroyed")},
      channel_(queue.base(), gate_,
               [this] {
                 if (session_ != nullptr) session_->write_waiting();
               }),
      countdown_(queue.base(), -1, 0, gate_, [this](short) { on_countdown(); }) {}

ClientCore::~ClientCore() = default;

wb_event *ClientCore::event(const char *name) {
  for (wb_event &event : events_) {
    if (std::strcmp(event.name(), name) == 0) return &event;
  }
  return nullptr;
}

bool ClientCore::track(wb_dom_node *iq, TrackedIq tracked, std::chrono::seconds timeout, wb_err *err) {
  bool must_write = false;
  const bool is_left = leaves_writing || LoopGate::is_on_loop();
  if (!channel_.track(iq, tracked, timeout, err, is_left ? nullptr : &must_write)) return false;
  if (must_write) write_here();
  return true;
}

void ClientCore::leave_writing_to_loop(bool leaves) { leaves_writing = leaves; }

// The IQ is tracked, so a thread that is cancelled must not leave here.
void ClientCore::write_here() {
  int cancellable = 0;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancellable);
  {
    const LoopGate::Pass pass(gate_, std::try_to_lock);
    if (pass && session_ != nullptr) {
      writes_here_ = true;
      session_->write_off_loop();
      writes_here_ = false;
    }
  }
  channel_.end_attendance();
  pthread_setcancelstate(cancellable, nullptr);
}

bool ClientCore::connect(wb_htable *config, wb_err *err) {
  auto options = std::make_shared<ClientOptions>();
  if (!read_client_options(config, *options, err)) return false;
  auto item = std::make_unique<ConnectItem>();
  item->core = weak_from_this();
  item->gate = gate_;
  item->run = [this, options] {
    wanted_ = false;
    cancel_countdown();
    if (session_ != nullptr) session_->end(WB_ERR_NONE, "the application connects anew");
    if (gate_->is_closed()) return;
    options_ = std::move(*options);
    start_session();
  };
  if (!queue_.put(run_connect_item, item.get())) return WB_FAIL(err, WB_ERR_INVALID_STATE, "the work queue is being destroyed");
  item.release();
  return true;
}

// The application has been told that the attempt began, so it hears of its end whatever happens.
void ClientCore::start_session() {
  wanted_ = true;
  wb_err err{};
  const bool started = guarded(&err, __func__, [&] {
    session_ = std::make_shared<Session>(queue_, gate_, options_, *this);
    session_->start(session_);
    return true;
  });
  if (started) return;
  wb_log_err(WB_LOG_ERROR, &err, "cannot begin to connect");
  if (session_ != nullptr) return session_->end(WB_ERR_NO_MEMORY, "cannot begin to connect");
  tell_end(WB_ERR_NO_MEMORY, nullptr);
}

void ClientCore::disconnect(wb_errcode reason) {
  const LoopGate::Pass pass(gate_);
  if (!pass) return;
  wanted_ = false;
  cancel_countdown();
  if (session_ != nullptr) session_->close(reason);
}

void ClientCore::destroy() {
  const std::shared_ptr<ClientCore> self = shared_from_this();
  raise(kDestroyed, nullptr);
  switch (gate_->close()) {
    case LoopGate::Closed::before:
      return;
    case LoopGate::Closed::within_pass:
      // The objects whose functions are on the stack live until the pass ends.
      gate_->bury(self);
      for (wb_event &event : events_) event.clear();
      if (session_ != nullptr) session_->abandon();
      gate_->bury(std::move(session_));
      break;
    case LoopGate::Closed::outside_pass:
      session_.reset();
      break;
  }
  channel_.close();
  call_back_unanswered();
}

void ClientCore::call_back_unanswered() {
  TrackedIq tracked{};
  while (channel_.take_unanswered(tracked)) tracked.callback(nullptr, tracked.arg);
}

// Only the loop shows them.
void ClientCore::take_outgoing(std::string &bytes) {
  std::vector<std::string> elements;
  channel_.take(bytes, &elements);
  if (!elements.empty() && !writes_here_) channel_.traffic().show_sent(elements);
}

bool ClientCore::goes_step_by_step(const Endpoint &server) const {
  return std::find(step_by_step_servers_.begin(), step_by_step_servers_.end(), server) != step_by_step_servers_.end();
}

void ClientCore::remember_step_by_step(const Endpoint &server) {
  if (goes_step_by_step(server)) return;
  step_by_step_servers_.push_back(server);
  if (step_by_step_servers_.size() > kServersKept) step_by_step_servers_.pop_front();
}

void ClientCore::on_session_up(const std::string &jid, size_t stanza_bytes_max) {
  channel_.open(jid, stanza_bytes_max, options_.queue_bytes_max);
  raise(kConnected, const_cast<char *>(jid.c_str()));
}

void ClientCore::on_session_end(wb_errcode reason, wb_dom_node *error) {
  gate_->bury(std::move(session_));
  channel_.close();
  call_back_unanswered();
  tell_end(reason, error);
}

// Nothing here needs memory, except for what the application's functions do.
void ClientCore::tell_end(wb_errcode reason, wb_dom_node *error) {
  if (gate_->is_closed()) return;
  raise(kDisconnected, error);
  if (gate_->is_closed() || session_ != nullptr) return;
  if (wanted_ && reason != WB_ERR_NONE && reason != WB_ERR_NOT_AUTHORIZED) begin_countdown();
}

void ClientCore::on_session_stanza(wb_dom_node *stanza) {
  const Name &found = *as_element(stanza)->name;
  const std::string_view name(found.local, found.local_length);
  if (found.uri->view() != ns::kClient) return wb_log(WB_LOG_DEBUG, "dropped an element that is no stanza");
  const bool is_iq = name == "iq", is_message = !is_iq && name == "message";
  if (!is_iq && !is_message && name != "presence") return wb_log(WB_LOG_DEBUG, "dropped an element that is no stanza");
  channel_.traffic().count_received_stanza();
  if (is_iq) return on_iq(stanza);
  raise(is_message ? kMessage : kPresence, stanza);
}

void ClientCore::on_iq(wb_dom_node *iq) {
  const std::string_view type = value_of(find_plain_attribute(iq, "type"));
  if (type == "result" || type == "error") {
    if (!channel_.answer(iq)) wb_log(WB_LOG_DEBUG, "dropped an answer that nobody waits for, from %s", attribute(iq, "from"));
    return;
  }
  if (type != "get" && type != "set") return wb_log(WB_LOG_DEBUG, "dropped an IQ of no known type");
  if (grid_child(iq) != nullptr) return raise(kIq, iq);
  answer_iq(iq);
}

// What belongs to XMPP and not to the application.
void ClientCore::answer_iq(wb_dom_node *iq) {
  wb_dom_ctx *context = nullptr;
  wb_dom_node *reply = nullptr;
  wb_err err{};
  const bool ping = is_ping(iq);
  bool built = wb_dom_context_create(&context, &err) && wb_dom_element_create(context, "{jabber:client}iq", &reply, &err) &&
               wb_dom_set_attribute(reply, "type", ping ? "result" : "error", &err) &&
               wb_dom_set_attribute(reply, "id", wb_dom_get_attribute(iq, "id"), &err) &&
               wb_dom_set_attribute(reply, "to", wb_dom_get_attribute(iq, "from"), &err);
  if (built && !ping) {
    wb_dom_node *error = nullptr, *condition = nullptr;
    built = wb_dom_element_create(context, "{jabber:client}error", &error, &err) &&
            wb_dom_set_attribute(error, "type", "cancel", &err) &&
            wb_dom_element_create(context, "{urn:ietf:params:xml:ns:xmpp-stanzas}service-unavailable", &condition, &err) &&
            wb_dom_add_child(error, condition, &err) && wb_dom_add_child(reply, error, &err);
  }
  if (!built) {
    wb_dom_context_destroy(context);
    return wb_log_err(WB_LOG_ERROR, &err, "cannot answer an IQ");
  }
  if (!channel_.send(reply, &err)) wb_log_err(WB_LOG_VERBOSE, &err, "cannot answer an IQ");
}

// ---- The countdown to a new attempt

void ClientCore::raise_reconnect(wb_reconnect_status status) {
  ReconnectState state{status, status == WB_RECONNECT_PENDING ? options_.reconnect_countdown_seconds : 0};
  raise(kReconnect, &state);
}

void ClientCore::begin_countdown() {
  if (options_.reconnect_countdown_seconds == 0) return;
  if (!countdown_.try_add(std::chrono::seconds(options_.reconnect_countdown_seconds)))
    return wb_log(WB_LOG_ERROR, "no memory for the countdown to another attempt");
  counting_ = true;
  raise_reconnect(WB_RECONNECT_PENDING);
}

void ClientCore::on_countdown() {
  if (!counting_) return;
  counting_ = false;
  raise_reconnect(WB_RECONNECT_STARTING);
  if (!gate_->is_closed() && session_ == nullptr) start_session();
}

void ClientCore::cancel_countdown() {
  if (!counting_) return;
  counting_ = false;
  countdown_.remove();
  raise_reconnect(WB_RECONNECT_CANCELED);
}

}  // namespace wb

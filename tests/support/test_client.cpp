#include "test_client.h"

#include <event2/event.h>
#include <event2/thread.h>
#include <openssl/ssl.h>
#include <warbler/data.h>

#include <algorithm>
#include <cstring>
#include <future>
#include <stdexcept>

namespace test_support {

namespace {

void require(bool done, const char *what) {
  if (!done) throw std::runtime_error(std::string("the test's client: ") + what);
}

constexpr const char *kEvents[] = {"clientConnected", "clientDisconnected", "reconnectStatusChanged", "presenceReceived",
                                   "messageReceived", "iqReceived",         "clientDestroyed"};

const char *or_empty(const char *text) { return text != nullptr ? text : ""; }

bool begin_mechanism(wb_sasl_mech_instance *, wb_htable *, wb_err *) { return true; }

bool say_user(wb_sasl_mech_instance *instance, uint8_t *, size_t, wb_sasl_complete complete, wb_err *) {
  char *user = wb_data_strdup("user");
  complete(instance, reinterpret_cast<uint8_t *>(user), user != nullptr ? std::strlen(user) : 0, true, true,
           user != nullptr ? WB_SASL_ERR_NONE : WB_SASL_ERR_ABORTED);
  return true;
}

std::string describe(const wb_event_data *event) {
  const std::string name = event->name;
  const auto *node = static_cast<const wb_dom_node *>(event->data);
  if (name == "clientConnected") return std::string("connected ") + static_cast<const char *>(event->data);
  if (name == "clientDestroyed") return "destroyed";
  if (name == "clientDisconnected") {
    const wb_dom_node *condition = node != nullptr ? wb_dom_get_first_child(node) : nullptr;
    return condition != nullptr ? std::string("disconnected ") + wb_dom_get_localname(condition) : "disconnected";
  }
  if (name == "reconnectStatusChanged") {
    wb_reconnect_status status{};
    unsigned seconds = 0;
    wb_client_reconnect_get_status(event, &status, &seconds);
    return "reconnect " + std::to_string(status) + " " + std::to_string(seconds);
  }
  return name.substr(0, name.find("Received")) + " " + or_empty(wb_dom_get_attribute(node, "id"));
}

}  // namespace

wb_dom_node *parse_stanza(const std::string &xml) {
  wb_dom_node *root = nullptr;
  require(wb_dom_parse(xml.data(), xml.size(), &root, nullptr), xml.c_str());
  return root;
}

// ---- The loop

LoopThread::LoopThread() {
  static const int threads = evthread_use_pthreads();
  require(threads == 0, "no threads in libevent");
  base_ = event_base_new();
  require(base_ != nullptr && evthread_make_base_notifiable(base_) == 0, "no event base");
  wb_htable *table = nullptr;
  require(wb_htable_create(7, wb_strcase_hashcode, wb_strcase_compare, &table, nullptr) &&
              wb_htable_put(table, "selector", base_, nullptr, nullptr) && wb_workq_create(table, &queue_, nullptr),
          "no work queue");
  wb_htable_destroy(table);
  thread_ = std::thread([this] { event_base_loop(base_, EVLOOP_NO_EXIT_ON_EMPTY); });
}

LoopThread::~LoopThread() {
  event_base_loopbreak(base_);
  thread_.join();
  wb_workq_destroy(queue_);
  event_base_free(base_);
}

void LoopThread::run(const std::function<void()> &function) {
  struct Item {
    const std::function<void()> &function;
    std::promise<void> done;
  } item{function, {}};
  const auto run_item = [](void *arg, bool) {
    Item &taken = *static_cast<Item *>(arg);
    taken.function();
    taken.done.set_value();
  };
  require(wb_workq_put(queue_, run_item, &item, nullptr), "no place in the work queue");
  item.done.get_future().wait();
}

// ---- The client

struct TestClient::Tracked {
  TestClient &client;
  std::string name;
};

TestClient::TestClient(ClientSettings settings) : settings_(std::move(settings)) {
  require(wb_sasl_factory_create(nullptr, &factory_, nullptr), "no SASL factory");
  static constexpr wb_sasl_mech_functions kFunctions{begin_mechanism, nullptr, say_user, nullptr};
  const wb_sasl_mech_functions *functions = settings_.mechanism != nullptr ? settings_.mechanism : &kFunctions;
  for (const std::string &name : settings_.mechanisms) {
    wb_sasl_mech *mechanism = nullptr;
    require(wb_sasl_mech_create(name.c_str(), functions, &mechanism, nullptr) &&
                wb_sasl_factory_add_mech(factory_, mechanism, nullptr),
            "no SASL mechanism");
  }
  require(wb_htable_create(7, wb_strcase_hashcode, wb_strcase_compare, &table_, nullptr), "no table");
  const auto put = [&](const char *key, const void *value) {
    require(wb_htable_put(table_, key, const_cast<void *>(value), nullptr, nullptr), key);
  };
  put("selector", loop_.base());
  put("domain", settings_.domain.c_str());
  put("userjid", settings_.user_jid.c_str());
  put("streamtype", "socket");
  put("client_sasl_factory", factory_);
  put("tls-connect-cb", &connect_hook_);
  put("tls-connect-cb-arg", this);
  put("tls-accept-cb", &accept_hook_);
  put("tls-accept-cb-arg", this);
  for (const auto &[key, value] : settings_.table) put(key.c_str(), value.c_str());
  wb_client *client = nullptr;
  require(wb_client_create(loop_.queue(), &client, nullptr), "no client");
  client_ = client;
  if (!settings_.records) return;
  for (const char *name : kEvents) require(wb_event_bind(wb_client_event(client, name), on_event, this, nullptr), name);
}

TestClient::~TestClient() {
  // The loop must not be between a hook that destroys the client and the end of its pass.
  loop_.run([] {});
  destroy();
  wb_htable_destroy(table_);
  wb_sasl_factory_destroy(factory_);
}

bool TestClient::connect(const std::string &host, wb_err *err) {
  host_ = host;
  require(wb_htable_put(table_, "host", host_.data(), nullptr, nullptr), "no host");
  return wb_client_connect(client_, table_, err);
}

void TestClient::disconnect() {
  loop_.run([this] { wb_client_disconnect(client_, WB_ERR_NONE); });
}

void TestClient::destroy() {
  // Until it is gone, the loop's callbacks may use it.
  wb_client_destroy(client_);
  client_ = nullptr;
}

bool TestClient::send(const std::string &xml, wb_err *err) { return wb_client_send_stanza(client_, parse_stanza(xml), err); }

bool TestClient::track(const std::string &xml, const std::string &name, unsigned timeout_seconds, wb_err *err) {
  auto tracked = std::make_unique<Tracked>(Tracked{*this, name});
  if (!wb_client_track_iq(client_, parse_stanza(xml), on_answer, tracked.get(), timeout_seconds, err)) return false;
  tracked.release();
  return true;
}

// A second call for the same IQ would be seen by the address sanitizer.
void TestClient::on_answer(wb_dom_node *result, void *arg) {
  const std::unique_ptr<Tracked> tracked(static_cast<Tracked *>(arg));
  std::string text = tracked->name + ": ";
  text += result != nullptr ? or_empty(wb_dom_get_attribute(result, "type")) : "none";
  if (const char *n = result != nullptr ? wb_dom_get_attribute(result, "n") : nullptr; n != nullptr) text.append(" ").append(n);
  tracked->client.record(text, nullptr);
}

void TestClient::on_event(wb_event_data *event, void *arg) { static_cast<TestClient *>(arg)->record(describe(event), event); }

void TestClient::record(const std::string &text, wb_event_data *event) {
  if (hook_) hook_(text, event);
  const std::lock_guard lock(mutex_);
  records_.push_back(text);
  changed_.notify_all();
}

void TestClient::prepare_tls(void *tls_context, void *arg) {
  const ClientSettings &settings = static_cast<TestClient *>(arg)->settings_;
  auto *context = static_cast<SSL_CTX *>(tls_context);
  // Whether the client insists on a newer version is for the client to see to.
  SSL_CTX_set_security_level(context, 0);
  SSL_CTX_set_min_proto_version(context, TLS1_VERSION);
  if (!settings.certificate.certificate.empty()) {
    require(SSL_CTX_use_certificate_chain_file(context, settings.certificate.certificate.c_str()) == 1 &&
                SSL_CTX_use_PrivateKey_file(context, settings.certificate.key.c_str(), SSL_FILETYPE_PEM) == 1,
            "no certificate");
  }
  if (settings.authority.empty()) return;
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
  require(SSL_CTX_load_verify_locations(context, settings.authority.c_str(), nullptr) == 1, "no authority");
}

void TestClient::accept_tls(wb_tls_session *session, void *arg) {
  auto &client = *static_cast<TestClient *>(arg);
  client.record("accept", nullptr);
  if (client.settings_.on_accept) return client.settings_.on_accept(session);
  wb_tls_proceed(session, true);
}

std::vector<std::string> TestClient::records() const {
  const std::lock_guard lock(mutex_);
  return records_;
}

size_t TestClient::count(std::string_view beginning) const {
  const std::lock_guard lock(mutex_);
  return static_cast<size_t>(
      std::count_if(records_.begin(), records_.end(), [&](const std::string &text) { return text.starts_with(beginning); }));
}

bool TestClient::wait_for(std::string_view beginning, size_t times, std::chrono::milliseconds at_most) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, at_most, [&] {
    return std::count_if(records_.begin(), records_.end(), [&](const std::string &text) {
             return text.starts_with(beginning);
           }) >= static_cast<std::ptrdiff_t>(times);
  });
}

std::string TestClient::all() const {
  std::string text;
  for (const std::string &one : records()) text += one + "\n";
  return text;
}

}  // namespace test_support

#include "application.h"

#include <filesystem>
#include <set>

namespace faults {

namespace {

size_t count_entries(const char *folder) {
  size_t count = 0;
  for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator(folder)) ++count;
  return count;
}

}  // namespace

Identities &Identities::get() {
  static Identities identities;
  return identities;
}

Options correct() {
  Identities &identities = Identities::get();
  return {.domain = GRID_DOMAIN,
          .certificate = identities.server,
          .client_authority = identities.authority.certificate(),
          .act_as_controller = true,
          .controller = CONTROLLER_JID};
}

Options with(Stage stage, const Fault &fault) {
  Options options = correct();
  options.faults.emplace(stage, fault);
  return options;
}

Options with_request(const std::string &request, const Fault &fault) {
  Options options = correct();
  options.request_faults.emplace(request, fault);
  return options;
}

Options with_reply(const std::string &request, const testpeer::Reply &reply) {
  Options options = correct();
  options.request_replies.emplace(request, reply);
  return options;
}

std::vector<testpeer::HostileBytes> telling_hostile_stanzas() {
  const std::set<std::string> telling = {"Large",        "Deep",    "Crowded",       "LongNamed", "EntityBomb",
                                         "DocumentType", "Comment", "HalfCharacter", "ZeroByte"};
  std::vector<testpeer::HostileBytes> all = testpeer::hostile_stanzas();
  std::erase_if(all, [&](const testpeer::HostileBytes &one) { return !telling.contains(one.name); });
  return all;
}

// Threads first: one that leaves between the two counts has closed its descriptors before, and must not be missed while they are
// still counted.
Resources Resources::now() {
  const size_t threads = count_entries("/proc/self/task");
  return {count_entries("/proc/self/fd"), threads};
}

// ---- The application

Application::Application() : config_(nullptr, quillon_config_destroy), connection_(test_support::make_connection()) {
  Identities &identities = Identities::get();
  quillon_config *config = nullptr;
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_config_create(&config));
  config_.reset(config);
  quillon_config_set_user_name(config, "alice");
  quillon_config_set_client_cert_chain_filename(config, identities.client.certificate.c_str());
  quillon_config_set_client_cert_key_filename(config, identities.client.key.c_str());
  quillon_config_set_server_cert_chain_filename(config, identities.authority.certificate().c_str());
  quillon_connection_set_config(connection(), config);
  quillon_connection_set_disconnect_cb(connection(), [](quillon_connection *, QUILLON_STATUS status, void *self) {
    auto &application = *static_cast<Application *>(self);
    application.note([status](Seen &seen) {
      seen.disconnected.push_back(status);
      seen.order += '-';
    });
    application.run(&Application::within_disconnect_cb_);
  });
  quillon_connection_set_disconnect_cb_user_data(connection(), this);
  quillon_connection_set_account_cb(connection(), [](quillon_connection *, QUILLON_STATUS status, void *self) {
    auto &application = *static_cast<Application *>(self);
    application.note([status](Seen &seen) { seen.account.push_back(status); });
    application.run(&Application::within_account_cb_);
  });
  quillon_connection_set_account_cb_user_data(connection(), this);
  quillon_connection_set_connect_cb(connection(), [](quillon_connection *, void *self) {
    static_cast<Application *>(self)->note([](Seen &seen) {
      ++seen.connected;
      seen.order += '+';
    });
  });
  quillon_connection_set_connect_cb_user_data(connection(), this);
  allow(kPatient, kPatient);
}

Application::~Application() { connection_.reset(); }

quillon_connection *Application::connection() {
  const std::lock_guard lock(mutex_);
  return connection_.get();
}

void Application::destroy_connection() {
  std::unique_lock lock(mutex_);
  const test_support::Connection taken = std::move(connection_);
  lock.unlock();  // the callbacks of its end want it
}

void Application::use(const std::string &host) { quillon_config_set_host(config(), host.c_str()); }

// The table keeps the pointer: the connection must have no session now.
void Application::put(const char *key, std::string &place, unsigned value) {
  place = std::to_string(value);
  EXPECT_TRUE(wb_htable_put(connection()->wb_config, key, place.data(), nullptr, nullptr));
}

void Application::allow(unsigned opening, unsigned answer) {
  put("connect_timeout_seconds", opening_, opening);
  quillon_config_set_send_timeout_seconds(config(), static_cast<int>(answer));
}

void Application::probe_after(unsigned idle) { put("idle_probe_seconds", probe_, idle); }

QUILLON_STATUS Application::connect() {
  const QUILLON_STATUS status = quillon_connection_connect(connection());
  note([](Seen &seen) { ++seen.returned; });
  return status;
}

QUILLON_STATUS Application::ask(const std::string &name) {
  test_support::Node request = test_support::parse("<" + name + " xmlns='urn:test'/>");
  wb_dom_node *received = nullptr;
  const QUILLON_STATUS status = quillon_connection_query_controller(connection(), request.release(), &received);
  const test_support::Node response(received);
  EXPECT_EQ(status == QUILLON_STATUS_OK, response != nullptr);
  if (response != nullptr) {
    EXPECT_EQ(name, wb_dom_get_localname(response.get()));
  }
  return status;
}

Seen Application::seen() const {
  const std::lock_guard lock(mutex_);
  return seen_;
}

bool Application::wait_until(const std::function<bool(const Seen &)> &predicate, seconds deadline) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, deadline, [&] { return predicate(seen_); });
}

bool Application::wait_ended(seconds deadline) {
  return wait_until([](const Seen &seen) { return !seen.disconnected.empty(); }, deadline) &&
         testpeer::eventually(kSoon, [this] { return !connection()->is_xmpp_connected; });
}

void Application::forget_seen() {
  note([](Seen &seen) { seen = {}; });
}

void Application::run_within(std::function<void()> disconnect_cb, std::function<void()> account_cb) {
  const std::lock_guard lock(mutex_);
  within_disconnect_cb_ = std::move(disconnect_cb);
  within_account_cb_ = std::move(account_cb);
}

void Application::run(const std::function<void()> Application::*function) {
  std::unique_lock lock(mutex_);
  const std::function<void()> wanted = this->*function;
  lock.unlock();
  if (wanted) wanted();
}

void Application::note(const std::function<void(Seen &)> &change) {
  const std::lock_guard lock(mutex_);
  change(seen_);
  changed_.notify_all();
}

// ---- What rows have in common

FaultTest::FaultTest() {
  const size_t threads = Resources::now().threads;
  {
    const ScriptedPeer peer(correct());
    application_.use(peer.host());
    EXPECT_EQ(QUILLON_STATUS_OK, application_.connect()) << application_.log();
    EXPECT_EQ(QUILLON_STATUS_OK, application_.disconnect());
  }
  // The event loop's thread leaves by itself.
  EXPECT_TRUE(testpeer::eventually(kSoon, [&] {
    before_ = Resources::now();
    return before_.threads == threads;
  }));
  application_.forget_seen();
}

void FaultTest::expect_recovery(std::unique_ptr<ScriptedPeer> faulty, const Options &good) {
  application_.allow(kPatient, kPatient);
  const bool was_up = application_.connection()->is_xmpp_connected;
  application_.forget_seen();
  {
    const ScriptedPeer peer(good);
    application_.use(peer.host());
    EXPECT_EQ(QUILLON_STATUS_OK, application_.connect()) << application_.log();
    EXPECT_TRUE(application_.is_connected());
    EXPECT_EQ(QUILLON_STATUS_OK, application_.ask());
    EXPECT_EQ(QUILLON_STATUS_OK, application_.disconnect());
    EXPECT_FALSE(application_.is_connected());
  }
  faulty.reset();
  const Seen seen = application_.seen();
  EXPECT_EQ(1U, seen.connected);
  EXPECT_EQ(Statuses(), seen.account);
  // Its own end, and that of a session that the fault had left up.
  EXPECT_EQ(was_up ? 2U : 1U, seen.disconnected.size());
  EXPECT_EQ(QUILLON_STATUS_CONNECTION_ERROR, seen.disconnected.empty() ? QUILLON_STATUS_UNKNOWN : seen.disconnected.back());
  expect_nothing_left();
}

void FaultTest::expect_nothing_left() {
  const bool is_same = testpeer::eventually(kSoon, [this] { return Resources::now() == before_; });
  const Resources after = Resources::now();
  EXPECT_TRUE(is_same) << before_.descriptors << " descriptors and " << before_.threads << " threads became " << after.descriptors
                       << " and " << after.threads;
}

}  // namespace faults

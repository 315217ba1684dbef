// The process exits while its own threads, and the library's, are using OpenSSL, which cleans up then.
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <thread>

#include "application.h"
#include "quillon_async.h"
#include "quillon_bulkdownload.h"

namespace faults {
namespace {

constexpr size_t kExits = 5;  // not every exit meets the moment

// Registered before OpenSSL is up, and therefore run after it has cleaned up: by then no thread may use it any more.
bool lingers = false;
[[maybe_unused]] const int registered = std::atexit([] {
  if (!lingers) return;
  std::this_thread::sleep_for(20ms);  // Delay: for the threads that go on
  std::_Exit(0);                      // what these hold is not looked for by the sanitizer's search for leaks
});

// A process that waits for the address of a server, and then uses it until it exits. Made before there are threads.
class Child {
 public:
  using Body = void (*)(const std::string &address);

  explicit Child(Body body) {
    std::array<int, 2> ends = {};
    EXPECT_EQ(0, pipe(ends.data()));
    process_ = fork();
    if (process_ == 0) {
      close(ends[1]);
      lingers = true;
      std::array<char, 256> address = {};
      if (read(ends[0], address.data(), address.size() - 1) <= 0) std::_Exit(2);
      body(address.data());
      std::_Exit(3);  // it has not exited by itself
    }
    close(ends[0]);
    to_child_ = ends[1];
  }

  // Returns what waitpid told: 0 for a clean exit.
  int run(const std::string &address) {
    EXPECT_EQ(static_cast<ssize_t>(address.size()), write(to_child_, address.data(), address.size()));
    close(to_child_);
    int status = -1;
    waitpid(process_, &status, 0);
    return status;
  }

 private:
  pid_t process_;
  int to_child_;
};

std::array<Child, kExits> children(Child::Body body) {
  Identities::get();   // of all processes
  quillon_shutdown();  // a child cannot use what its parent has brought up
  return {Child(body), Child(body), Child(body), Child(body), Child(body)};
}

constexpr long kInFlight = 1000;

// Queries of which few are waited for, so that the threads go on sending when the answers no longer come.
struct Asking {
  Application application;
  std::atomic<long> begun = 0, ended = 0;

  bool ask() {
    ++begun;
    return quillon_connection_query_controller_async(
               application.connection(), test_support::parse("<question xmlns='urn:test'/>").release(), 60000,
               [](const quillon_query_result *, void *self) { ++static_cast<Asking *>(self)->ended; }, this,
               nullptr) == QUILLON_STATUS_OK;
  }
};

void ask_and_exit(const std::string &host) {
  auto *const asking = new Asking();  // lives as long as the threads
  asking->application.use(host);
  if (asking->application.connect() != QUILLON_STATUS_OK) std::_Exit(4);
  wb_log_set_level(WB_LOG_NONE);  // what captures the log ends before the threads do
  for (int i = 0; i < 4; ++i) {
    std::thread([asking] {
      while (asking->begun - asking->ended >= kInFlight || asking->ask()) {
      }
    }).detach();
  }
  if (!testpeer::eventually(kSoon, [&] { return asking->ended > 100; })) std::_Exit(5);
  std::exit(0);
}

TEST(Exit, WhileThreadsSend) {
  auto asking = children(ask_and_exit);
  const ScriptedPeer peer(correct());
  for (Child &child : asking) EXPECT_EQ(0, child.run(peer.host()));
}

void download_and_exit(const std::string &url) {
  auto *const application = new Application();
  wb_log_set_level(WB_LOG_NONE);  // what captures the log ends before the threads do
  quillon_config_set_bulk_server_cert_chain_filename(application->config(), Identities::get().authority.certificate().c_str());
  static quillon_bulkdownload *bulk = nullptr;  // still open at the end
  quillon_bulkdownload_create(&bulk, application->config());
  quillon_bulkdownload_set_url(bulk, url.c_str());
  quillon_bulkdownload_set_request(bulk, test_support::parse("<give/>").get());
  if (quillon_bulkdownload_open(bulk) != QUILLON_STATUS_OK) std::_Exit(4);
  for (int items = 0; items < 1000; ++items) {
    wb_dom_node *node = nullptr;
    if (quillon_bulkdownload_next(bulk, &node) != QUILLON_STATUS_OK || node == nullptr) std::_Exit(5);
    wb_dom_context_destroy(wb_dom_get_context(node));
  }
  std::thread reading([] {  // so that the transfer goes on
    bool has_more = true;
    while (has_more) {
      wb_dom_node *node = nullptr;
      has_more = quillon_bulkdownload_next(bulk, &node) == QUILLON_STATUS_OK && node != nullptr;
      wb_dom_context_destroy(wb_dom_get_context(node));  // there may be one in either case
    }
  });
  reading.detach();
  std::exit(0);
}

TEST(Exit, WhileADownloadIsOpen) {
  auto downloading = children(download_and_exit);
  const Identities &identities = Identities::get();
  const testpeer::HttpsPeer peer(
      {.certificate = Identities::get().authority.server(testpeer::ServerIdentity{.addresses = {"127.0.0.1"}}),
       .client_authority = identities.authority.certificate(),
       .needs_client_certificate = true,
       .on_request = [](testpeer::HttpExchange &exchange) {
         exchange.begin();
         exchange.send("<r><c>");
         std::string items;
         for (int i = 0; i < 1000; ++i) items += "<i>" + std::string(100, 'x') + "</i>";
         while (exchange.send(items)) {
         }
         return true;
       }});
  for (Child &child : downloading) EXPECT_EQ(0, child.run(peer.url()));
}

// ---- A shutdown with connections that are left

struct ShutdownRow {
  std::string name;
  Options options;

  friend void PrintTo(const ShutdownRow &row, std::ostream *out) { *out << row.name; }
};

ShutdownRow pending() {
  ShutdownRow row = {"Pending", correct()};
  row.options.approval_status = "pending";
  return row;
}

class Shutdown : public testing::TestWithParam<ShutdownRow> {};

TEST_P(Shutdown, EndsAConnect) {
  Application application;
  application.allow(kPatient, kPatient);
  const ScriptedPeer peer(GetParam().options);
  application.use(peer.host());
  QUILLON_STATUS status = QUILLON_STATUS_MAX;
  std::thread connecting([&] { status = application.connect(); });
  const bool is_pending = GetParam().options.approval_status == "pending";
  EXPECT_TRUE(is_pending ? application.wait_until([](const Seen &seen) { return !seen.account.empty(); })
                         : peer.wait_connections(1, kSoon));
  const Stopwatch stopwatch;
  quillon_shutdown();
  connecting.join();
  EXPECT_LT(stopwatch.passed(), seconds(10)) << application.log();
  EXPECT_EQ(QUILLON_STATUS_CONNECTION_ERROR, status);
  EXPECT_EQ(QUILLON_STATUS_CONNECTION_ERROR, application.connect());
}

INSTANTIATE_TEST_SUITE_P(Each, Shutdown,
                         testing::Values(pending(), ShutdownRow{"Negotiating", with(Stage::sasl, Fault::silent())}),
                         [](const testing::TestParamInfo<ShutdownRow> &row) { return row.param.name; });

}  // namespace
}  // namespace faults

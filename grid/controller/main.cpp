// quillon-controller: a client of the grid's XMPP server that runs the grid's protocol for development and tests. It approves
// accounts, knows who publishes and who subscribes, and guards the topics. Everything runs on one event loop, and nothing blocks
// it but the database.
#include <event2/thread.h>
#include <sys/time.h>

#include <csignal>
#include <cstdio>
#include <ctime>

#include "administration.h"
#include "commands.h"
#include "requests.h"

namespace {

using namespace controller;

// One line a record, with its time.
__attribute__((format(printf, 2, 0))) int write_log(FILE *stream, const char *format, va_list args) {
  timeval now = {};
  gettimeofday(&now, nullptr);
  tm parts = {};
  localtime_r(&now.tv_sec, &parts);
  char line[4096];
  const size_t used = std::strftime(line, sizeof line, "%H:%M:%S", &parts);
  const int milliseconds = static_cast<int>(now.tv_usec / 1000);
  char text[4000];
  std::vsnprintf(text, sizeof text, format, args);
  return std::fprintf(stream, "%.*s.%03d %s\n", static_cast<int>(used), line, milliseconds, text);
}

// The parts of the controller and the ways between them.
class Controller {
 public:
  Controller(event_base *base, const Options &options)
      : base_(base),
        store_(options.database),
        session_(base, options),
        topics_(session_, options),
        accounts_(store_, options.approves_new_accounts),
        registry_(store_, [this](const auto &...change) { announce(change...); }),
        directory_(store_, session_, topics_, accounts_),
        requests_(options, session_, accounts_, registry_, directory_),
        commands_(store_, session_, accounts_, directory_),
        administration_(base, options.control_socket,
                        [this](const auto &fields, const auto &reply) { commands_.run(fields, reply); }) {}
  ~Controller() { session_.close(); }  // replies that are awaited go to parts that still live
  Controller(const Controller &) = delete;
  Controller &operator=(const Controller &) = delete;

  void start() {
    session_.start({[this] { begin(); }, [this] { end(); },
                    [this](const wb_dom_node *presence) { requests_.receive_presence(presence); },
                    [this](const wb_dom_node *iq) { requests_.receive_iq(iq); }});
  }
  void stop() {
    session_.stop([this] { event_base_loopbreak(base_); });
  }

 private:
  static std::string core_topic() { return std::string(kCoreCapability) + kVersionSuffix; }

  void end() {
    commands_.set_ready(false);
    directory_.lose_sight();
  }

  void begin() {
    topics_.forget();
    directory_.recover();
    topics_.create(core_topic(), [this](bool created) {
      commands_.set_ready(created);
      if (created) wb_log(WB_LOG_INFO, "ready");
    });
  }

  // Tells everybody who subscribes to the core capability that a registered capability is new or has changed.
  void announce(const std::string &change, const std::string &name, const std::string &version) {
    wb_log(WB_LOG_INFO, "capability %s %s: %s", name.c_str(), version.c_str(), change.c_str());
    topics_.publish(core_topic(), [&](Element envelope) {
      Element update = envelope.add_in(kGridNs, "RegisteredCapabilityUpdateNotification");
      update.add("change", change);
      update.add("name", name);
      update.add("version", version);
    });
  }

  event_base *base_;
  Store store_;
  Session session_;
  Topics topics_;
  Accounts accounts_;
  Registry registry_;
  Directory directory_;
  Requests requests_;
  Commands commands_;
  AdministrationSocket administration_;
};

void on_signal(evutil_socket_t, short, void *controller) { static_cast<Controller *>(controller)->stop(); }

int run(const Options &options) {
  if (evthread_use_pthreads() != 0) throw std::runtime_error("libevent has no threads");
  const Owner<event_base, event_base_free> base(event_base_new());
  if (base == nullptr || evthread_make_base_notifiable(base.get()) != 0) throw std::runtime_error("no event base");
  Controller controller(base.get(), options);
  const Owner<event, event_free> interrupt(evsignal_new(base.get(), SIGINT, on_signal, &controller));
  const Owner<event, event_free> terminate(evsignal_new(base.get(), SIGTERM, on_signal, &controller));
  if (interrupt == nullptr || terminate == nullptr) throw std::runtime_error("no signal handlers");
  evsignal_add(interrupt.get(), nullptr);
  evsignal_add(terminate.get(), nullptr);
  controller.start();
  return event_base_dispatch(base.get()) < 0 ? 1 : 0;
}

}  // namespace

int main(int argc, char **argv) {
  Options options;
  if (!read_options(argc, argv, options)) return 2;
  std::signal(SIGPIPE, SIG_IGN);
  wb_log_set_function(write_log);
  wb_log_set_level(options.verbose ? WB_LOG_DEBUG : WB_LOG_INFO);
  try {
    return run(options);
  } catch (const std::exception &error) {
    wb_log(WB_LOG_ERROR, "%s", error.what());
    return 1;
  }
}

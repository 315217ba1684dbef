// The library hands a notification to the handler of its payload's name. Here every name is wanted, so the stanzas themselves are
// looked at, which tells the topic and the item's id as well.
#include "subscribe.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <csignal>
#include <ctime>
#include <deque>
#include <optional>

#include "payloads.h"
#include "session.h"
#include "terminal.h"

namespace tool {

namespace {

struct Options {
  CapabilityOptions capability;
  std::vector<std::string> elements;
  bool as_json = false;
  Reconnecting reconnecting;
  uint64_t count = 0;  // 0: no end
};

struct Notification {
  timespec time;
  std::string item;
  Element payload;
};

// What the event loop puts in and the command takes out.
class Inbox {
 public:
  Inbox() : filled_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

  void put(Notification notification) {
    const std::lock_guard lock(mutex_);
    queue_.push_back(std::move(notification));
    eventfd_write(filled_.get(), 1);
  }
  std::deque<Notification> take() {
    const std::lock_guard lock(mutex_);
    eventfd_t count = 0;
    eventfd_read(filled_.get(), &count);
    return std::exchange(queue_, {});
  }
  int descriptor() const { return filled_.get(); }

 private:
  const Descriptor filled_;
  std::mutex mutex_;
  std::deque<Notification> queue_;
};

const wb_dom_node *child_named(const wb_dom_node *parent, const char *ename) {
  return parent != nullptr ? wb_dom_get_first_element(parent, ename) : nullptr;
}

// The payload of a stanza that is a notification of the topic, with the item's id; NULL for everything else.
const wb_dom_node *payload_of(const wb_dom_node *stanza, const std::string &topic, std::string &item_id) {
  if (attribute(stanza, "from") != "pubsub." QLK_GRID_DOMAIN) return nullptr;
  const wb_dom_node *event = child_named(stanza, "{http://jabber.org/protocol/pubsub#event}event");
  const wb_dom_node *items = child_named(event, "{http://jabber.org/protocol/pubsub#event}items");
  if (attribute(items, "node") != topic) return nullptr;
  const wb_dom_node *item = child_named(items, "{http://jabber.org/protocol/pubsub#event}item");
  const wb_dom_node *grid = child_named(item, "{quillon}grid");
  if (!attribute(grid, "type").starts_with("notification")) return nullptr;
  item_id = attribute(item, "id");
  return wb_dom_get_first_child(grid);
}

std::string clock_time(const timespec &time) {
  tm parts = {};
  char text[32] = "";
  localtime_r(&time.tv_sec, &parts);
  std::strftime(text, sizeof text, "%H:%M:%S", &parts);
  return text;
}

std::string full_time(const timespec &time) {
  tm parts = {};
  char text[32] = "", whole[48] = "";
  gmtime_r(&time.tv_sec, &parts);
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  std::snprintf(whole, sizeof whole, "%s.%03ldZ", text, time.tv_nsec / 1000000);
  return whole;
}

void print(const Notification &notification, const Options &options) {
  if (!options.as_json) {
    const std::string when = is_terminal(stdout) ? paint(stdout, Style::faint, clock_time(notification.time)) + "  " : "";
    return print_line(when + to_xml_line(notification.payload.get()));
  }
  print_line("{\"time\":" + json_string(full_time(notification.time)) +
             ",\"capability\":" + json_string(options.capability.name) + ",\"item\":" + json_string(notification.item) +
             ",\"payload\":" + to_json(notification.payload.get()) + "}");
}

class Subscriber {
 public:
  Subscriber(const Options &options, const Settings &settings, Stop &stop)
      : options_(options),
        stop_(stop),
        ns_(namespace_of(options.capability, settings)),
        capability_(options.capability.name, ns_, options.capability.is_dynamic),
        session_(settings, stop) {
    for (const std::string &name : options.elements) elements_.push_back(expanded_name(ns_, name));
    session_.set_stanza_watcher([this](const wb_dom_node *stanza) { hear(stanza); });
  }

  void run() {
    session_.join();
    subscribe();
    while (printed_ < options_.count || options_.count == 0) {
      pollfd waited[] = {{stop_.descriptor(), POLLIN, 0},
                         {inbox_.descriptor(), POLLIN, 0},
                         {session_.lost_descriptor(), POLLIN, 0},
                         {STDOUT_FILENO, 0, 0}};  // whose reader may leave
      poll(waited, 4, -1);
      stop_.check();
      print_all();
      if ((waited[3].revents & POLLERR) != 0) throw Stopped{SIGPIPE};
      if (session_.is_lost()) session_.join_again(options_.reconnecting, [this] { subscribe(); });
    }
  }

 private:
  void subscribe() {
    capability_.subscribe(session_);
    note("subscribed to " + capability_.name() + "; Ctrl-C ends");
  }

  void hear(const wb_dom_node *stanza) {
    std::string item;
    const wb_dom_node *payload = payload_of(stanza, capability_.topic(), item);
    if (payload == nullptr) return;
    const char *name = wb_dom_get_ename(payload);
    if (!elements_.empty() && std::find(elements_.begin(), elements_.end(), name) == elements_.end()) return;
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    inbox_.put({now, std::move(item), copy_of(payload)});
  }

  void print_all() {
    for (const Notification &notification : inbox_.take()) {
      if (options_.count != 0 && printed_ == options_.count) return;
      print(notification, options_);
      ++printed_;
    }
    flush_output();
  }

  const Options &options_;
  Stop &stop_;
  const std::string ns_;
  std::vector<std::string> elements_;
  uint64_t printed_ = 0;
  Inbox inbox_;
  const Capability capability_;
  Session session_;
};

}  // namespace

void add_subscribe_command(CommandLine &line, Context &context) {
  const auto options = std::make_shared<Options>();
  Command command = add_command(line, context, "subscribe", "Prints the notifications of a capability as they come, one a line",
                                "  qlk subscribe Weather\n"
                                "  qlk subscribe Weather --element warning --count 1\n"
                                "  qlk subscribe Weather --json --reconnect | jq .payload.text",
                                [&context, options](Stop &stop) {
                                  const Settings settings = complete_settings(context.connection, stop);
                                  Subscriber(*options, settings, stop).run();
                                  return ExitCode::done;
                                });
  add_capability_options(command, options->capability);
  command.repeated("-e,--element", "NAME", options->elements,
                   "Only notifications of this element, a name in the capability's namespace or {namespace}name; may be "
                   "repeated");
  command.number("-c,--count", "N", options->count, "End after this many notifications");
  command.flag("--json", options->as_json, "Print JSON lines, with time and item");
  add_reconnection_options(command, options->reconnecting);
}

}  // namespace tool

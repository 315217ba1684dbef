// The library does not wait for the answers to notifications; here they are counted, so that the command can tell whether the
// grid took them.
#include "publish.h"

#include <condition_variable>

#include "payloads.h"
#include "session.h"
#include "terminal.h"
#include "text.h"

namespace tool {

namespace {

constexpr uint64_t kUnansweredMax = 256;

struct Options {
  CapabilityOptions capability;
  std::vector<std::string> payloads;
  std::string file;
};

class Publisher {
 public:
  Publisher(const Options &options, const Settings &settings, Stop &stop, const wb_dom_node *first)
      : stop_(stop),
        seconds_(settings.values.timeout_seconds),
        capability_(options.capability.name, namespace_of(options.capability, settings, first), options.capability.is_dynamic),
        session_(settings, stop) {
    session_.set_stanza_watcher([this](const wb_dom_node *stanza) { hear(stanza); });
  }

  void begin() {
    session_.join();
    capability_.publish(session_);
  }

  // Throws once the grid has refused one.
  void send(Element payload) {
    wait_for_answers(kUnansweredMax - 1);
    {
      const std::lock_guard lock(mutex_);
      ++sent_;
    }
    session_.begin_request();
    session_.expect(quillon_connection_notify(session_.connection(), capability_.get(), payload.release()), "send");
  }

  // Waits until all have been answered.
  void finish() {
    wait_for_answers(0);
    note("published " + std::to_string(sent_) + (sent_ == 1 ? " notification on " : " notifications on ") + capability_.name());
  }

 private:
  void hear(const wb_dom_node *stanza) {
    if (std::string_view(wb_dom_get_localname(stanza)) != "iq") return;
    if (attribute(stanza, "from") != "pubsub." QLK_GRID_DOMAIN) return;
    const std::lock_guard lock(mutex_);
    ++answered_;
    if (attribute(stanza, "type") == "error" && refusal_.empty()) {
      const wb_dom_node *error = wb_dom_get_first_element(stanza, "{jabber:client}error");
      const char *condition = error != nullptr ? wb_dom_get_localname(wb_dom_get_first_child(error)) : nullptr;
      refusal_ = "the grid refused notification " + std::to_string(answered_) + ": " +
                 printable(condition != nullptr ? condition : "no reason");
    }
    changed_.notify_all();
  }

  void wait_for_answers(uint64_t unanswered) {
    std::unique_lock lock(mutex_);
    const auto deadline = std::chrono::steady_clock::now() + seconds_;
    while (refusal_.empty() && sent_ - answered_ > unanswered) {
      stop_.check();
      if (session_.is_lost()) throw Failure(ExitCode::no_connection, "the session is lost: " + session_.lost_reason());
      if (std::chrono::steady_clock::now() > deadline) {
        throw Failure(ExitCode::timed_out, "the grid did not answer: " + std::to_string(answered_) + " of " +
                                               std::to_string(sent_) + " notifications are known to be published");
      }
      changed_.wait_for(lock, std::chrono::milliseconds(100));  // the end's request and the session's are seen in between
    }
    if (!refusal_.empty()) throw Failure(ExitCode::refused, refusal_);
  }

  Stop &stop_;
  const std::chrono::seconds seconds_;
  std::mutex mutex_;
  std::condition_variable changed_;
  uint64_t sent_ = 0, answered_ = 0;
  std::string refusal_;
  const Capability capability_;
  Session session_;
};

bool is_blank(const std::string &line) { return line.find_first_not_of(" \t\r") == std::string::npos; }

std::vector<Element> read_given(const Options &options, const Stop &stop) {
  std::vector<Element> list;
  for (size_t i = 0; i < options.payloads.size(); ++i) {
    list.push_back(parse_payload(options.payloads[i], "payload " + std::to_string(i + 1)));
  }
  if (!options.file.empty()) list.push_back(parse_payload(read_file(options.file, stop), origin_of(options.file)));
  return list;
}

ExitCode publish_given(const Options &options, const Settings &settings, Stop &stop) {
  std::vector<Element> payloads = read_given(options, stop);  // all of them, before the first is sent
  Publisher publisher(options, settings, stop, payloads.front().get());
  publisher.begin();
  for (Element &payload : payloads) publisher.send(std::move(payload));
  publisher.finish();
  return ExitCode::done;
}

ExitCode publish_lines(const Options &options, const Settings &settings, Stop &stop) {
  if (is_terminal(stdin)) note("one payload a line; Ctrl-D ends");
  LineReader reader(stop);
  std::optional<Publisher> publisher;
  uint64_t number = 0;
  while (const std::optional<std::string> line = reader.next()) {
    ++number;
    if (is_blank(*line)) continue;
    Element payload = parse_or_null(*line);
    if (payload == nullptr) {
      if (publisher.has_value()) publisher->finish();  // tells how many were sent before it
      payload = parse_payload(*line, "line " + std::to_string(number) + " of standard input");
    }
    if (!publisher.has_value()) {
      publisher.emplace(options, settings, stop, payload.get());
      publisher->begin();
    }
    publisher->send(std::move(payload));
  }
  if (!publisher.has_value()) throw Failure(ExitCode::usage, "there is no payload on standard input");
  publisher->finish();
  return ExitCode::done;
}

}  // namespace

void add_publish_command(CommandLine &line, Context &context) {
  const auto options = std::make_shared<Options>();
  Command command =
      add_command(line, context, "publish", "Publishes notifications on a capability, and waits until the grid has taken them",
                  "  qlk publish Weather '<reading xmlns=\"urn:example\">21</reading>'\n"
                  "  qlk publish Weather --file report.xml\n"
                  "  sensor | qlk publish Weather",
                  [&context, options](Stop &stop) {
                    const Settings settings = complete_settings(context.connection, stop);
                    const bool is_given = !options->payloads.empty() || !options->file.empty();
                    return is_given ? publish_given(*options, settings, stop) : publish_lines(*options, settings, stop);
                  });
  add_capability_options(command, options->capability);
  command.arguments("PAYLOAD", options->payloads,
                    "XML elements; without any, and without --file, each line of standard input is one");
  command.option("-f,--file", "FILE", options->file, "A file that holds one element; - is standard input");
}

}  // namespace tool

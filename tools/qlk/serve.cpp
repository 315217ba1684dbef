#include "serve.h"

#include <poll.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <sstream>

#include "lookup.h"
#include "payloads.h"
#include "process.h"
#include "session.h"
#include "terminal.h"
#include "text.h"

namespace tool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kSenderBytes = 2048;
constexpr char kCommandHint[] = "A command stands after --, with options of its own: qlk serve NAME -- COMMAND";

struct Options {
  CapabilityOptions capability;
  std::vector<std::string> elements, command;
  std::string file;
  int limit_seconds = 10;
  bool is_quiet = false;
  Reconnecting reconnecting;
};

std::string sender_of(wb_dom_node *request) {
  std::string sender(kSenderBytes, '\0');
  quillon_xml_get_sender(request, sender.data());
  sender.resize(sender.find('\0'));
  return printable(sender);
}

class Server {
 public:
  Server(const Options &options, const Settings &settings, Stop &stop)
      : options_(options),
        stop_(stop),
        ns_(namespace_of(options.capability, settings)),
        capability_(options.capability.name, ns_, options.capability.is_dynamic),
        session_(settings, stop) {
    session_.set_stanza_watcher([this](const wb_dom_node *stanza) { hear(stanza); });
  }

  [[noreturn]] void run() {
    session_.join();
    const std::vector<std::string> elements = elements_to_serve();
    for (const std::string &element : elements) serve(element);
    announce();
    for (;;) {
      pollfd waited[] = {{stop_.descriptor(), POLLIN, 0}, {session_.lost_descriptor(), POLLIN, 0}};
      poll(waited, 2, -1);
      stop_.check();
      if (session_.is_lost()) session_.join_again(options_.reconnecting, [&] { announce(); });
    }
  }

 private:
  // Those that were named, else the capability's methods.
  std::vector<std::string> elements_to_serve() {
    if (!options_.elements.empty()) return options_.elements;
    const char *hint = "Name what is asked: --element NAME. Or define the methods: qlk propose.";
    try {
      const Definition definition = look_up(session_, capability_.name(), "");
      std::vector<std::string> methods = definition.queries;
      methods.insert(methods.end(), definition.actions.begin(), definition.actions.end());
      if (!methods.empty()) return methods;
    } catch (const Failure &failure) {
      if (failure.code() != ExitCode::not_found) throw;
    }
    throw Failure(ExitCode::usage, "the grid knows no methods of " + capability_.name(), hint);
  }

  void serve(const std::string &element) {
    std::string ns = ns_, local;
    split_name(element, ns, local);
    const QUILLON_STATUS status =
        quillon_connection_register_query_handler(session_.connection(), ns.c_str(), local.c_str(), on_query, this);
    if (status != QUILLON_STATUS_OK) throw Failure(ExitCode::usage, "'" + element + "' is no name of an element");
    const std::lock_guard lock(mutex_);
    served_.push_back(expanded_name(ns, local));
  }

  void announce() {
    capability_.publish(session_);
    note("serving " + capability_.name() + ": " + joined(served_) + "; Ctrl-C ends");
  }

  // On the event loop. A question that no handler takes is left unanswered by the library, without a word.
  void hear(const wb_dom_node *stanza) {
    const wb_dom_node *grid = wb_dom_get_first_element(stanza, "{quillon}grid");
    if (grid == nullptr || attribute(grid, "type") != "request") return;
    const wb_dom_node *payload = wb_dom_get_first_child(grid);
    const char *name = payload != nullptr ? wb_dom_get_ename(payload) : nullptr;
    if (name == nullptr) return;
    const std::lock_guard lock(mutex_);
    const auto is_it = [name](const std::string &served) {
      return strcasecmp(served.c_str(), name) == 0;
    };  // as the library looks
    if (std::any_of(served_.begin(), served_.end(), is_it)) return;
    note(printable(name) + " from " + printable(attribute(stanza, "from")) + ": no answer, this is not served");
  }

  // On the library's thread for queries, one at a time.
  static wb_dom_node *on_query(wb_dom_node *request, void *self) {
    auto *server = static_cast<Server *>(self);
    try {
      return server->answer(request).release();
    } catch (const std::exception &error) {
      note(error.what());
      return nullptr;
    }
  }

  // Null when there is no answer to give: the one who asks then waits in vain.
  Element answer(wb_dom_node *request) {
    const auto begin = Clock::now();
    const std::string what = printable(wb_dom_get_localname(request)) + " from " + sender_of(request);
    std::string complaint;
    Element reply = make_reply(request, complaint);
    const double milliseconds = std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
    char time[32];
    std::snprintf(time, sizeof time, "%.1f ms", milliseconds);
    if (!complaint.empty()) {
      note(what + ": no answer, " + complaint);
    } else if (!options_.is_quiet) {
      note(what + ": answered in " + time);
    }
    return reply;
  }

  Element make_reply(wb_dom_node *request, std::string &complaint) {
    if (!options_.file.empty()) return parse_payload(read_file(options_.file, stop_), origin_of(options_.file));
    const std::vector<std::string> variables = {"QLK_CAPABILITY=" + capability_.name(),
                                                std::string("QLK_ELEMENT=") + wb_dom_get_ename(request),
                                                "QLK_SENDER=" + sender_of(request)};
    Outcome outcome =
        run_process(options_.command, to_xml(request) + "\n", variables, std::chrono::seconds(options_.limit_seconds), stop_);
    complaint = outcome.complaint;
    if (!complaint.empty()) return nullptr;
    Element reply = parse_or_null(outcome.output);
    if (reply == nullptr) complaint = "what the command printed is no XML element";
    return reply;
  }

  const Options &options_;
  Stop &stop_;
  const std::string ns_;
  std::mutex mutex_;
  std::vector<std::string> served_;  // as {namespace}name
  const Capability capability_;
  Session session_;
};

// Before anybody is told that it answers.
void expect_command(const std::string &name) {
  const auto can_run = [](const std::string &path) {
    return access(path.c_str(), X_OK) == 0 && !std::filesystem::is_directory(path);
  };
  bool is_there = name.find('/') != std::string::npos && can_run(name);
  const char *path = std::getenv("PATH");
  std::istringstream folders(path != nullptr ? path : "/bin:/usr/bin");
  for (std::string folder; name.find('/') == std::string::npos && !is_there && std::getline(folders, folder, ':');) {
    is_there = can_run((folder.empty() ? "." : folder) + "/" + name);
  }
  if (is_there) return;
  throw Failure(ExitCode::usage, "there is no command '" + name + "' that can be run", kCommandHint);
}

[[noreturn]] void run(const Context &context, const Options &options, Stop &stop) {
  if (options.command.empty() == options.file.empty()) {
    throw Failure(ExitCode::usage, "what answers? Either a command, or --file FILE", kCommandHint);
  }
  if (!options.command.empty()) expect_command(options.command.front());
  if (!options.file.empty()) parse_payload(read_file(options.file, stop), origin_of(options.file));
  const Settings settings = complete_settings(context.connection, stop);
  Server(options, settings, stop).run();
}

}  // namespace

void add_serve_command(CommandLine &line, Context &context) {
  const auto options = std::make_shared<Options>();
  Command command =
      add_command(line, context, "serve", "Publishes a capability and answers its queries, by running a command or from a file",
                  "  qlk serve Weather -n urn:example --element day -- ./forecast.sh --short\n"
                  "  qlk serve Weather -n urn:example --element day --file sunny.xml\n"
                  "\n"
                  "They answer: qlk query Weather '<day xmlns=\"urn:example\">Monday</day>'\n"
                  "\n"
                  "The command gets the question as XML on its standard input and prints the\n"
                  "answer. $QLK_CAPABILITY, $QLK_ELEMENT and $QLK_SENDER tell it more. Without an\n"
                  "answer the one who asked waits in vain.",
                  [&context, options](Stop &stop) -> ExitCode { run(context, *options, stop); });
  add_capability_options(command, options->capability);
  command.arguments("COMMAND", options->command, "The command with its arguments; put -- before it");
  command.option("-f,--file", "FILE", options->file, "Answer with this file, read anew each time");
  command.repeated("-e,--element", "NAME", options->elements,
                   "What is asked: a name in the capability's namespace or {namespace}name; may be repeated (default: the "
                   "methods that the grid knows)");
  command.number("-l,--limit", "SECONDS", options->limit_seconds, 1, 3600, "How long the command may take (default: 10)");
  add_reconnection_options(command, options->reconnecting);
  command.flag("-q,--quiet", options->is_quiet, "Do not tell of each query that was answered");
}

}  // namespace tool

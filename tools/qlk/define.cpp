#include "define.h"

#include "payloads.h"
#include "session.h"
#include "terminal.h"

namespace tool {

namespace {

struct Options {
  CapabilityOptions capability;
  std::string version = "1.0", description, platform;
  std::vector<std::string> queries, actions;
};

using Define = decltype(&quillon_capability_propose);

ExitCode run(const Context &context, const Options &options, Define define, const std::string &verb, Stop &stop) {
  const Settings settings = complete_settings(context.connection, stop);
  const Capability capability(options.capability.name, namespace_of(options.capability, settings), options.capability.is_dynamic);
  Session session(settings, stop);
  session.join();
  session.begin_request();
  std::vector<const char *> queries = pointers_to(options.queries), actions = pointers_to(options.actions);
  session.expect(define(capability.get(), session.connection(), capability.name().c_str(), options.version.c_str(),
                        queries.data(), static_cast<int>(queries.size()), actions.data(), static_cast<int>(actions.size()),
                        options.description.c_str(), options.platform.c_str()),
                 verb + " " + capability.name());
  note(capability.name() + (verb == "modify" ? " is now " : " is registered as ") + options.version);
  return ExitCode::done;
}

void add_one(CommandLine &line, Context &context, const std::string &name, const std::string &text, Define define) {
  const auto options = std::make_shared<Options>();
  Command command =
      add_command(line, context, name, text,
                  "  qlk " + name +
                      " Weather --query day --query week --action reset \\\n"
                      "      --about 'Forecasts of the town'",
                  [&context, options, define, name](Stop &stop) { return run(context, *options, define, name, stop); });
  add_capability_options(command, options->capability);
  command.option("--define-version", "VERSION", options->version, "The capability's version (default: 1.0)");
  command.repeated("--query", "METHOD", options->queries, "A method that reads; may be repeated");
  command.repeated("--action", "METHOD", options->actions, "A method that writes; may be repeated");
  command.option("--about", "TEXT", options->description, "What the capability is for");
  command.option("--platform", "TEXT", options->platform, "The vendor's platform");
}

}  // namespace

void add_define_commands(CommandLine &line, Context &context) {
  add_one(line, context, "propose", "Proposes a new capability to the grid", quillon_capability_propose);
  add_one(line, context, "modify", "Changes the definition of a capability, all of it", quillon_capability_modify);
}

}  // namespace tool

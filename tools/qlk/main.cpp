// qlk: the grid from the command line.
#include <CLI/App.hpp>
#include <cctype>
#include <csignal>
#include <cstdlib>

#include "account.h"
#include "bulk.h"
#include "connect.h"
#include "define.h"
#include "doctor.h"
#include "lookup.h"
#include "publish.h"
#include "query.h"
#include "records.h"
#include "serve.h"
#include "session.h"
#include "subscribe.h"
#include "terminal.h"
#include "text.h"

namespace {

constexpr char kDescription[] =
    "The message grid from the command line: joins it, looks at it, sends and answers. Each command has its own --help";

constexpr char kFooter[] =
    "Begin with:\n"
    "  quillon-grid up && quillon-grid enroll alice   a grid on this machine\n"
    "  export QLK_PROFILE=.grid/users/alice/profile.toml\n"
    "  qlk doctor && qlk connect";

// In the order of the help.
constexpr decltype(&tool::add_connect_command) kCommands[] = {
    tool::add_doctor_command,    tool::add_connect_command,    tool::add_capabilities_command, tool::add_status_command,
    tool::add_subscribe_command, tool::add_publish_command,    tool::add_query_command,        tool::add_serve_command,
    tool::add_define_commands,   tool::add_authorized_command, tool::add_token_command,        tool::add_bulk_command};

int exit_with(tool::ExitCode code) { return static_cast<int>(code); }

int run(tool::Context &context) {
  try {
    tool::Stop stop;
    std::signal(SIGPIPE, SIG_IGN);  // a reader that leaves is seen where the output is written
    tool::start_records(context.connection.verbosity);
    const tool::ExitCode code = context.run(stop);
    tool::flush_output();
    return exit_with(code);
  } catch (const tool::Stopped &stopped) {
    std::fflush(stdout);
    return 128 + stopped.signal;
  } catch (const tool::Failure &failure) {
    std::fflush(stdout);
    tool::complain(tool::printable(failure.what()), failure.hint());
    return exit_with(failure.code());
  }
}

std::string lower_first(std::string text) {
  if (text.size() > 1 && std::islower(static_cast<unsigned char>(text[1])) != 0) {
    text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
  }
  return text;
}

int report_usage(const CLI::App &app, const CLI::ParseError &error, const char *first) {
  if (error.get_exit_code() == 0) {
    std::fputs(app.help().c_str(), stdout);
    return 0;
  }
  const auto chosen = app.get_subcommands();
  const bool is_unknown = chosen.empty() && first != nullptr && *first != '-';
  const std::string what = first == nullptr ? "which command?"
                           : is_unknown     ? std::string("there is no command '") + first + "'"
                                            : lower_first(error.what());
  tool::complain(what, "See: qlk " + (chosen.empty() ? "" : chosen.front()->get_name() + " ") + "--help");
  return exit_with(tool::ExitCode::usage);
}

}  // namespace

int main(int argc, char **argv) {
  try {
    CLI::App app(kDescription, "qlk");
    app.formatter(std::make_shared<tool::HelpFormatter>());
    app.set_help_flag("-h,--help", "Print this text and end");
    app.set_version_flag("--version", QLK_VERSION, "Print the version and end");
    app.require_subcommand(1);
    app.footer(std::string(kFooter) + "\n\n" + tool::kExitCodes);
    tool::Context context;
    for (const auto add : kCommands) add(app, context);
    try {
      app.parse(argc, argv);
    } catch (const CLI::CallForVersion &) {
      std::puts("qlk " QLK_VERSION);
      return 0;
    } catch (const CLI::ParseError &error) {
      return report_usage(app, error, argv[1]);
    }
    return run(context);
  } catch (const std::exception &error) {
    tool::complain(error.what(), "");
    return exit_with(tool::ExitCode::failed);
  }
}

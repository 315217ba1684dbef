// qlk: the grid from the command line.
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
#include "top.h"

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
    tool::add_define_commands,   tool::add_authorized_command, tool::add_token_command,        tool::add_bulk_command,
    tool::add_top_command};

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

}  // namespace

int main(int argc, char **argv) {
  try {
    tool::CommandLine line(kDescription, std::string(kFooter) + "\n\n" + tool::kExitCodes);
    tool::Context context;
    for (const auto add : kCommands) add(line, context);
    if (const auto code = line.parse(argc, argv)) return *code;
    return run(context);
  } catch (const std::exception &error) {
    tool::complain(error.what(), "");
    return exit_with(tool::ExitCode::failed);
  }
}

#include "connect.h"

#include <poll.h>

#include "session.h"
#include "terminal.h"

namespace tool {

namespace {

using Clock = std::chrono::steady_clock;

const char *title_of(Step step) {
  switch (step) {
    case Step::host:
      return "host";
    case Step::address:
      return "address";
    case Step::tls:
      return "TLS";
    case Step::peer:
      return "peer";
    case Step::authority:
      return "authority";
    case Step::sasl:
      return "SASL";
    case Step::session:
      return "session";
    case Step::account:
      break;
  }
  return "account";
}

// On the library's threads, through which nothing may be thrown: an output that fails is seen at the end.
void print_step(Step step, const std::string &text) {
  try {
    std::string title = title_of(step);
    title.resize(11, ' ');
    print_line(paint(stdout, Style::strong, title) + text);
    flush_output();
  } catch (...) {
    std::clearerr(stdout);
  }
}

// Until the user ends it; throws Failure when the session is lost.
void stay(Session &session, const Stop &stop) {
  for (;;) {
    pollfd waited[] = {{stop.descriptor(), POLLIN, 0}, {session.lost_descriptor(), POLLIN, 0}};
    poll(waited, 2, -1);
    stop.check();
    if (session.is_lost()) throw session.loss("");
  }
}

ExitCode run(const Context &context, Stop &stop, bool stays) {
  const Settings settings = complete_settings(context.connection, stop);
  const auto begin = Clock::now();
  Session session(settings, stop, print_step);
  session.join();
  const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  char text[64];
  std::snprintf(text, sizeof text, "joined the grid in %.0f ms", seconds * 1000);
  print_line(paint(stdout, Style::good, text));
  flush_output();
  if (stays) stay(session, stop);
  return ExitCode::done;
}

}  // namespace

void add_connect_command(CommandLine &line, Context &context) {
  const auto stays = std::make_shared<bool>(false);
  Command command =
      add_command(line, context, "connect", "Joins the grid and tells each step: address, TLS, peer, SASL, session, account",
                  "  qlk connect\n"
                  "  qlk connect --profile .grid/users/alice/profile.toml --stay",
                  [&context, stays](Stop &stop) { return run(context, stop, *stays); });
  command.flag("--stay", *stays, "Stay in the grid until Ctrl-C, and tell when the session is lost");
}

}  // namespace tool

#include "account.h"

#include <atomic>

#include "session.h"
#include "terminal.h"
#include "xml.h"

namespace tool {

namespace {

struct Question {
  std::string capability, operation, user;
  bool is_quiet = false;
};

bool is_answer(const wb_dom_node *stanza, std::string_view name) {
  const wb_dom_node *grid = wb_dom_get_first_element(stanza, "{quillon}grid");
  const wb_dom_node *payload = grid != nullptr ? wb_dom_get_first_child(grid) : nullptr;
  return payload != nullptr && name == wb_dom_get_localname(payload);
}

ExitCode run_authorized(const Context &context, const Question &question, Stop &stop) {
  const Settings settings = complete_settings(context.connection, stop);
  // A missing answer counts as a no for the library, but not for a user.
  std::atomic<bool> has_answer{false};
  Session session(settings, stop);
  session.set_stanza_watcher([&](const wb_dom_node *stanza) {
    if (is_answer(stanza, "getAuthorizedByUserResponse")) has_answer = true;
  });
  session.join();
  session.begin_request();
  const std::string &user = question.user.empty() ? session.user() : question.user;
  const bool may = quillon_connection_is_authorized(session.connection(), question.capability.c_str(), question.operation.c_str(),
                                                    user.c_str());
  const std::string what = "ask what " + user + " may do";
  if (!session.refusal().empty()) session.expect(QUILLON_STATUS_NOT_AUTHORIZED, what);
  if (!may && !has_answer) session.expect(QUILLON_STATUS_SEND_TIMEOUT, what);
  if (!question.is_quiet) print_line(may ? paint(stdout, Style::good, "yes") : paint(stdout, Style::warning, "no"));
  return may ? ExitCode::done : ExitCode::refused;
}

struct TokenEnd {
  void operator()(quillon_authentication_token *token) const { quillon_authentication_token_destroy(token); }
};

ExitCode run_token(const Context &context, Stop &stop) {
  const Settings settings = complete_settings(context.connection, stop);
  Session session(settings, stop);
  session.join();
  session.begin_request();
  quillon_authentication_token *created = nullptr;
  expect_ok(quillon_authentication_token_create(&created, session.connection()), "make a token");
  const std::unique_ptr<quillon_authentication_token, TokenEnd> token(created);
  const char *text = quillon_authentication_token_get(created);
  if (text == nullptr) session.expect(QUILLON_STATUS_SEND_TIMEOUT, "get a token");
  print_line(text);
  return ExitCode::done;
}

}  // namespace

void add_authorized_command(CommandLine &line, Context &context) {
  const auto question = std::make_shared<Question>();
  Command command = add_command(line, context, "authorized",
                                "Asks whether a user may perform an operation of a capability. It prints yes or no and ends with "
                                "code 0 or 3",
                                "  qlk authorized Weather reset bob\n"
                                "  qlk authorized Weather reset --quiet && ./reset.sh",
                                [&context, question](Stop &stop) { return run_authorized(context, *question, stop); });
  command.argument("CAPABILITY", question->capability, "The capability's name", Command::Need::required);
  command.argument("OPERATION", question->operation, "One of its operations", Command::Need::required);
  command.argument("USER", question->user, "Who wants to (default: the user of the session)");
  command.flag("-q,--quiet", question->is_quiet, "Print nothing");
}

void add_token_command(CommandLine &line, Context &context) {
  add_command(line, context, "token", "Prints a token that proves to other services who the user is: a secret",
              "  qlk token\n"
              "  curl -H \"Authorization: Bearer $(qlk token)\" https://service.example/",
              [&context](Stop &stop) { return run_token(context, stop); });
}

}  // namespace tool

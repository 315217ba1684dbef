#include "publisher.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <iostream>

#include "comeback.h"
#include "member.h"

namespace tour {

namespace {

wb_dom_node *answer_forecast(wb_dom_node *request, void *arg) {
  const auto &user = *static_cast<const std::string *>(arg);
  return Member::payload("forecast", "sunny on " + Member::text_of(request) + ", says " + user);
}

// The user part of the address from which the request came: it stands in the envelope around the payload.
std::string sender_of(const wb_dom_node *request) {
  const char *from = wb_dom_get_attribute(wb_dom_get_parent(wb_dom_get_parent(request)), "from");
  const std::string jid = from != nullptr ? from : "";
  return jid.substr(0, jid.find('@'));
}

wb_dom_node *answer_warning(wb_dom_node *request, void *arg) {
  const auto &member = *static_cast<const Member *>(arg);
  const std::string sender = sender_of(request);
  const bool allowed = quillon_connection_is_authorized(member.connection(), kCapability, kWarning, sender.c_str());
  const std::string answer = allowed ? "a storm comes to " + Member::text_of(request) : "the controller does not allow " + sender;
  return Member::payload("forecast", answer + ", says " + member.user());
}

void notify(const Member &member, int count) {
  for (int i = 1; i <= count; ++i) {
    Member::expect_ok(
        quillon_connection_notify(member.connection(), member.capability(), Member::payload("reading", std::to_string(i))),
        "send a notification");
  }
  Member::say(member.user(), "sent " + std::to_string(count) + " notifications");
}

}  // namespace

int run_publisher(const Grid &grid, const std::string &user) {
  std::string name = user;
  Member member(grid, user);
  Member::expect_ok(quillon_connection_register_query_handler(member.connection(), kNamespace, "day", answer_forecast, &name),
                    "register the query handler");
  Member::expect_ok(quillon_connection_register_query_handler(member.connection(), kNamespace, kWarning, answer_warning, &member),
                    "register the handler of what needs permission");
  Comeback comeback(member);
  Member::expect_ok(quillon_connection_connect(member.connection()), "connect");
  Member::say(user, "connected: approved by the controller");
  Member::expect_ok(quillon_capability_publish(member.capability(), member.connection()), "publish the capability");
  Member::say(user, std::string("publishes ") + kCapability + " and answers queries: ready");
  int count = 0;
  for (std::string order; std::cin >> order;) {
    if (order == "notify" && std::cin >> count) notify(member, count);
    if (order == "reconnect") {
      comeback.wait_for_loss();
      comeback.bring_back();
    }
  }
  return 0;
}

PublisherProcess::PublisherProcess(const std::string &program, const Grid &grid, const std::string &user) : user_(user) {
  int to[2], from[2];
  if (pipe(to) != 0 || pipe(from) != 0) std::abort();
  pid_ = fork();
  if (pid_ == 0) {
    dup2(to[0], STDIN_FILENO);
    dup2(from[1], STDOUT_FILENO);
    for (const int fd : {to[0], to[1], from[0], from[1]}) close(fd);
    execl(program.c_str(), program.c_str(), grid.command().c_str(), grid.folder().c_str(), "--publisher", user.c_str(), nullptr);
    _exit(127);
  }
  close(to[0]);
  close(from[1]);
  to_ = fdopen(to[1], "w");
  from_ = fdopen(from[0], "r");
}

PublisherProcess::~PublisherProcess() {
  kill();
  fclose(from_);
}

void PublisherProcess::wait_for(const std::string &word) {
  char line[512];
  while (fgets(line, sizeof line, from_) != nullptr) {
    std::fputs(line, stdout);
    std::fflush(stdout);
    if (std::string(line).find(word) != std::string::npos) return;
  }
  std::cerr << user_ << " has left the tour\n";
  std::exit(1);
}

void PublisherProcess::send_notifications(size_t count) {
  std::fprintf(to_, "notify %zu\n", count);
  std::fflush(to_);
}

void PublisherProcess::reconnect() {
  std::fputs("reconnect\n", to_);
  std::fflush(to_);
}

void PublisherProcess::kill() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  pid_ = -1;
  if (to_ != nullptr) fclose(to_);
  to_ = nullptr;
}

void PublisherProcess::stop() {
  fclose(to_);  // the end of its input is the end of its work
  to_ = nullptr;
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

}  // namespace tour

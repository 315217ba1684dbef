#include "publisher.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <iostream>

#include "member.h"

namespace tour {

namespace {

wb_dom_node *answer_forecast(wb_dom_node *request, void *arg) {
  const auto &user = *static_cast<const std::string *>(arg);
  return Member::payload("forecast", "sunny on " + Member::text_of(request) + ", says " + user);
}

}  // namespace

int run_publisher(const Grid &grid, const std::string &user) {
  std::string name = user;
  Member member(grid, user);
  Member::expect_ok(quillon_connection_register_query_handler(member.connection(), kNamespace, "day", answer_forecast, &name),
                    "register the query handler");
  Member::expect_ok(quillon_connection_connect(member.connection()), "connect");
  Member::say(user, "connected: approved by the controller");
  Member::expect_ok(quillon_capability_publish(member.capability(), member.connection()), "publish the capability");
  Member::say(user, std::string("publishes ") + kCapability + " and answers queries: ready");
  int count = 0;
  while (std::cin >> count && count > 0) {
    for (int i = 1; i <= count; ++i) {
      Member::expect_ok(
          quillon_connection_notify(member.connection(), member.capability(), Member::payload("reading", std::to_string(i))),
          "send a notification");
    }
    Member::say(user, "sent " + std::to_string(count) + " notifications");
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

void PublisherProcess::send_notifications(int count) {
  std::fprintf(to_, "%d\n", count);
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

#include "process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "descriptor.h"
#include "failure.h"
#include "stop.h"

extern char **environ;

namespace tool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kOutputBytesMax = 16u << 20;
constexpr size_t kReadBytes = 64u << 10;

struct Pipe {
  Descriptor read, write;
};

Pipe make_pipe() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw Failure(ExitCode::failed, "no pipe can be had");
  return {Descriptor(ends[0]), Descriptor(ends[1])};
}

// Signals as a program expects them, and a process group of its own, which can be killed as a whole.
class Attributes {
 public:
  Attributes() {
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_init(&value_);
    posix_spawnattr_setsigmask(&value_, &none);
    posix_spawnattr_setsigdefault(&value_, &all);
    posix_spawnattr_setpgroup(&value_, 0);
    posix_spawnattr_setflags(&value_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  }
  ~Attributes() { posix_spawnattr_destroy(&value_); }
  Attributes(const Attributes &) = delete;
  Attributes &operator=(const Attributes &) = delete;
  const posix_spawnattr_t *get() const { return &value_; }

 private:
  posix_spawnattr_t value_ = {};
};

class Actions {
 public:
  Actions(int input, int output) {
    posix_spawn_file_actions_init(&value_);
    posix_spawn_file_actions_adddup2(&value_, input, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&value_, output, STDOUT_FILENO);
  }
  ~Actions() { posix_spawn_file_actions_destroy(&value_); }
  Actions(const Actions &) = delete;
  Actions &operator=(const Actions &) = delete;
  const posix_spawn_file_actions_t *get() const { return &value_; }

 private:
  posix_spawn_file_actions_t value_ = {};
};

std::vector<char *> pointers(const std::vector<std::string> &texts) {
  std::vector<char *> list;
  for (const std::string &text : texts) list.push_back(const_cast<char *>(text.c_str()));
  list.push_back(nullptr);
  return list;
}

pid_t spawn(const std::vector<std::string> &command, const std::vector<std::string> &variables, const Pipe &input,
            const Pipe &output) {
  const Attributes attributes;
  const Actions actions(input.read.get(), output.write.get());
  std::vector<char *> arguments = pointers(command);
  std::vector<char *> environment = pointers(variables);
  environment.pop_back();
  for (char **variable = environ; *variable != nullptr; ++variable) environment.push_back(*variable);
  environment.push_back(nullptr);
  pid_t child = -1;
  const int error = posix_spawnp(&child, arguments[0], actions.get(), attributes.get(), arguments.data(), environment.data());
  if (error != 0) throw Failure(ExitCode::failed, "cannot run " + command[0] + ": " + std::strerror(error));
  return child;
}

// Feeds the child and reads it until it has closed its output.
class Conversation {
 public:
  Conversation(Descriptor to, Descriptor from, const std::string &input, Clock::time_point deadline, const Stop &stop)
      : to_(std::move(to)), from_(std::move(from)), input_(input), deadline_(deadline), stop_(stop) {
    fcntl(to_.get(), F_SETFL, O_NONBLOCK);
    if (input_.empty()) to_.reset();
  }

  // Why it had to end before its time; empty when it did not.
  std::string run() {
    while (from_) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline_ - Clock::now()).count();
      if (left <= 0) return "it was not done in time";
      pollfd waited[] = {{from_.get(), POLLIN, 0}, {to_.get(), POLLOUT, 0}, {stop_.descriptor(), POLLIN, 0}};
      poll(waited, 3, static_cast<int>(left));
      if (waited[2].revents != 0) return "it was ended";
      if (waited[1].revents != 0) feed();
      if (waited[0].revents != 0) take();
      if (output_.size() > kOutputBytesMax) return "it printed too much";
    }
    return "";
  }
  std::string take_output() { return std::move(output_); }

 private:
  void feed() {
    const ssize_t written = write(to_.get(), input_.data() + fed_, input_.size() - fed_);
    if (written > 0) fed_ += static_cast<size_t>(written);
    // A child that does not care for its input may close it.
    if (fed_ == input_.size() || (written < 0 && errno != EAGAIN && errno != EINTR)) to_.reset();
  }
  void take() {
    const size_t before = output_.size();
    output_.resize(before + kReadBytes);
    const ssize_t got = read(from_.get(), output_.data() + before, kReadBytes);
    output_.resize(before + static_cast<size_t>(got > 0 ? got : 0));
    if (got == 0 || (got < 0 && errno != EINTR)) from_.reset();
  }

  Descriptor to_, from_;
  const std::string &input_;
  const Clock::time_point deadline_;
  const Stop &stop_;
  size_t fed_ = 0;
  std::string output_;
};

// Waits for the end of a child that has closed its output, at most until the deadline. True when it has ended.
bool reap(pid_t child, Clock::time_point deadline, const Stop &stop, int &status) {
  const Descriptor process(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  pollfd waited[] = {{process.get(), POLLIN, 0}, {stop.descriptor(), POLLIN, 0}};
  poll(waited, 2, static_cast<int>(std::max<long long>(left, 0)));
  return waitpid(child, &status, WNOHANG) == child;
}

std::string describe(int status) {
  if (WIFSIGNALED(status)) return "signal " + std::to_string(WTERMSIG(status)) + " ended it";
  return WEXITSTATUS(status) == 0 ? "" : "it ended with code " + std::to_string(WEXITSTATUS(status));
}

}  // namespace

Outcome run_process(const std::vector<std::string> &command, const std::string &input, const std::vector<std::string> &variables,
                    std::chrono::milliseconds limit, const Stop &stop) {
  const auto deadline = Clock::now() + limit;
  Pipe to = make_pipe(), from = make_pipe();
  const pid_t child = spawn(command, variables, to, from);
  to.read.reset();
  from.write.reset();
  Conversation conversation(std::move(to.write), std::move(from.read), input, deadline, stop);
  Outcome outcome = {"", conversation.run()};
  outcome.output = conversation.take_output();
  int status = 0;
  if (outcome.complaint.empty() && reap(child, deadline, stop, status)) {
    outcome.complaint = describe(status);
    return outcome;
  }
  if (outcome.complaint.empty()) outcome.complaint = "it was not done in time";
  kill(-child, SIGKILL);
  waitpid(child, &status, 0);
  return outcome;
}

}  // namespace tool

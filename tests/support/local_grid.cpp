#include "local_grid.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "wait_for.h"

namespace test_support {

namespace {

constexpr std::chrono::seconds kDownPatience{40};

struct Pipe {
  Pipe() {
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
  }
  ~Pipe() {
    for (const int end : ends) {
      if (end >= 0) close(end);
    }
  }
  Pipe(const Pipe &) = delete;
  Pipe &operator=(const Pipe &) = delete;
  int release(int which) { return std::exchange(ends[which], -1); }
  int ends[2] = {-1, -1};
};

std::string read_to_end(int file) {
  std::string text;
  char buffer[4096];
  ssize_t got;
  while ((got = read(file, buffer, sizeof buffer)) > 0 || (got < 0 && errno == EINTR)) {
    if (got > 0) text.append(buffer, static_cast<size_t>(got));
  }
  return text;
}

std::string read_line(int file) {
  std::string line;
  char character;
  while (read(file, &character, 1) == 1 && character != '\n') line += character;
  return line;
}

// Starts quillon-grid with the file as its standard input (none: /dev/null), and its output, errors included, going into the
// other.
pid_t start(const std::string &folder, const std::vector<std::string> &arguments, int input, int output) {
  std::vector<std::string> words = {QLK_GRID_COMMAND, "--folder", folder};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char *> argv;
  argv.reserve(words.size() + 1);
  for (std::string &word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (input >= 0) {
    posix_spawn_file_actions_adddup2(&actions, input, 0);
  } else {
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  }
  posix_spawn_file_actions_adddup2(&actions, output, 1);
  posix_spawn_file_actions_adddup2(&actions, output, 2);
  pid_t process = -1;
  const int error = posix_spawn(&process, QLK_GRID_COMMAND, &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw std::system_error(error, std::generic_category(), QLK_GRID_COMMAND);
  return process;
}

int exit_code_of(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

// What a line NAME=value of quillon-grid env says.
std::string value_in(const std::string &environment, const std::string &name) {
  std::istringstream lines(environment);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind(name + "=", 0) == 0) return line.substr(name.size() + 1);
  }
  return {};
}

std::string make_folder() {
  std::string path = (std::filesystem::temp_directory_path() / "local-grid.XXXXXX").string();
  if (mkdtemp(path.data()) == nullptr) throw std::system_error(errno, std::generic_category(), path);
  return path;
}

}  // namespace

LocalGrid::LocalGrid(Approval approval) : folder_(make_folder()) {
  bring_up({"--approval", approval == Approval::manual ? "manual" : "auto"});
}

LocalGrid::LocalGrid(unsigned nodes) : folder_(make_folder()) {
  bring_up({"--server", "ejabberd", "--nodes", std::to_string(nodes)});
}

void LocalGrid::bring_up(const std::vector<std::string> &options) {
  Pipe lifeline, output;
  std::vector<std::string> arguments = {"up",           "--foreground",     "--lifeline", "--domain", QLK_GRID_DOMAIN,
                                        "--controller", QLK_CONTROLLER_PATH};
  arguments.insert(arguments.end(), options.begin(), options.end());
  process_ = start(folder_, arguments, lifeline.ends[0], output.ends[1]);
  lifeline_ = lifeline.release(1);
  close(output.release(1));
  const std::string told = read_line(output.ends[0]);
  if (told.find("the grid is up") == std::string::npos) {
    const std::string rest = read_to_end(output.ends[0]);
    take_down();
    throw std::runtime_error(told + "\n" + rest);
  }
  // What it may say later, it says at the end: the destructor has the log then, and a pipe without a reader is no obstacle to
  // Python.
  read_environment();
}

LocalGrid::~LocalGrid() {
  int code = -1;
  try {
    code = take_down();
  } catch (const std::exception &error) {
    ADD_FAILURE() << error.what();
  }
  if (code != 0) ADD_FAILURE() << "quillon-grid ended with code " << code << "; the controller's log:\n" << controller_log();
  std::error_code ignored;
  if (code == 0) std::filesystem::remove_all(folder_, ignored);
}

int LocalGrid::take_down() {
  close(std::exchange(lifeline_, -1));
  int status = 0;
  pid_t ended = 0;
  wait_for([&] { return (ended = waitpid(process_, &status, WNOHANG)) != 0; }, kDownPatience);
  if (ended == process_) return exit_code_of(status);
  kill(process_, SIGKILL);
  waitpid(process_, &status, 0);
  attempt({"down"});
  return exit_code_of(status);
}

LocalGrid::Outcome LocalGrid::attempt(const std::vector<std::string> &arguments) const {
  Pipe output;
  const pid_t process = start(folder_, arguments, -1, output.ends[1]);
  close(output.release(1));
  Outcome outcome = {0, read_to_end(output.ends[0])};
  int status = 0;
  while (waitpid(process, &status, 0) < 0 && errno == EINTR) {
  }
  outcome.exit_code = exit_code_of(status);
  return outcome;
}

std::string LocalGrid::run(const std::vector<std::string> &arguments) {
  Outcome outcome = attempt(arguments);
  if (outcome.exit_code != 0) throw std::runtime_error("quillon-grid " + arguments[0] + ": " + outcome.output);
  return std::move(outcome.output);
}

void LocalGrid::read_environment() {
  const std::string told = run({"env"});
  const std::string hosts = value_in(told, "QUILLON_GRID_HOSTS");
  for (size_t colon = hosts.find(':'); colon != std::string::npos; colon = hosts.find(':', colon + 1)) {
    ports_.push_back(static_cast<unsigned>(std::stoul(hosts.substr(colon + 1))));
  }
  if (ports_.empty()) throw std::runtime_error("the grid has no address: " + told);
  wants_bare_jid_ = value_in(told, "QUILLON_GRID_SASL_RESPONSE") == "bare-jid";
}

std::string LocalGrid::host() const { return hosts().front(); }

std::vector<std::string> LocalGrid::hosts() const {
  std::vector<std::string> hosts;
  for (const unsigned port : ports_) hosts.push_back("127.0.0.1:" + std::to_string(port));
  return hosts;
}

std::string LocalGrid::domain() const { return QLK_GRID_DOMAIN; }

std::string LocalGrid::controller_log() const {
  std::ostringstream text;
  text << std::ifstream(folder_ + "/controller.log").rdbuf();
  return text.str();
}

LocalGrid::Credentials LocalGrid::enroll(const std::string &user, const std::vector<std::string> &options) {
  std::vector<std::string> arguments = {"enroll", user};
  arguments.insert(arguments.end(), options.begin(), options.end());
  std::istringstream lines(run(arguments));
  Credentials credentials;
  std::getline(lines, credentials.certificate);
  std::getline(lines, credentials.key);
  return credentials;
}

void LocalGrid::approve(const std::string &user) { run({"approve", user}); }
void LocalGrid::deny(const std::string &user) { run({"deny", user}); }
void LocalGrid::disable(const std::string &user) { run({"disable", user}); }
void LocalGrid::remove(const std::string &user) { run({"delete", user}); }
void LocalGrid::reauthorize(const std::string &user) { run({"reauthorize", user}); }

void LocalGrid::allow(const std::string &user, const std::string &capability, const std::string &operation) {
  run({"allow", user, capability, operation});
}

void LocalGrid::forbid(const std::string &user, const std::string &capability, const std::string &operation) {
  run({"forbid", user, capability, operation});
}

std::string LocalGrid::token_owner(const std::string &token) {
  const Outcome outcome = attempt({"token-owner", token});
  return outcome.exit_code == 0 ? outcome.output.substr(0, outcome.output.find('\n')) : "";
}

void LocalGrid::server_forget() { std::filesystem::remove_all(folder_ + "/data"); }
void LocalGrid::server_stop() { run({"server-stop"}); }

void LocalGrid::server_start(bool wait_for_controller) {
  std::vector<std::string> arguments = {"server-start"};
  if (!wait_for_controller) arguments.emplace_back("--no-wait");
  run(arguments);
}

void LocalGrid::kill_node(unsigned node) { run({"server-stop", "--kill", "--node", std::to_string(node)}); }

void LocalGrid::server_certificate(int days, const std::string &name) {
  std::vector<std::string> arguments = {"server-certificate", "--days", std::to_string(days)};
  if (!name.empty()) arguments.insert(arguments.end(), {"--name", name});
  run(arguments);
}

}  // namespace test_support

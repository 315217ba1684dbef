// What the examples share: the settings of a user of the local grid, and a few lines that every program would need.
// `eval "$(quillon-grid env --export)"` tells them where the grid is; the user was enrolled there.
#pragma once

#include <signal.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <quillon.hpp>
#include <stdexcept>
#include <string>

namespace examples {

// Tells the arguments. Returns: the exit code for it
inline int usage(char **argv, const char *arguments) {
  std::cerr << "usage: " << argv[0] << ' ' << arguments << '\n';
  return 2;
}

// Tells what went wrong. Returns: the exit code for it
inline int failed(const std::exception &failure) {
  std::cerr << failure.what() << '\n';
  return 1;
}

// One of the variables of the grid. Throws without it.
inline std::string grid_variable(const char *name) {
  const char *const value = std::getenv(name);
  if (value == nullptr) throw std::runtime_error(std::string(name) + " is not set: 'quillon-grid env --export' tells it");
  return value;
}

// The library's records come without an end of line.
WB_PRINTF(1, 0) inline int print_record(const char *format, va_list args) {
  std::vfprintf(stderr, format, args);
  return std::fputc('\n', stderr);
}

// A configuration for the user, who is the first argument.
inline quillon::config make_config(char **argv) {
  const std::string user = argv[1], ca = grid_variable("QUILLON_GRID_CA");
  const std::string folder = grid_variable("QUILLON_GRID_FOLDER") + "/users/" + user;
  quillon_log_set_callback(print_record);
  quillon_log_set_level(QUILLON_LOG_WARN);
  return quillon::config::create({.hosts = {grid_variable("QUILLON_GRID_HOST")},
                                  .user = user,
                                  .certificate = folder + "/certificate.pem",
                                  .key = folder + "/key.pem",
                                  .server_ca = ca,
                                  .bulk_server_ca = ca})
      .value();
}

// Keeps Ctrl-C from ending the program, and takes it instead. The library's threads take no signals.
class ctrl_c {
 public:
  ctrl_c() {
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
  }
  // True when it came within that time.
  bool came_within(std::chrono::seconds time) const {
    const timespec timeout = {.tv_sec = time.count(), .tv_nsec = 0};
    return sigtimedwait(&signals_, nullptr, &timeout) == SIGINT;
  }
  void wait() const {
    while (!came_within(std::chrono::hours(1))) continue;
  }

 private:
  sigset_t signals_;
};

}  // namespace examples

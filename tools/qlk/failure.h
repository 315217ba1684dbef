// How a command fails: an exit code that scripts can rely on, a sentence, and what to do about it.
#pragma once

#include <quillon.h>

#include <stdexcept>
#include <string>

namespace tool {

enum class ExitCode {
  done = 0,
  usage = 1,          // wrong options, profile or payload
  no_connection = 2,  // the grid could not be reached or joined, or the session was lost
  refused = 3,        // the grid, or the peer, said no
  timed_out = 4,      // no answer in time
  not_found = 5,      // nobody publishes the capability, or it is not registered
  bad_data = 6,       // what came cannot be read, or broke off
  failed = 7,         // anything else: memory, files, the output
  faults_found = 8,   // doctor found something to mend
};

// Printed at the end of the help.
inline constexpr char kExitCodes[] =
    "Exit codes:\n"
    "  0  done\n"
    "  1  wrong usage: an option, the profile or a payload\n"
    "  2  no connection: the grid cannot be reached or joined, or the session is lost\n"
    "  3  refused: the grid or the peer said no\n"
    "  4  no answer in time\n"
    "  5  not found: nobody publishes the capability, or it is not registered\n"
    "  6  bad data: what came cannot be read, or broke off\n"
    "  7  it failed for another reason\n"
    "  8  doctor found something to mend\n"
    "  128 + N  ended by signal N; 130 is Ctrl-C";

class Failure : public std::runtime_error {
 public:
  Failure(ExitCode code, const std::string &what, std::string hint = "")
      : std::runtime_error(what), code_(code), hint_(std::move(hint)) {}

  ExitCode code() const { return code_; }
  // What the user may do about it; empty when there is nothing to say.
  const std::string &hint() const { return hint_; }

 private:
  ExitCode code_;
  std::string hint_;
};

// The user, or the system, wants the program to end: nothing is said about it.
struct Stopped {
  int signal;
};

// The status's text; never null.
std::string text_of(QUILLON_STATUS status);

// The exit code that goes with a status other than OK.
ExitCode exit_code_of(QUILLON_STATUS status);

// For calls that fail only without memory or because of a fault of this program.
void expect_ok(QUILLON_STATUS status, const char *what);

}  // namespace tool

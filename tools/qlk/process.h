// A command that is run with an input and a time limit.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace tool {

class Stop;

struct Outcome {
  std::string output;
  std::string complaint;  // empty when the command succeeded
};

// Runs the command, found as a shell finds it, with the input on its standard input and variables ("NAME=value") added to its
// environment, and returns what it printed. One that is not done in time is killed with all that it started, and so it is at the
// end's request. Its standard error is ours.
Outcome run_process(const std::vector<std::string> &command, const std::string &input, const std::vector<std::string> &variables,
                    std::chrono::milliseconds limit, const Stop &stop);

}  // namespace tool

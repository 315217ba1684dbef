// The options of a program that measures: "--name value" pairs.
#pragma once

#include <string>
#include <unordered_map>

namespace bench {

class Arguments {
 public:
  // Ends the program with a message when an option has no value or does not begin with "--".
  Arguments(int argc, char **argv);

  // The value of --name, or the fallback.
  std::string text(const std::string &name, const std::string &fallback = "") const;
  long number(const std::string &name, long fallback) const;
  // Ends the program with a message when the option is missing.
  std::string required(const std::string &name) const;

 private:
  std::unordered_map<std::string, std::string> values_;
};

}  // namespace bench

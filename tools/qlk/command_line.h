// The command line: commands with their arguments, options and help. Nothing else knows the parser that stands behind it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace tool {

// A command's arguments and options. What is bound here has to live until the command line was parsed.
class Command {
 public:
  explicit Command(CLI::App *app) : app_(app) {}

  enum class Need { optional, required };

  void argument(const char *name, std::string &value, const char *text, Need need = Need::optional);
  // All that is left of the line.
  void arguments(const char *name, std::vector<std::string> &values, const char *text);

  // Options that take a value, which the help calls type. names is as in "-f,--file".
  void option(const char *names, const char *type, std::string &value, const char *text, Need need = Need::optional);
  void repeated(const char *names, const char *type, std::vector<std::string> &values, const char *text);
  void number(const char *names, const char *type, uint64_t &value, const char *text);
  void number(const char *names, const char *type, unsigned &value, const char *text);
  // A value outside of the range is wrong usage.
  void number(const char *names, const char *type, int &value, int lowest, int highest, const char *text);

  void flag(const char *names, bool &value, const char *text);
  // How often it was given.
  void counted_flag(const char *names, int &value, const char *text);
  // Both together are wrong usage.
  void exclude(const char *one, const char *other);

  // The options that follow come under this heading of the help.
  void begin_group(const char *heading);

 private:
  void add(CLI::Option *option, const char *type, Need need = Need::optional);

  CLI::App *app_;
};

class CommandLine {
 public:
  CommandLine(const char *description, const std::string &footer);
  ~CommandLine();
  CommandLine(const CommandLine &) = delete;
  CommandLine &operator=(const CommandLine &) = delete;

  // chosen is called by parse when the line names this command and is right.
  Command add(const std::string &name, const std::string &text, const std::string &footer, std::function<void()> chosen);

  // Prints help, version, or what is wrong with the line: then the result is the exit code.
  std::optional<int> parse(int argc, char **argv);

 private:
  std::unique_ptr<CLI::App> app_;
};

}  // namespace tool

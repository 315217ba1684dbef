#include "command_line.h"

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <numeric>
#include <utility>

#include "failure.h"
#include "terminal.h"
#include "text.h"

namespace tool {

namespace {

constexpr size_t kHelpWidth = 80;
constexpr size_t kHelpColumn = 26;

// "  left      description", with the description in a column of its own.
std::string help_entry(const std::string &left, const std::string &description) {
  std::string out = "  " + left;
  if (out.size() + 1 >= kHelpColumn) {
    out.append("\n").append(kHelpColumn, ' ');
  } else {
    out.append(kHelpColumn - out.size(), ' ');
  }
  return out.append(wrapped(description, kHelpColumn, kHelpColumn, kHelpWidth)).append("\n");
}

std::string usage_of(const CLI::App &app) {
  if (!app.get_subcommands({}).empty()) return "Usage: qlk COMMAND [OPTION...] [ARGUMENT...]";
  std::string usage = "Usage: qlk " + app.get_name() + " [OPTION...]";
  for (const CLI::Option *option : app.get_options()) {
    if (!option->get_positional()) continue;
    const std::string name = option->get_name(true) + (option->get_items_expected_max() > 1 ? "..." : "");
    usage.append(" ").append(option->get_required() ? name : "[" + name + "]");
  }
  return usage;
}

// Lays the help out in 80 columns.
class HelpFormatter : public CLI::Formatter {
 public:
  HelpFormatter() { label("REQUIRED", ""); }

  std::string make_help(const CLI::App *app, std::string, CLI::AppFormatMode) const override {
    std::string help = wrapped(app->get_description() + ".", 0, 0, kHelpWidth) + "\n\n" + usage_of(*app) + "\n";
    const auto section = [&](const std::string &title, const std::string &entries) {
      if (!entries.empty()) help.append("\n").append(title).append(":\n").append(entries);
    };
    std::string entries;
    for (const CLI::App *command : app->get_subcommands({})) {
      const std::string &text = command->get_description();
      entries += help_entry(command->get_name(), text.substr(0, text.find(". ")));
    }
    section("Commands", entries);
    std::vector<std::string> headings = {"Options"};  // and the others in the order in which they were begun
    std::string arguments;
    for (const CLI::Option *option : app->get_options()) {
      if (option->get_positional()) {
        arguments += make_option(option, true);
      } else if (std::find(headings.begin(), headings.end(), option->get_group()) == headings.end()) {
        headings.push_back(option->get_group());
      }
    }
    section("Arguments", arguments);
    for (const std::string &heading : headings) section(heading, options_of(*app, heading));
    return help + "\n" + app->get_footer() + "\n";
  }

  std::string make_option_opts(const CLI::Option *option) const override {
    return option->get_type_name().empty() ? "" : " " + option->get_type_name();
  }

  std::string make_option(const CLI::Option *option, bool is_positional) const override {
    std::string name = make_option_name(option, is_positional);
    if (!is_positional) {
      std::replace(name.begin(), name.end(), ',', ' ');
      if (const size_t blank = name.find(' '); blank != std::string::npos) name.insert(blank, ",");
      name += make_option_opts(option);
    }
    return help_entry(name, option->get_description());
  }

 private:
  std::string options_of(const CLI::App &app, const std::string &heading) const {
    std::string list;
    for (const CLI::Option *option : app.get_options()) {
      if (!option->get_positional() && option->get_group() == heading) list += make_option(option, false);
    }
    return list;
  }
};

std::string lower_first(std::string text) {
  if (text.size() > 1 && std::islower(static_cast<unsigned char>(text[1])) != 0) {
    text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
  }
  return text;
}

// How many letters have to be changed, added or left out.
size_t distance(const std::string &one, const std::string &other) {
  std::vector<size_t> row(other.size() + 1);
  std::iota(row.begin(), row.end(), size_t{0});
  for (size_t i = 1; i <= one.size(); ++i) {
    size_t diagonal = std::exchange(row[0], i);
    for (size_t j = 1; j <= other.size(); ++j) {
      const size_t replaced = diagonal + (one[i - 1] == other[j - 1] ? 0 : 1);
      diagonal = std::exchange(row[j], std::min({row[j] + 1, row[j - 1] + 1, replaced}));
    }
  }
  return row.back();
}

// The command that may have been meant; empty when none is near.
std::string meant_by(const CLI::App &app, const std::string &word) {
  std::string nearest;
  size_t least = 3;
  for (const CLI::App *command : app.get_subcommands({})) {
    const size_t far = distance(word, command->get_name());
    if (far < least && far < word.size()) {
      least = far;
      nearest = command->get_name();
    }
  }
  return nearest;
}

// What the parser says, in words of ours where its own are those of a programmer.
std::string text_of(const CLI::ParseError &error) {
  constexpr std::string_view kConversion = "Could not convert: ";
  const std::string text = error.what();
  const size_t equals = text.find(" = ");
  if (!text.starts_with(kConversion) || equals == std::string::npos) return lower_first(text);
  return "'" + text.substr(equals + 3) + "' is no value for " + text.substr(kConversion.size(), equals - kConversion.size());
}

int report_usage(const CLI::App &app, const CLI::ParseError &error, const char *first) {
  if (error.get_exit_code() == 0) {
    std::fputs(app.help().c_str(), stdout);
    return 0;
  }
  const auto chosen = app.get_subcommands();
  const std::string word = first != nullptr ? first : "";
  const std::string see = "See: qlk " + (chosen.empty() ? "" : chosen.front()->get_name() + " ") + "--help";
  if (word.empty()) {
    complain("which command?", see);
  } else if (word.front() == '-' && word != "--help") {
    complain(text_of(error), "Options stand after the command: qlk COMMAND " + word);
  } else if (chosen.empty()) {
    const std::string meant = meant_by(app, word);
    complain("there is no command '" + word + "'" + (meant.empty() ? "" : "; is it '" + meant + "'?"), see);
  } else {
    complain(text_of(error), see);
  }
  return static_cast<int>(ExitCode::usage);
}

}  // namespace

void Command::add(CLI::Option *option, const char *type, Need need) {
  option->type_name(type);
  option->required(need == Need::required);
}

void Command::argument(const char *name, std::string &value, const char *text, Need need) {
  add(app_->add_option(name, value, text), "", need);
}

void Command::arguments(const char *name, std::vector<std::string> &values, const char *text) {
  add(app_->add_option(name, values, text), "");
}

void Command::option(const char *names, const char *type, std::string &value, const char *text, Need need) {
  add(app_->add_option(names, value, text), type, need);
}

void Command::repeated(const char *names, const char *type, std::vector<std::string> &values, const char *text) {
  add(app_->add_option(names, values, text)->expected(1)->take_all()->allow_extra_args(false), type);
}

void Command::number(const char *names, const char *type, uint64_t &value, const char *text) {
  add(app_->add_option(names, value, text), type);
}

void Command::number(const char *names, const char *type, unsigned &value, const char *text) {
  add(app_->add_option(names, value, text), type);
}

void Command::number(const char *names, const char *type, int &value, int lowest, int highest, const char *text) {
  add(app_->add_option(names, value, text)->check(CLI::Range(lowest, highest).description("")), type);
}

void Command::flag(const char *names, bool &value, const char *text) { app_->add_flag(names, value, text); }

void Command::counted_flag(const char *names, int &value, const char *text) { app_->add_flag(names, value, text); }

void Command::exclude(const char *one, const char *other) { app_->get_option(one)->excludes(app_->get_option(other)); }

void Command::begin_group(const char *heading) { app_->option_defaults()->group(heading); }

CommandLine::CommandLine(const char *description, const std::string &footer)
    : app_(std::make_unique<CLI::App>(description, "qlk")) {
  app_->formatter(std::make_shared<HelpFormatter>());
  app_->set_help_flag("-h,--help", "Print this text and end");
  app_->set_version_flag("--version", QLK_VERSION, "Print the version and end");
  app_->require_subcommand(1);
  app_->footer(footer);
}

CommandLine::~CommandLine() = default;

Command CommandLine::add(const std::string &name, const std::string &text, const std::string &footer,
                         std::function<void()> chosen) {
  CLI::App *command = app_->add_subcommand(name, text);
  command->footer(footer);
  command->callback(std::move(chosen));
  return Command(command);
}

std::optional<int> CommandLine::parse(int argc, char **argv) {
  try {
    app_->parse(argc, argv);
    return std::nullopt;
  } catch (const CLI::CallForVersion &) {
    std::puts("qlk " QLK_VERSION);
    return 0;
  } catch (const CLI::ParseError &error) {
    return report_usage(*app_, error, argc > 1 ? argv[1] : nullptr);
  }
}

}  // namespace tool

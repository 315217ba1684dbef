#include "options.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>

#include "certificates.h"
#include "terminal.h"
#include "text.h"

namespace tool {

namespace {

constexpr int kDefaultTimeoutSeconds = 15;
constexpr int kPromptTries = 3;
constexpr size_t kHelpWidth = 80;
constexpr size_t kHelpColumn = 26;
constexpr size_t kPassphraseBytesMax = 4096;

void override_text(std::string &value, const std::string &option) {
  if (!option.empty()) value = option;
}

// The first line.
Secret read_passphrase(int descriptor, const std::string &origin, const Stop &stop) {
  std::string text;
  text.reserve(kPassphraseBytesMax);
  char character = 0;
  for (;;) {
    pollfd waited[] = {{descriptor, POLLIN, 0}, {stop.descriptor(), POLLIN, 0}};
    poll(waited, 2, -1);
    stop.check();
    if (waited[0].revents == 0) continue;
    const ssize_t got = read(descriptor, &character, 1);
    if (got < 0) throw Failure(ExitCode::usage, "no pass phrase can be read from " + origin + ": " + std::strerror(errno));
    if (got == 0 || character == '\n' || text.size() == kPassphraseBytesMax) break;
    text += character;
  }
  if (text.empty()) throw Failure(ExitCode::usage, "there is no pass phrase in " + origin);
  return Secret(std::move(text));
}

void expect_readable(const std::string &what, const std::string &path) {
  const std::ifstream file(path);
  if (!file) throw Failure(ExitCode::usage, "the " + what + " " + path + " cannot be read: " + std::strerror(errno));
}

void expect_complete(const Settings &settings, Needs needs) {
  const std::string missing = missing_settings(settings.values, needs);
  if (missing.empty()) return;
  if (!settings.profile_path.empty()) {
    throw Failure(ExitCode::usage, "the profile " + settings.profile_path + " does not tell: " + missing,
                  "Add it there, or give it as an option, such as --host 127.0.0.1:5222");
  }
  const std::string path = default_profile_path();
  throw Failure(ExitCode::usage, "there is no profile" + (path.empty() ? "" : " " + path) + ", and no option for: " + missing,
                "'quillon-grid enroll USER' writes one; name it with --profile FILE.");
}

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

void add_connection_options(CLI::App &command, ConnectionOptions &options) {
  const auto in_group = [](CLI::Option *option) { return option->group("Connection"); };
  in_group(command
               .add_option("--profile", options.profile,
                           "The file with the settings (default: $QLK_PROFILE, else ~/.config/qlk/profile.toml); the "
                           "options below go before it")
               ->type_name("FILE"));
  in_group(command.add_option("--host", options.hosts, "Where the grid's server is; several are tried in turn")
               ->type_name("HOST[:PORT]")
               ->expected(1)
               ->take_all());
  in_group(command.add_option("--user", options.user, "The user's name in the grid")->type_name("NAME"));
  in_group(command.add_option("--certificate", options.certificate, "The user's certificate, with its chain, in PEM")
               ->type_name("FILE"));
  in_group(command.add_option("--key", options.key, "The certificate's private key in PEM")->type_name("FILE"));
  in_group(command.add_option("--ca", options.ca, "The authorities that vouch for the server, in PEM")->type_name("FILE"));
  in_group(command
               .add_option("--passphrase-fd", options.passphrase_fd,
                           "Read the key's pass phrase from this file descriptor; without it from the profile's "
                           "passphrase_file, else it is asked for")
               ->type_name("N")
               ->check(CLI::Range(0, 65535).description("")));
  in_group(command.add_option("--group", options.groups, "A group to name to the controller; may be repeated")
               ->type_name("NAME")
               ->expected(1)
               ->take_all());
  in_group(command.add_option("--description", options.description, "What administrators see when the user registers")
               ->type_name("TEXT"));
  in_group(command.add_option("--timeout", options.timeout_seconds, "How long to wait for each answer (default: 15)")
               ->type_name("SECONDS")
               ->check(CLI::Range(1, 86400).description("")));
  in_group(command.add_flag("-v,--verbose", options.verbosity, "Show the library's log; twice: also the stanzas that arrive"));
}

}  // namespace

HelpFormatter::HelpFormatter() { label("REQUIRED", ""); }

std::string HelpFormatter::make_help(const CLI::App *app, std::string, CLI::AppFormatMode) const {
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
  const auto options_of = [&](const std::string &group, bool is_positional) {
    std::string list;
    for (const CLI::Option *option : app->get_options()) {
      if (option->get_group() == group && option->get_positional() == is_positional) list += make_option(option, is_positional);
    }
    return list;
  };
  section("Arguments", options_of("Options", true));
  section("Options", options_of("Options", false));
  section("Connection", options_of("Connection", false));
  return help + "\n" + app->get_footer() + "\n";
}

std::string HelpFormatter::make_option_opts(const CLI::Option *option) const {
  return option->get_type_name().empty() ? "" : " " + option->get_type_name();
}

std::string HelpFormatter::make_option(const CLI::Option *option, bool is_positional) const {
  std::string name = make_option_name(option, is_positional);
  if (!is_positional) {
    std::replace(name.begin(), name.end(), ',', ' ');
    if (const size_t blank = name.find(' '); blank != std::string::npos) name.insert(blank, ",");
    name += make_option_opts(option);
  }
  return help_entry(name, option->get_description());
}

Settings merge_settings(const ConnectionOptions &options) {
  Settings settings;
  const std::string path = options.profile.empty() ? default_profile_path() : options.profile;
  const bool is_named = !options.profile.empty() || std::getenv("QLK_PROFILE") != nullptr;
  if (!path.empty() && (is_named || access(path.c_str(), F_OK) == 0)) {
    settings.values = read_profile(path);
    settings.profile_path = path;
  }
  Profile &values = settings.values;
  if (!options.hosts.empty()) values.hosts = options.hosts;
  if (!options.groups.empty()) values.groups = options.groups;
  override_text(values.user, options.user);
  override_text(values.certificate, options.certificate);
  override_text(values.key, options.key);
  override_text(values.ca, options.ca);
  override_text(values.description, options.description);
  if (options.timeout_seconds > 0) values.timeout_seconds = options.timeout_seconds;
  if (values.timeout_seconds == 0) values.timeout_seconds = kDefaultTimeoutSeconds;
  return settings;
}

bool obtain_passphrase(const ConnectionOptions &options, const Stop &stop, Settings &settings) {
  if (options.passphrase_fd >= 0) {
    settings.passphrase =
        read_passphrase(options.passphrase_fd, "file descriptor " + std::to_string(options.passphrase_fd), stop);
    return false;
  }
  const std::string &path = settings.values.passphrase_file;
  if (!path.empty()) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) throw Failure(ExitCode::usage, "the pass phrase's file " + path + " cannot be read: " + std::strerror(errno));
    settings.passphrase = read_passphrase(file.get(), path, stop);
    return false;
  }
  settings.passphrase = Secret(ask_secret("Pass phrase of " + settings.values.key, stop));
  return true;
}

std::string missing_settings(const Profile &values, Needs needs) {
  std::string missing;
  const auto need = [&](bool is_there, const char *option) {
    if (!is_there) missing.append(missing.empty() ? "" : ", ").append(option);
  };
  need(needs == Needs::user || !values.hosts.empty(), "hosts");
  need(!values.user.empty(), "user");
  need(!values.certificate.empty(), "certificate");
  need(!values.key.empty(), "key");
  need(!values.ca.empty(), "ca");
  return missing;
}

Settings complete_settings(const ConnectionOptions &options, const Stop &stop, Needs needs) {
  Settings settings = merge_settings(options);
  expect_complete(settings, needs);
  const Profile &values = settings.values;
  expect_readable("certificate", values.certificate);
  expect_readable("key", values.key);
  expect_readable("CA file", values.ca);
  if (!is_encrypted_key(values.key)) return settings;
  for (int tries = 1;; ++tries) {
    const bool was_asked = obtain_passphrase(options, stop, settings);
    if (load_key(values.key, settings.passphrase) != nullptr) return settings;
    if (!was_asked || tries == kPromptTries) {
      throw Failure(ExitCode::usage, "the pass phrase does not open the key " + values.key);
    }
    note("this does not open the key; once more");
  }
}

CLI::App *add_command(CLI::App &app, Context &context, const std::string &name, const std::string &text,
                      const std::string &examples, std::function<ExitCode(Stop &)> body) {
  CLI::App *command = app.add_subcommand(name, text);
  command->footer("Examples:\n" + examples + "\n\n" + kExitCodes);
  command->callback([&context, body = std::move(body)] { context.run = body; });
  add_connection_options(*command, context.connection);
  return command;
}

}  // namespace tool

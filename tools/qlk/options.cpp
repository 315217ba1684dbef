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

// The library would log a key that is not the certificate's and go on without showing either; the server's answer to that tells
// nobody what is wrong.
void expect_matching(const Profile &values, const Secret &passphrase) {
  const std::vector<Certificate> chain = load_certificates(values.certificate);
  const Key key = load_key(values.key, passphrase);
  if (chain.empty() || key == nullptr || X509_check_private_key(chain.front().get(), key.get()) == 1) return;
  throw Failure(ExitCode::usage, "the key " + values.key + " does not belong to the certificate " + values.certificate,
                "'qlk doctor' says what is wrong and how to mend it.");
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

void add_connection_options(Command &command, ConnectionOptions &options) {
  command.option(
      "--profile", "FILE", options.profile,
      "The file with the settings (default: $QLK_PROFILE, else ~/.config/qlk/profile.toml); the options below override it");
  command.repeated("--host", "HOST[:PORT]", options.hosts, "Where the grid's server is; several are tried in turn");
  command.flag("--race-hosts", options.races_hosts, "Dial all hosts in a race, and take the first that answers");
  command.option("--user", "NAME", options.user, "The user's name in the grid");
  command.option("--certificate", "FILE", options.certificate, "The user's certificate, with its chain, in PEM");
  command.option("--key", "FILE", options.key, "The certificate's private key in PEM");
  command.option("--ca", "FILE", options.ca, "The authorities that vouch for the server, in PEM");
  command.option("--crl", "FILE", options.crl, "Lists of revoked certificates in PEM: a server that is listed is refused");
  command.number(
      "--passphrase-fd", "N", options.passphrase_fd, 0, 65535,
      "Read the key's pass phrase from this file descriptor; without it from the profile's passphrase_file, else it is "
      "asked for");
  command.repeated("--group", "NAME", options.groups, "A group to name to the controller; may be repeated");
  command.option("--description", "TEXT", options.description, "What administrators see when the user registers");
  command.option("--sasl-response", "WHAT", options.sasl_response,
                 "What SASL EXTERNAL tells the server: user-name, bare-jid or none (default: user-name)");
  command.number("--timeout", "SECONDS", options.timeout_seconds, 1, 86400, "How long to wait for each answer (default: 15)");
  command.flag("--trace", options.traces, "Show each stanza on standard error, > sent and < received, with its secrets hidden");
  command.option("--tls-key-log", "FILE", options.tls_key_log,
                 "Append the keys of the TLS sessions to this file, for programs that decode captured traffic: keep it secret");
  command.counted_flag("-v,--verbose", options.verbosity, "Show the library's log; twice: also the stanzas that arrive");
}

}  // namespace

Settings merge_settings(const ConnectionOptions &options) {
  Settings settings;
  settings.tls_key_log = options.tls_key_log;
  settings.traces = options.traces;
  const std::string path = options.profile.empty() ? default_profile_path() : options.profile;
  const char *variable = std::getenv("QLK_PROFILE");
  const bool is_named = !options.profile.empty() || (variable != nullptr && *variable != '\0');
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
  override_text(values.crl, options.crl);
  override_text(values.description, options.description);
  override_text(values.sasl_response, options.sasl_response);
  settings.races_hosts = options.races_hosts;
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
  if (!values.crl.empty()) expect_readable("file of revocations", values.crl);
  const bool is_encrypted = is_encrypted_key(values.key);
  for (int tries = 1; is_encrypted; ++tries) {
    const bool was_asked = obtain_passphrase(options, stop, settings);
    if (load_key(values.key, settings.passphrase) != nullptr) break;
    if (!was_asked || tries == kPromptTries) {
      throw Failure(ExitCode::usage, "the pass phrase does not open the key " + values.key);
    }
    note("this does not open the key; once more");
  }
  expect_matching(values, settings.passphrase);
  return settings;
}

void add_reconnection_options(Command &command, Reconnecting &options) {
  command.flag("--reconnect", options.is_wanted, "Open the session again when it is lost");
  command.number("--reconnect-pause", "SECONDS", options.longest_pause_seconds, 1, 86400,
                 "Before each attempt pause for a random part of a time that doubles from a second up to this (default: not at "
                 "random, up to 30)");
}

Command add_command(CommandLine &line, Context &context, const std::string &name, const std::string &text,
                    const std::string &examples, std::function<ExitCode(Stop &)> body) {
  Command command = line.add(name, text, "Examples:\n" + examples + "\n\n" + kExitCodes,
                             [&context, body = std::move(body)] { context.run = body; });
  command.begin_group("Connection");
  add_connection_options(command, context.connection);
  command.begin_group("Options");
  return command;
}

}  // namespace tool

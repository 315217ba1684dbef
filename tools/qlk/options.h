// The options that every command shares, and the settings that come of them and of the profile.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "command_line.h"
#include "failure.h"
#include "profile.h"
#include "secret.h"
#include "stop.h"

namespace tool {

struct ConnectionOptions {
  std::string profile, user, certificate, key, ca, crl, description, sasl_response, tls_key_log;
  std::vector<std::string> hosts, groups;
  bool races_hosts = false;
  int passphrase_fd = -1;
  int timeout_seconds = 0;
  int verbosity = 0;
  bool traces = false;
};

struct Settings {
  std::string profile_path;  // empty: none was read
  Profile values;
  bool races_hosts = false;
  Secret passphrase;
  std::string tls_key_log;  // empty: none is written
  bool traces = false;
};

// What becomes of a session that was lost.
struct Reconnecting {
  bool is_wanted = false;
  int longest_pause_seconds = 0;  // each pause is a random part of its time; 0: as long as it is, and 30 s at most
};

// What the commands share. The one that was named puts itself into run.
struct Context {
  ConnectionOptions connection;
  std::function<ExitCode(Stop &)> run;
};

// The profile with the options over it; nothing is checked but that the profile can be read.
Settings merge_settings(const ConnectionOptions &options);

// The same, complete: whatever is needed is there, and the key can be opened; the pass phrase is asked for where it has
// to be. Throws Failure naming what is missing.
enum class Needs { user, user_and_hosts };
Settings complete_settings(const ConnectionOptions &options, const Stop &stop, Needs needs = Needs::user_and_hosts);

// What the settings lack, as a list; empty when nothing is missing.
std::string missing_settings(const Profile &values, Needs needs);

// The pass phrase from the file descriptor, the profile's file, or the terminal. True when it came from the terminal.
bool obtain_passphrase(const ConnectionOptions &options, const Stop &stop, Settings &settings);

void add_reconnection_options(Command &command, Reconnecting &options);

// A command with its text, its examples and the options of the connection. body is run once everything is parsed.
Command add_command(CommandLine &line, Context &context, const std::string &name, const std::string &text,
                    const std::string &examples, std::function<ExitCode(Stop &)> body);

}  // namespace tool

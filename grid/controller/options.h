// The command line of the controller.
#pragma once

#include <string>
#include <vector>

namespace controller {

struct Options {
  std::string domain = QLK_GRID_DOMAIN;
  std::vector<std::string> hosts;        // the XMPP servers, name:port, tried in turn
  std::string ca, certificate, key;      // PEM files
  std::string database, control_socket;  // paths
  bool approves_new_accounts = true;     // else an administrator does
  bool verbose = false;

  std::string bare_jid() const { return "controller@" + domain; }
  std::string jid() const { return bare_jid() + "/qlk"; }
  std::string pubsub_jid() const { return "pubsub." + domain; }
};

// False when the arguments are wrong, which has then been told on standard error.
bool read_options(int argc, char **argv, Options &options);

}  // namespace controller

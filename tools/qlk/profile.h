// Who the user is and where the grid is: a TOML file that quillon-grid writes at enrolment.
#pragma once

#include <string>
#include <vector>

namespace tool {

// Paths are absolute, or relative to where the program runs; what is empty was not given.
struct Profile {
  std::vector<std::string> hosts, groups;
  std::string user, certificate, key, ca, crl, passphrase_file, description, sasl_response, capability_namespace;
  std::string bulk_url, bulk_ca;
  int timeout_seconds = 0;
};

// $QLK_PROFILE, else qlk/profile.toml in $XDG_CONFIG_HOME or ~/.config. Empty when there is no home either.
std::string default_profile_path();

// Reads the file; paths in it are relative to its folder. Throws Failure naming the line that is wrong.
Profile read_profile(const std::string &path);

}  // namespace tool

// What the tour needs of the local grid: where it is, and its administrator's commands.
#pragma once

#include <string>

namespace tour {

class Grid {
 public:
  // command is the path of quillon-grid, folder that of a grid which is up.
  Grid(std::string command, std::string folder);

  // Runs an administrator's command, such as "approve bob", and returns what it prints, without the last line's end; ends the
  // program when it fails.
  std::string administrate(const std::string &arguments) const;

  const std::string &command() const { return command_; }
  const std::string &folder() const { return folder_; }
  std::string host() const { return value("QUILLON_GRID_HOST"); }
  std::string bulk_url() const { return value("QUILLON_GRID_BULK_URL"); }
  std::string ca() const { return value("QUILLON_GRID_CA"); }
  std::string certificate(const std::string &user) const { return folder_ + "/users/" + user + "/certificate.pem"; }
  std::string key(const std::string &user) const { return folder_ + "/users/" + user + "/key.pem"; }

 private:
  std::string run(const std::string &arguments) const;
  std::string value(const std::string &name) const;

  const std::string command_, folder_;
  std::string environment_;  // NAME=value lines
};

}  // namespace tour

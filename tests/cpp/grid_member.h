// Members of a local grid, by the C++ layer.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <quillon.hpp>
#include <string>

#include "local_grid.h"

namespace test_support {

inline quillon::config config_of(LocalGrid &grid, const std::string &user,
                                 std::chrono::milliseconds send_timeout = std::chrono::seconds(15)) {
  const LocalGrid::Credentials credentials = grid.enroll(user);
  quillon::config made = quillon::config::create({.hosts = {grid.host()},
                                                  .user = user,
                                                  .certificate = credentials.certificate,
                                                  .key = credentials.key,
                                                  .server_ca = grid.ca_path(),
                                                  .bulk_server_ca = grid.ca_path(),
                                                  .send_timeout = send_timeout})
                             .value();
  quillon_log_set_level(QUILLON_LOG_NONE);
  return made;
}

inline quillon::connection connection_of(LocalGrid &grid, const std::string &user,
                                         std::chrono::milliseconds send_timeout = std::chrono::seconds(15)) {
  return quillon::connection::create(config_of(grid, user, send_timeout)).value();
}

inline quillon::capability weather() { return quillon::capability::create("urn:weather", "Weather").value(); }

}  // namespace test_support

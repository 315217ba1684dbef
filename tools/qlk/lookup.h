// qlk capabilities and qlk status: what the grid offers.
#pragma once

#include "options.h"
#include "session.h"

namespace tool {

// What the controller knows of one capability.
struct Definition {
  std::string name, version, description, platform, status, publishers, subscribers;
  std::vector<std::string> queries, actions;
};

// Throws Failure when the controller does not know the capability. version may be empty: any.
Definition look_up(Session &session, const std::string &name, const std::string &version);

void add_capabilities_command(CommandLine &line, Context &context);
void add_status_command(CommandLine &line, Context &context);

}  // namespace tool

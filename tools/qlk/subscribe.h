// qlk subscribe: prints notifications as they come.
#pragma once

#include "options.h"

namespace tool {

void add_subscribe_command(CLI::App &app, Context &context);

}  // namespace tool

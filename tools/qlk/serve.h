// qlk serve: answers queries.
#pragma once

#include "options.h"

namespace tool {

void add_serve_command(CLI::App &app, Context &context);

}  // namespace tool

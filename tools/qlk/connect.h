// qlk connect: joins the grid and tells each step.
#pragma once

#include "options.h"

namespace tool {

void add_connect_command(CLI::App &app, Context &context);

}  // namespace tool

// qlk connect: joins the grid and tells each step.
#pragma once

#include "options.h"

namespace tool {

void add_connect_command(CommandLine &line, Context &context);

}  // namespace tool

// qlk top: what a connection of its own counts, live.
#pragma once

#include "options.h"

namespace tool {

void add_top_command(CommandLine &line, Context &context);

}  // namespace tool

// qlk propose and qlk modify: what a capability is.
#pragma once

#include "options.h"

namespace tool {

void add_define_commands(CommandLine &line, Context &context);

}  // namespace tool

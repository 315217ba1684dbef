// qlk query: asks a publisher of a capability.
#pragma once

#include "options.h"

namespace tool {

void add_query_command(CommandLine &line, Context &context);

}  // namespace tool

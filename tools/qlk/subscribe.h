// qlk subscribe: prints notifications as they come.
#pragma once

#include "options.h"

namespace tool {

void add_subscribe_command(CommandLine &line, Context &context);

}  // namespace tool

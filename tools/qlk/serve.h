// qlk serve: answers queries.
#pragma once

#include "options.h"

namespace tool {

void add_serve_command(CommandLine &line, Context &context);

}  // namespace tool

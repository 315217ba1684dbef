// qlk bulk: downloads a large document item by item.
#pragma once

#include "options.h"

namespace tool {

void add_bulk_command(CommandLine &line, Context &context);

}  // namespace tool

// qlk authorized and qlk token: what a user may do, and who he is.
#pragma once

#include "options.h"

namespace tool {

void add_authorized_command(CommandLine &line, Context &context);
void add_token_command(CommandLine &line, Context &context);

}  // namespace tool

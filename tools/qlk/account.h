// qlk authorized and qlk token: what a user may do, and who he is.
#pragma once

#include "options.h"

namespace tool {

void add_authorized_command(CLI::App &app, Context &context);
void add_token_command(CLI::App &app, Context &context);

}  // namespace tool

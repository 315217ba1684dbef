// qlk publish: sends notifications.
#pragma once

#include "options.h"

namespace tool {

void add_publish_command(CLI::App &app, Context &context);

}  // namespace tool

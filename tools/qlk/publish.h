// qlk publish: sends notifications.
#pragma once

#include "options.h"

namespace tool {

void add_publish_command(CommandLine &line, Context &context);

}  // namespace tool

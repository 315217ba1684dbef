// qlk doctor: looks at everything that a connection needs, one by one.
#pragma once

#include "options.h"

namespace tool {

void add_doctor_command(CommandLine &line, Context &context);

}  // namespace tool

#pragma once

#include "quillon.h"

namespace qlk {

// The texts by status value; null until the first question builds it. Lives until the process ends.
extern wb_htable *map_of_status_to_message;

// Builds the table unless it is there. On failure false and the filled error; the table keeps what was inserted before. The
// caller holds the lock of the table and logs the error once it has let go of it.
bool _init(wb_err *err);

}  // namespace qlk

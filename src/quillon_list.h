#pragma once

#include "quillon.h"

namespace qlk {

// A node that holds the element and has no successor; null when memory is exhausted. The caller frees it.
_node *createnode(void *data);

}  // namespace qlk

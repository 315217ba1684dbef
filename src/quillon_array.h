#pragma once

#include "quillon.h"

namespace qlk {

// As quillon_array_add, telling whether the item was stored; when not, it stays the caller's.
bool array_add(quillon_array *array, void *item);

}  // namespace qlk

#pragma once

#include "quillon.h"

namespace qlk {

// As quillon_queue_push, telling whether the item was queued; when memory is exhausted it was not and stays the caller's.
bool queue_push(quillon_queue *queue, void *item);

}  // namespace qlk

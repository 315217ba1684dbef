// The thread that keeps a connection up.
#pragma once

#include <atomic>

#include "quillon.h"

namespace qlk {

// Seconds from the end of one attempt to the next; 60 but for tests.
extern std::atomic<int> reconnection_wait_seconds;

}  // namespace qlk

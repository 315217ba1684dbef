// Linked into the reconnecting clients, which then look every second and not every minute.
#include "quillon_reconnection.h"

namespace {

[[maybe_unused]] const bool is_impatient = [] {
  qlk::reconnection_wait_seconds = 1;
  return true;
}();

}  // namespace

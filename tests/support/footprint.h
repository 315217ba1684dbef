// What the process holds, for tests that nothing is left behind.
#pragma once

#include <cstddef>

namespace test_support {

struct Footprint {
  size_t threads, descriptors, resident_kib;
};
Footprint footprint();

}  // namespace test_support

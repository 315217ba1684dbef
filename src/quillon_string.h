#pragma once

#include "quillon.h"

namespace qlk {

// The longest text, in bytes, that one operation creates, assigns or appends.
constexpr size_t kStringLengthMax = 65536;

constexpr bool string_length_ok(size_t length) { return length >= 1 && length <= kStringLengthMax; }

}  // namespace qlk

#pragma once

#include "quillon.h"

namespace qlk {

// The log function in force until the application sets one: prints to standard error, adding nothing.
int _default_log_cb(const char *format, va_list args) __attribute__((format(printf, 1, 0)));

}  // namespace qlk

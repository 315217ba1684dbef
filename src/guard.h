// The one place where C++ exceptions end: every exported function runs its body through a guard, so that none crosses the C
// boundary.
#pragma once

#include <cxxabi.h>

#include <new>
#include <utility>

#include "quillon.h"

namespace qlk {

// Logs the trace line with which every public operation begins.
inline void trace(const char *operation) { wb_log(WB_LOG_TRACE, "->: %s", operation); }

// Logs why the arguments are refused and returns the status for it.
inline QUILLON_STATUS refuse(const char *message) {
  wb_log(WB_LOG_ERROR, "%s", message);
  return QUILLON_STATUS_INVALID_ARGS;
}

// Logs that the operation lacks memory and returns the status for it.
inline QUILLON_STATUS out_of_memory(const char *operation) {
  wb_log(WB_LOG_ERROR, "%s: out of memory", operation);
  return QUILLON_STATUS_MALLOC_ERROR;
}

// Runs the body of an exported function that returns a status.
template <typename Body>
QUILLON_STATUS guarded(const char *where, Body &&body) {
  try {
    return std::forward<Body>(body)();
  } catch (const abi::__forced_unwind &) {
    throw;  // the application cancels its own thread in here: let the stack unwind
  } catch (const std::bad_alloc &) {
    return out_of_memory(where);
  } catch (...) {
    wb_log(WB_LOG_ERROR, "%s: unexpected exception", where);
    return QUILLON_STATUS_UNKNOWN;
  }
}

// Runs the body of an exported function that returns anything else, or nothing; fallback is returned when the body throws.
template <typename Result, typename Body>
Result guarded_or(const char *where, Result fallback, Body &&body) {
  Result result = fallback;
  guarded(where, [&]() -> QUILLON_STATUS {
    result = std::forward<Body>(body)();
    return QUILLON_STATUS_OK;
  });
  return result;
}

template <typename Body>
void guarded_void(const char *where, Body &&body) {
  guarded(where, [&]() -> QUILLON_STATUS {
    std::forward<Body>(body)();
    return QUILLON_STATUS_OK;
  });
}

}  // namespace qlk

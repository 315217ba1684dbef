// How Warbler's functions fail: a filled error record and false, and the one place where C++ exceptions end.
#pragma once

#include <warbler/err.h>

#include <cxxabi.h>

#include <new>
#include <utility>

namespace wb {

// Fills err, if there is one, and returns false. message is a constant text; NULL takes the code's own.
bool fail(wb_err *err, wb_errcode code, const char *message, const char *function, const char *file, unsigned line);

// Runs the body of an exported function, which returns bool. An exception becomes an error record; the unwinding of a cancelled
// thread goes on.
template <typename Body>
bool guarded(wb_err *err, const char *where, Body &&body) {
  try {
    return std::forward<Body>(body)();
  } catch (const abi::__forced_unwind &) {
    throw;
  } catch (const std::bad_alloc &) {
    return fail(err, WB_ERR_NO_MEMORY, nullptr, where, __FILE__, __LINE__);
  } catch (...) {
    return fail(err, WB_ERR_INVALID_STATE, "unexpected exception", where, __FILE__, __LINE__);
  }
}

}  // namespace wb

// Fills err with this place in the source and yields false.
#define WB_FAIL(err, code, message) ::wb::fail((err), (code), (message), __func__, __FILE__, __LINE__)

// Where C++ meets the callbacks of C libraries.
#pragma once

#include <warbler/log.h>

#include <exception>
#include <memory>
#include <utility>

namespace controller {

// Runs the body of a callback. What it throws ends here, as a line in the log, because no exception may cross a C library.
template <typename Body>
void contained(const char *where, Body &&body) {
  try {
    std::forward<Body>(body)();
  } catch (const std::exception &error) {
    wb_log(WB_LOG_ERROR, "%s: %s", where, error.what());
  }
}

// An owner of a C object, by the function that ends it.
template <auto end>
struct Ended {
  template <typename Object>
  void operator()(Object *object) const {
    end(object);
  }
};
template <typename Object, auto end>
using Owner = std::unique_ptr<Object, Ended<end>>;

}  // namespace controller

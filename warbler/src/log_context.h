// The nested diagnostic context: which connection the current thread is working for, shown as a prefix of its log records when
// switched on.
#pragma once

#include <warbler/log.h>

namespace wb {

// True when a record of this level passes: a load and a branch, for callers that would have to prepare arguments.
bool log_passes(wb_log_level level);

// Names the context of the current thread until the object goes; name must outlive it.
class LogContext {
 public:
  explicit LogContext(const char *name);
  ~LogContext();
  LogContext(const LogContext &) = delete;
  LogContext &operator=(const LogContext &) = delete;

 private:
  const char *outer_;
};

}  // namespace wb

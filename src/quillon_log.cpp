#include "quillon_log.h"

#include <atomic>

#include "guard.h"

quillon_log qlnlog = {qlk::_default_log_cb, QUILLON_LOG_INFO};

namespace {

// The application may change the settings while other threads log; each is a plain field of a public record, so the access is
// made atomic here.
std::atomic_ref<quillon_log_cb> current_callback() { return std::atomic_ref<quillon_log_cb>(qlnlog.log_cb); }
std::atomic_ref<QUILLON_LOG_LEVEL> current_level() { return std::atomic_ref<QUILLON_LOG_LEVEL>(qlnlog.loglevel); }

wb_log_level to_warbler_level(QUILLON_LOG_LEVEL level) {
  switch (level) {
    case QUILLON_LOG_NONE:
      return WB_LOG_NONE;
    case QUILLON_LOG_ERROR:
      return WB_LOG_ERROR;
    case QUILLON_LOG_WARN:
      return WB_LOG_WARN;
    case QUILLON_LOG_INFO:
      return WB_LOG_INFO;
    case QUILLON_LOG_VERBOSE:
      return WB_LOG_VERBOSE;
    case QUILLON_LOG_DEBUG:
      return WB_LOG_DEBUG;
  }
  return WB_LOG_INFO;
}

}  // namespace

int qlk::_default_log_cb(const char *format, va_list args) { return vfprintf(stderr, format, args); }

int quillon_log_callback(FILE * /*stream*/, const char *format, va_list args) {
  const quillon_log_cb callback = current_callback().load(std::memory_order_relaxed);
  return callback != nullptr ? callback(format, args) : qlk::_default_log_cb(format, args);
}

QUILLON_STATUS quillon_log_set_callback(quillon_log_cb callback) {
  qlk::trace(__func__);
  current_callback().store(callback != nullptr ? callback : qlk::_default_log_cb, std::memory_order_relaxed);
  return QUILLON_STATUS_OK;
}

QUILLON_STATUS quillon_log_set_level(QUILLON_LOG_LEVEL level) {
  qlk::trace(__func__);
  current_level().store(level, std::memory_order_relaxed);
  wb_log_set_level(to_warbler_level(level));
  return QUILLON_STATUS_OK;
}

void quillon_log_initialize(void) {
  qlk::trace(__func__);
  wb_log_set_function(quillon_log_callback);
  quillon_log_set_level(current_level().load(std::memory_order_relaxed));
}

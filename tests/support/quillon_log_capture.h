// A log capture that holds when libqlk installs its own log function, as creating a configuration does. Header only: the suites
// of Warbler link the helpers without libqlk.
#pragma once

#include <algorithm>

#include "log_capture.h"
#include "quillon.h"

namespace test_support {

class QuillonLogCapture : public LogCapture {
 public:
  // WB_LOG_TRACE lasts until the next quillon_config_create, quillon_log_initialize or quillon_log_set_level: libqlk's scale ends
  // at debug.
  explicit QuillonLogCapture(wb_log_level level = WB_LOG_DEBUG) : LogCapture(level), previous_(qlnlog) {
    quillon_log_set_callback(LogCapture::receive);
    quillon_log_set_level(static_cast<QUILLON_LOG_LEVEL>(std::min(level, WB_LOG_DEBUG)));
    wb_log_set_level(level);
    clear();
  }
  ~QuillonLogCapture() {
    quillon_log_set_callback(previous_.log_cb);
    quillon_log_set_level(previous_.loglevel);
  }

 private:
  const quillon_log previous_;
};

}  // namespace test_support

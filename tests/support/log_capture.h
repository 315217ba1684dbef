// Collects what the logger writes, so that a test can say which records it expects.
#pragma once

#include <stdarg.h>
#include <warbler/log.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace test_support {

// While it lives, the records up to the level go into it instead of to standard error. One at a time in a process; any thread may
// log. Tests of libqlk take QuillonLogCapture, since creating a configuration installs libqlk's own log function.
class LogCapture {
 public:
  explicit LogCapture(wb_log_level level = WB_LOG_DEBUG);
  ~LogCapture();
  LogCapture(const LogCapture &) = delete;
  LogCapture &operator=(const LogCapture &) = delete;

  std::vector<std::string> records() const;
  size_t count(std::string_view part) const;        // records that contain the text
  size_t count_exact(std::string_view text) const;  // records that are the text
  bool contains(std::string_view part) const { return count(part) != 0; }
  std::string all() const;  // every record on a line of its own, for failure messages
  void clear();

  // Adds a formatted record to the capture that lives now; drops it when there is none.
  static int receive(const char *format, va_list args) __attribute__((format(printf, 1, 0)));

 private:
  wb_log_level previous_level_;
};

}  // namespace test_support

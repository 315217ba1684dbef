#include "log_capture.h"

#include <algorithm>
#include <mutex>

namespace test_support {
namespace {

std::mutex mutex;
bool capturing = false;
std::vector<std::string> captured;

int receive_record(FILE * /*stream*/, const char *format, va_list args) __attribute__((format(printf, 2, 0)));
int receive_record(FILE * /*stream*/, const char *format, va_list args) { return LogCapture::receive(format, args); }

template <typename Matches>
size_t count_matching(Matches &&matches) {
  const std::lock_guard<std::mutex> lock(mutex);
  return static_cast<size_t>(std::count_if(captured.begin(), captured.end(), matches));
}

}  // namespace

LogCapture::LogCapture(wb_log_level level) : previous_level_(wb_log_get_level()) {
  {
    const std::lock_guard<std::mutex> lock(mutex);
    captured.clear();
    capturing = true;
  }
  wb_log_set_function(receive_record);
  wb_log_set_level(level);
}

LogCapture::~LogCapture() {
  wb_log_set_function(nullptr);
  wb_log_set_level(previous_level_);
  const std::lock_guard<std::mutex> lock(mutex);
  capturing = false;
}

int LogCapture::receive(const char *format, va_list args) {
  va_list measuring;
  va_copy(measuring, args);
  const int length = vsnprintf(nullptr, 0, format, measuring);
  va_end(measuring);
  if (length < 0) return length;
  std::string text(static_cast<size_t>(length) + 1, '\0');
  vsnprintf(text.data(), text.size(), format, args);
  text.pop_back();
  const std::lock_guard<std::mutex> lock(mutex);
  if (capturing) captured.push_back(std::move(text));
  return length;
}

std::vector<std::string> LogCapture::records() const {
  const std::lock_guard<std::mutex> lock(mutex);
  return captured;
}

size_t LogCapture::count(std::string_view part) const {
  return count_matching([part](const std::string &record) { return record.find(part) != std::string::npos; });
}

size_t LogCapture::count_exact(std::string_view text) const {
  return count_matching([text](const std::string &record) { return record == text; });
}

std::string LogCapture::all() const {
  std::string joined;
  for (const std::string &record : records()) joined += record + '\n';
  return joined;
}

void LogCapture::clear() {
  const std::lock_guard<std::mutex> lock(mutex);
  captured.clear();
}

}  // namespace test_support

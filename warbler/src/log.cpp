#include <warbler/log.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>

#include "log_context.h"
#include "secrets.h"

namespace {

WB_PRINTF(2, 0) int print_record(FILE *stream, const char *format, va_list args) { return std::vfprintf(stream, format, args); }

std::atomic<int> threshold{WB_LOG_INFO};
std::atomic<wb_log_function> output{print_record};
std::atomic<bool> context_enabled{false};
thread_local const char *context_name = nullptr;

WB_PRINTF(1, 0) void write_formatted(const char *format, va_list args) {
  output.load(std::memory_order_relaxed)(stderr, format, args);
}

// The format with the context before it. It goes through the format, so that a record stays one call with the caller's arguments.
__attribute__((format_arg(1))) const char *with_context(const char *format, std::string &storage) {
  storage = "[";
  for (const char *c = context_name; *c != '\0'; ++c) {
    if (*c == '%') storage += '%';
    storage += *c;
  }
  return storage.append("] ").append(format).c_str();
}

WB_PRINTF(1, 0) void write_record(const char *format, va_list args) {
  if (!context_enabled.load(std::memory_order_relaxed) || context_name == nullptr) return write_formatted(format, args);
  try {
    std::string storage;
    write_formatted(with_context(format, storage), args);
  } catch (const std::bad_alloc &) {
    write_formatted(format, args);
  }
}

WB_PRINTF(1, 2) void write_plain_record(const char *format, ...) {
  va_list args;
  va_start(args, format);
  write_record(format, args);
  va_end(args);
}

}  // namespace

bool wb::log_passes(wb_log_level level) {
  return static_cast<int>(level) <= threshold.load(std::memory_order_relaxed) && level != WB_LOG_NONE;
}

wb::LogContext::LogContext(const char *name) : outer_(context_name) { context_name = name; }

wb::LogContext::~LogContext() { context_name = outer_; }

void wb_log(wb_log_level level, const char *format, ...) {
  if (!wb::log_passes(level)) return;
  va_list args;
  va_start(args, format);
  write_record(format, args);
  va_end(args);
}

void wb_log_err(wb_log_level level, const wb_err *err, const char *caption) {
  if (!wb::log_passes(level)) return;
  const char *title = caption != nullptr ? caption : "";
  if (err == nullptr || err->message == nullptr) return write_plain_record("%s", title);
  write_plain_record("%s: %s (%s, %s:%u)", title, err->message, err->function != nullptr ? err->function : "?",
                     err->file != nullptr ? err->file : "?", err->line);
}

void wb_log_dom(wb_log_level level, const wb_dom_node *node, const char *format, ...) {
  if (!wb::log_passes(level)) return;
  char *xml = nullptr;
  if (node != nullptr && wb_serialize_xml(node, &xml, nullptr, nullptr)) wb::hide_secrets(xml);
  const std::unique_ptr<char, decltype(&std::free)> owned(xml, &std::free);
  va_list args;
  va_start(args, format);
  va_list measuring;
  va_copy(measuring, args);
  const int length = std::vsnprintf(nullptr, 0, format, measuring);
  va_end(measuring);
  // The node's text becomes part of the record by way of the arguments, never of the format: it comes from the wire.
  const std::unique_ptr<char, decltype(&std::free)> text(
      length < 0 ? nullptr : static_cast<char *>(std::malloc(static_cast<size_t>(length) + 1)), &std::free);
  if (text != nullptr) {
    std::vsnprintf(text.get(), static_cast<size_t>(length) + 1, format, args);
    if (xml != nullptr) {
      write_plain_record("%s %s", text.get(), xml);
    } else {
      write_plain_record("%s", text.get());
    }
  }
  va_end(args);
}

void wb_log_set_function(wb_log_function function) {
  output.store(function != nullptr ? function : print_record, std::memory_order_relaxed);
}

void wb_log_set_level(wb_log_level level) { threshold.store(level, std::memory_order_relaxed); }

wb_log_level wb_log_get_level(void) { return static_cast<wb_log_level>(threshold.load(std::memory_order_relaxed)); }

void wb_log_set_ndc_enabled(bool enabled) { context_enabled.store(enabled, std::memory_order_relaxed); }

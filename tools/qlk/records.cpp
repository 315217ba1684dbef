#include "records.h"

#include <atomic>
#include <cstdarg>
#include <cstring>
#include <mutex>

#include "terminal.h"
#include "text.h"
#include "xml.h"

namespace tool {

namespace {

constexpr char kAddressFormat[] = "connected to %s";
constexpr char kSessionEndFormat[] = "session with %s ended while %s: %.*s";
constexpr char kStanzaFormat[] = "%s %s";
constexpr std::string_view kStanzaTitle = "received";
// Stanzas with these hold a secret.
constexpr std::string_view kSecrets[] = {"getTokenResponse"};

std::mutex mutex;
const RecordListener *listener = nullptr;
std::atomic<int> shown{0};
thread_local bool is_listening = false;  // on this thread: what it does meanwhile is no news

// Traces of calls, which nobody but the library's developers wants to see.
bool is_call_trace(const char *format) { return std::strncmp(format, "->", 2) == 0 || std::strncmp(format, "entering", 8) == 0; }

WB_PRINTF(1, 0) std::string formatted(const char *format, va_list args) {
  va_list again;
  va_copy(again, args);
  const int length = std::vsnprintf(nullptr, 0, format, again);
  va_end(again);
  if (length <= 0) return "";
  std::string text(static_cast<size_t>(length) + 1, '\0');
  std::vsnprintf(text.data(), text.size(), format, args);
  text.pop_back();
  return text;
}

void show(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  note(paint(stderr, Style::faint, printable(text)));
}

void hear_stanza(std::string_view xml) {
  if (shown >= 2) {
    bool is_secret = false;
    for (const std::string_view secret : kSecrets) is_secret = is_secret || xml.find(secret) != std::string_view::npos;
    show(is_secret ? "received a stanza with a secret" : "received " + std::string(xml));
  }
  if (listener == nullptr || !listener->on_stanza) return;
  if (const Element stanza = parse_or_null(xml); stanza != nullptr) listener->on_stanza(stanza.get());
}

void hear_session_end(va_list args) {
  va_arg(args, const char *);  // the host
  const char *stage = va_arg(args, const char *);
  const int length = va_arg(args, int);
  const std::string reason(va_arg(args, const char *), static_cast<size_t>(length));
  if (listener != nullptr && listener->on_session_end) listener->on_session_end(stage, reason.c_str());
}

void hear_address(va_list args) {
  const char *address = va_arg(args, const char *);
  if (listener != nullptr && listener->on_address) listener->on_address(address);
}

// Formats are compared as texts: each belongs to one record.
WB_PRINTF(1, 0) void hear(const char *format, va_list args) {
  const std::lock_guard lock(mutex);
  va_list again;
  va_copy(again, args);
  if (std::strcmp(format, kStanzaFormat) == 0 && va_arg(again, const char *) == kStanzaTitle) {
    hear_stanza(va_arg(again, const char *));
    va_end(again);
    return;
  }
  if (std::strcmp(format, kAddressFormat) == 0) hear_address(again);
  if (std::strcmp(format, kSessionEndFormat) == 0) hear_session_end(again);
  va_end(again);
  if (shown >= 1) show(formatted(format, args));
}

WB_PRINTF(1, 0) int on_record(const char *format, va_list args) {
  if (is_listening || is_call_trace(format)) return 0;
  is_listening = true;
  try {
    hear(format, args);
  } catch (...) {
    // A record without memory for it, or without anybody to read it, is no record.
  }
  is_listening = false;
  return 0;
}

}  // namespace

void start_records(int verbosity) {
  shown = verbosity;
  quillon_log_set_callback(on_record);
  quillon_log_initialize();
  watch_stanzas(true);
}

void watch_stanzas(bool watch) {
  // The configuration applies its own level whenever one is made; stanzas are recorded a level below all that it knows.
  quillon_log_set_level(QUILLON_LOG_DEBUG);
  if (watch) wb_log_set_level(WB_LOG_TRACE);
}

void set_record_listener(const RecordListener *fresh) {
  const std::lock_guard lock(mutex);
  listener = fresh;
}

}  // namespace tool

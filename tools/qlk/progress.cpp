#include "progress.h"

#include <algorithm>
#include <cstdio>

#include "terminal.h"

namespace tool {

namespace {

constexpr std::chrono::milliseconds kFrame{100};
constexpr size_t kBarMax = 30, kBarMin = 8;
constexpr size_t kRunner = 3;  // how wide the mark is that runs where the end is unknown

void wipe_line() {
  std::fputs("\r\033[K", stderr);
  std::fflush(stderr);
}

std::string minutes(double seconds) {
  const auto whole = static_cast<unsigned long>(seconds);
  char text[32];
  std::snprintf(text, sizeof text, "%lu:%02lu", whole / 60, whole % 60);
  return text;
}

std::string full_bar(double share, size_t width) {
  const auto filled = static_cast<size_t>(share * static_cast<double>(width));
  return "[" + std::string(filled, '#') + std::string(width - filled, '.') + "]";
}

// A mark that runs to and fro.
std::string running_bar(double seconds, size_t width) {
  const size_t path = width - kRunner;
  const size_t step = static_cast<size_t>(seconds * 10) % (2 * path);
  std::string bar(width, '.');
  bar.replace(step < path ? step : 2 * path - step, kRunner, kRunner, '#');
  return "[" + bar + "]";
}

}  // namespace

std::string grouped(uint64_t number) {
  std::string text = std::to_string(number);
  for (size_t at = text.size(); at > 3;) text.insert(at -= 3, " ");
  return text;
}

Progress::Progress(uint64_t expected, bool is_shown) : expected_(expected) {
  if (!is_shown) return;
  set_wiper(wipe_line);
  painter_ = std::thread(&Progress::draw_until_end, this);
}

Progress::~Progress() { end(); }

void Progress::end() {
  {
    const std::lock_guard lock(mutex_);
    ended_ = true;
  }
  ending_.notify_all();
  if (!painter_.joinable()) return;
  painter_.join();
  set_wiper(nullptr);
  wipe_line();
}

std::string Progress::summary() const {
  const double time = seconds();
  const uint64_t count = items();
  char text[32];
  std::snprintf(text, sizeof text, "%.1f s", time);
  std::string all = grouped(count) + (count == 1 ? " item in " : " items in ") + text;
  if (time > 0.05) all += ", " + grouped(static_cast<uint64_t>(static_cast<double>(count) / time)) + " a second";
  return all;
}

void Progress::draw_until_end() {
  std::unique_lock lock(mutex_);
  while (!ending_.wait_for(lock, kFrame, [this] { return ended_; })) {
    std::fprintf(stderr, "\r%s\033[K", line(terminal_width(stderr)).c_str());
    std::fflush(stderr);
  }
}

std::string Progress::line(size_t width) const {
  const double time = seconds();
  const uint64_t count = items();
  const double rate = time > 0 ? static_cast<double>(count) / time : 0;
  std::string text = "  " + grouped(count) + (expected_ > 0 ? " of " + grouped(expected_) : "") + " items  " +
                     grouped(static_cast<uint64_t>(rate)) + "/s  " + minutes(time);
  if (expected_ > 0 && rate > 0 && count < expected_) {
    text += ", " + minutes(static_cast<double>(expected_ - count) / rate) + " left";
  }
  if (text.size() + kBarMin + 5 > width) return text.substr(0, width - 1);
  const size_t bar = std::min(kBarMax, width - text.size() - 5);
  const double share = expected_ > 0 ? std::min(1.0, static_cast<double>(count) / static_cast<double>(expected_)) : 0;
  return "  " + (expected_ > 0 ? full_bar(share, bar) : running_bar(time, bar)) + text;
}

}  // namespace tool

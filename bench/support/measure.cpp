#include "measure.h"

#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace bench {

namespace {

double seconds_of(const timeval &time) { return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6; }

long status_field(const char *name) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(name, 0) == 0) return std::strtol(line.c_str() + std::strlen(name), nullptr, 10);
  }
  return 0;
}

}  // namespace

double seconds_since(Clock::time_point begun) { return std::chrono::duration<double>(Clock::now() - begun).count(); }

double cpu_seconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return seconds_of(usage.ru_utime) + seconds_of(usage.ru_stime);
}

long resident_kib() { return status_field("VmRSS:"); }
long peak_resident_kib() { return status_field("VmHWM:"); }
long count_threads() { return status_field("Threads:"); }

long count_descriptors() {
  const std::filesystem::directory_iterator folder("/proc/self/fd");
  return std::distance(begin(folder), end(folder));
}

double percentile(std::vector<double> values, double share) {
  if (values.empty()) return 0;
  const auto place = values.begin() + static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
  std::nth_element(values.begin(), place, values.end());
  return *place;
}

Result &Result::add(const std::string &name, double value) {
  char text[64];
  std::snprintf(text, sizeof text, "%.12g", value);
  if (!fields_.empty()) fields_ += ", ";
  fields_.append("\"").append(name).append("\": ").append(text);
  return *this;
}

void Result::print() const {
  std::printf("{%s}\n", fields_.c_str());
  std::fflush(stdout);
}

void print_requests(const Span &span, long requests, const std::vector<double> &microseconds) {
  const double seconds = span.seconds(), cpu = span.cpu(), count = static_cast<double>(requests);
  Result result;
  result.add("requests", count).add("per_second", count / seconds).add("cpu_us", cpu / count * 1e6);
  if (!microseconds.empty()) {
    result.add("p50_us", percentile(microseconds, 0.5)).add("p99_us", percentile(microseconds, 0.99));
  }
  result.print();
}

void fail(const std::string &what) {
  std::fprintf(stderr, "%s\n", what.c_str());
  std::exit(1);
}

}  // namespace bench

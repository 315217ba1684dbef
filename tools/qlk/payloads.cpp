#include "payloads.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "terminal.h"

namespace tool {

namespace {

constexpr size_t kFileBytesMax = 64u << 20;
constexpr size_t kLineBytesMax = 16u << 20;
constexpr size_t kReadBytes = 64u << 10;

// Appends what there is; false at the end.
bool read_some(int file, const Stop &stop, const std::string &origin, std::string &buffer) {
  pollfd waited[] = {{file, POLLIN, 0}, {stop.descriptor(), POLLIN, 0}};
  poll(waited, 2, -1);
  stop.check();
  const size_t before = buffer.size();
  buffer.resize(before + kReadBytes);
  const ssize_t got = read(file, buffer.data() + before, kReadBytes);
  const int error = errno;
  buffer.resize(before + static_cast<size_t>(got > 0 ? got : 0));
  if (got < 0 && error != EINTR && error != EAGAIN) {
    throw Failure(ExitCode::usage, origin + " cannot be read: " + std::strerror(error));
  }
  return got != 0;
}

}  // namespace

std::string origin_of(const std::string &path) { return path == "-" ? "standard input" : "'" + path + "'"; }

std::string read_file(const std::string &path, const Stop &stop) {
  Descriptor opened;
  if (path != "-") {
    opened = Descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!opened) throw Failure(ExitCode::usage, origin_of(path) + " cannot be read: " + std::strerror(errno));
  }
  const int file = path == "-" ? STDIN_FILENO : opened.get();
  std::string text;
  while (read_some(file, stop, origin_of(path), text)) {
    if (text.size() > kFileBytesMax) throw Failure(ExitCode::usage, origin_of(path) + " is too large for a payload");
  }
  return text;
}

std::optional<std::string> LineReader::next() {
  for (;;) {
    const size_t end = buffer_.find('\n', searched_);
    if (end != std::string::npos || (ended_ && begin_ < buffer_.size())) {
      std::string line = buffer_.substr(begin_, end == std::string::npos ? end : end - begin_);
      begin_ = searched_ = end == std::string::npos ? buffer_.size() : end + 1;
      return line;
    }
    if (ended_) return std::nullopt;
    if (buffer_.size() - begin_ > kLineBytesMax) throw Failure(ExitCode::usage, "a line of standard input is too long");
    ended_ = !fill();
  }
}

bool LineReader::fill() {
  buffer_.erase(0, begin_);
  begin_ = 0;
  searched_ = buffer_.size();
  return read_some(STDIN_FILENO, stop_, "standard input", buffer_);
}

void add_capability_options(Command &command, CapabilityOptions &options) {
  command.argument("NAME", options.name, "The capability's name", Command::Need::required);
  command.option("-n,--namespace", "URI", options.ns,
                 "The capability's XML namespace (default: the profile's, else the payload's, else the grid's)");
  command.flag("--dynamic", options.is_dynamic, "The capability is a dynamic one, whose topic is its bare name");
}

std::string namespace_of(const CapabilityOptions &options, const Settings &settings, const wb_dom_node *payload) {
  if (!options.ns.empty()) return options.ns;
  if (!settings.values.capability_namespace.empty()) return settings.values.capability_namespace;
  const char *uri = payload != nullptr ? wb_dom_get_namespace_uri(payload) : nullptr;
  return uri != nullptr && *uri != '\0' ? uri : kGridNamespace;
}

}  // namespace tool

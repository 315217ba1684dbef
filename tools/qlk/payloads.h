// Where payloads come from: arguments, files, lines of standard input; and what the commands for capabilities share.
#pragma once

#include <optional>
#include <string>

#include "options.h"
#include "xml.h"

namespace tool {

// The whole file, standard input for "-". Throws Failure when it cannot be read or is too large, Stopped at the end's request.
std::string read_file(const std::string &path, const Stop &stop);

// "'path'", or "standard input".
std::string origin_of(const std::string &path);

// Lines of standard input, as they come.
class LineReader {
 public:
  explicit LineReader(const Stop &stop) : stop_(stop) {}

  // The next line, without its end; nothing at the end of the input.
  std::optional<std::string> next();

 private:
  bool fill();

  const Stop &stop_;
  std::string buffer_;
  size_t begin_ = 0, searched_ = 0;
  bool ended_ = false;
};

struct CapabilityOptions {
  std::string name, ns;
  bool is_dynamic = false;
};

// The argument NAME with --namespace and --dynamic.
void add_capability_options(Command &command, CapabilityOptions &options);

// The namespace that was given, else the profile's, else that of the payload, else the grid's own.
std::string namespace_of(const CapabilityOptions &options, const Settings &settings, const wb_dom_node *payload = nullptr);

}  // namespace tool

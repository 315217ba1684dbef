#include "arguments.h"

#include <cstdio>
#include <cstdlib>

namespace bench {

Arguments::Arguments(int argc, char **argv) {
  for (int i = 1; i < argc; i += 2) {
    const std::string name = argv[i];
    if (name.rfind("--", 0) != 0 || i + 1 == argc) {
      std::fprintf(stderr, "%s: %s is no option with a value\n", argv[0], argv[i]);
      std::exit(2);
    }
    values_[name.substr(2)] = argv[i + 1];
  }
}

std::string Arguments::text(const std::string &name, const std::string &fallback) const {
  const auto found = values_.find(name);
  return found != values_.end() ? found->second : fallback;
}

long Arguments::number(const std::string &name, long fallback) const {
  const auto found = values_.find(name);
  if (found == values_.end()) return fallback;
  char *end = nullptr;
  const long value = std::strtol(found->second.c_str(), &end, 10);
  if (*end == '\0' && end != found->second.c_str()) return value;
  std::fprintf(stderr, "--%s: %s is no number\n", name.c_str(), found->second.c_str());
  std::exit(2);
}

std::string Arguments::required(const std::string &name) const {
  const auto found = values_.find(name);
  if (found != values_.end()) return found->second;
  std::fprintf(stderr, "--%s is missing\n", name.c_str());
  std::exit(2);
}

}  // namespace bench

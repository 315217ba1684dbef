#include "stuck_resolver.h"

#include <dlfcn.h>
#include <netdb.h>

#include <cstring>

namespace test_support {

StuckResolver &StuckResolver::get() {
  static StuckResolver resolver;
  return resolver;
}

void StuckResolver::wait() {
  std::unique_lock lock(mutex_);
  ++asked_;
  ++waiting_;
  changed_.wait(lock, [this] { return !held_; });
  --waiting_;
}

unsigned StuckResolver::waiting() {
  const std::lock_guard lock(mutex_);
  return waiting_;
}

unsigned StuckResolver::asked() {
  const std::lock_guard lock(mutex_);
  return asked_;
}

void StuckResolver::set(bool held) {
  const std::lock_guard lock(mutex_);
  held_ = held;
  changed_.notify_all();
}

}  // namespace test_support

extern "C" int getaddrinfo(const char *node, const char *service, const addrinfo *hints, addrinfo **list) {
  using Function = int (*)(const char *, const char *, const addrinfo *, addrinfo **);
  static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "getaddrinfo"));
  if (node != nullptr && std::strcmp(node, test_support::StuckResolver::kName) == 0) {
    test_support::StuckResolver::get().wait();
    return EAI_AGAIN;
  }
  return real(node, service, hints, list);
}

// Name resolution that never blocks the loop: the system's own resolver on threads that all lookups of the process share. A
// resolver that hears nothing keeps its thread for long, so their number is limited; a lookup may have to wait for its turn.
#pragma once

#include <netdb.h>

#include <functional>
#include <memory>
#include <string>

#include "workq.h"

namespace wb {

struct AddressListDeleter {
  void operator()(addrinfo *list) const { freeaddrinfo(list); }
};
using AddressList = std::unique_ptr<addrinfo, AddressListDeleter>;

constexpr unsigned kLookupThreadsMax = 8;

// One lookup. Its end comes on the loop, by way of the work queue; destroying it cancels it, after which done is not called.
class Lookup {
 public:
  // error is getaddrinfo's result, 0 with a list.
  using Done = std::function<void(AddressList list, int error)>;

  // Numbers resolve at once but are reported the same way. May throw std::bad_alloc or std::system_error.
  Lookup(wb_workq &queue, const std::string &host, unsigned port, Done done);
  ~Lookup();
  Lookup(const Lookup &) = delete;
  Lookup &operator=(const Lookup &) = delete;

 private:
  struct State;
  class Threads;
  // False when the outcome cannot be reported for want of memory.
  static bool resolve(const std::shared_ptr<State> &state);
  static void deliver(void *arg, bool cancelled);

  Threads &threads_;
  std::shared_ptr<State> state_;
};

}  // namespace wb

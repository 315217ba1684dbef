// The bulk transfers that are under way in the process, which are broken off at its exit: OpenSSL cleans up then.
#pragma once

#include "quillon_bulkdownload_curl.h"

namespace qlk {

class BulkTransfer {
 public:
  // For the scope in which the calling thread uses curl. When the process comes to its exit meanwhile, stopWrite is set and who
  // waits for room is woken. Throws std::bad_alloc.
  explicit BulkTransfer(ThrdsSharedData &shared);
  ~BulkTransfer();
  BulkTransfer(const BulkTransfer &) = delete;
  BulkTransfer &operator=(const BulkTransfer &) = delete;
  // False when the process was at its exit already: curl must not be used.
  explicit operator bool() const { return is_admitted_; }

 private:
  ThrdsSharedData &shared_;
  bool is_admitted_;
};

// Lets the transfer give up. Any thread.
void stop_transfer(ThrdsSharedData &shared);

}  // namespace qlk

// The bulk transfers that are under way in the process, which are broken off at its exit: OpenSSL cleans up then.
#pragma once

#include "quillon_bulkdownload_curl.h"

namespace qlk {

class BulkTransfer {
 public:
  // For the scope in which the calling thread uses curl. When the process is at its exit, or ever comes to that, stopWrite is set
  // and who waits for room is woken. Throws std::bad_alloc.
  explicit BulkTransfer(ThrdsSharedData &shared);
  ~BulkTransfer();
  BulkTransfer(const BulkTransfer &) = delete;
  BulkTransfer &operator=(const BulkTransfer &) = delete;

 private:
  ThrdsSharedData &shared_;
};

// Lets the transfer give up. Any thread.
void stop_transfer(ThrdsSharedData &shared);

}  // namespace qlk

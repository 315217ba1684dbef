// Downloads from the local grid's bulk service.
#pragma once

#include <string>

#include "grid_objects.h"
#include "local_grid.h"

namespace grid_test {

// A download of a user's, ready to be opened; closed, if need be, with the object.
class Download {
 public:
  Download(test_support::LocalGrid &grid, const std::string &user, const std::string &certified_user);
  ~Download();
  Download(const Download &) = delete;
  Download &operator=(const Download &) = delete;

  // Asks for a document that is as the attributes of the request say.
  void open(const std::string &attributes);
  // The next item; null when there is none.
  test_support::Node next();
  // Counts the items that are left, each with the number that it should have.
  size_t read_numbered(size_t first = 0);

  quillon_bulkdownload *bulk = nullptr;
  QUILLON_STATUS status = QUILLON_STATUS_OK;  // of the last next

 private:
  quillon_config *config_ = nullptr;
  std::string url_;
};

}  // namespace grid_test

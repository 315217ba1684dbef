// A large result set over HTTPS, record by record.
#pragma once

#include "member.h"

namespace tour {

// Downloads so many records from the grid's bulk service, and tells the rate and the memory that the process took at most.
void show_download(const Grid &grid, const Member &member, size_t records);

}  // namespace tour

#pragma once

#include <atomic>

#include "quillon.h"

struct _quillon_authentication_token {
  quillon_connection *connection;  // borrowed
  std::atomic<char *> value;       // null until fetched, then unchanged; wiped when it is freed
};

namespace qlk {

// Asks the controller for the token and stores it. An answer without a token is no failure and leaves the value null.
QUILLON_STATUS _populate_token(quillon_authentication_token *token);

}  // namespace qlk

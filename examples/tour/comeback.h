// A member's way back to the grid after the server was gone.
#pragma once

#include <quillon.h>

#include "board.h"
#include "member.h"

namespace tour {

// Watches the member's connection from before its connect until the end. The member must outlive it.
class Comeback {
 public:
  explicit Comeback(const Member &member);
  ~Comeback();
  Comeback(const Comeback &) = delete;
  Comeback &operator=(const Comeback &) = delete;

  // Waits until the server is gone.
  void wait_for_loss();
  // Starts the reconnection object and waits until it has connected and everything is announced again.
  void bring_back();

 private:
  const Member &member_;
  Board connects_, losses_;
  quillon_reconnection *reconnection_ = nullptr;
};

}  // namespace tour

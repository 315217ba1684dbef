// Connections that are destroyed in the midst of something: by a callback of theirs, or by another thread while calls are under
// way.
#pragma once

#include <chrono>

#include "member.h"

namespace stress {

// Begins something with the connection, chosen at random, and has it destroyed meanwhile. Returns when all is over.
void end_soon_in_some_way(Member member, const Servers &servers, Random &random, std::chrono::seconds at_most);

}  // namespace stress

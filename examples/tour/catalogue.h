// The controller's catalogue of capabilities: proposing, listing, looking at one, modifying.
#pragma once

#include "member.h"

namespace tour {

// The member proposes a capability, reads the catalogue, and modifies what it proposed.
void show_catalogue(const Member &member);

}  // namespace tour

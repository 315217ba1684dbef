// How the scripted peer answers requests of a message grid: in the controller's place, and in that of a publisher that echoes.
#pragma once

#include "peer_connection.h"

namespace testpeer {

// False when the stanza is no grid request, or one that the options leave to the test.
bool answer_grid_request(Connection &connection, const Stanza &stanza);

}  // namespace testpeer

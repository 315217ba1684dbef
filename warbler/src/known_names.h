// The names that the application builds with, taken apart and checked once in the life of the process.
//
// Applications pass the same few names again and again, as text, and build each stanza in a context of its own, which knows
// none of them yet. The table is bounded, since its records are never freed: names that come when it is full are taken apart
// by each context for itself.
#pragma once

#include "names.h"

namespace wb {

// The record of a name as the application writes it: "{uri}local", "uri|local" or "local". Null when it is no name of XML, or
// when the table has no room or is at work for another thread, and nothing is known then. Any thread. Throws std::bad_alloc.
const Name *known_name(const char *text);

}  // namespace wb

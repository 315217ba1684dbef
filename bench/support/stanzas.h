// The stanzas that are measured, as a server sends them.
#pragma once

#include <string>

namespace bench {

// The head of a client's stream, which stays open behind it.
extern const char kStreamHead[];

// "iq": a request of 276 bytes; "event": a notification of 632; "payload": an answer of about 16 KiB with 200 elements;
// "items": no stanza, but a piece of a bulk document, 27 items of 600 bytes. Ends the program for another name.
std::string make_stanza(const std::string &name);

// The content of a request that is asked with, an element of the given size in bytes: at the default size it is what "iq"
// carries; otherwise a list of elements of 100 bytes each.
std::string make_request_payload(size_t bytes = 0);

}  // namespace bench

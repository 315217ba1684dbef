// What the library's log tells beyond the statuses: the address that answered, why a session ended, what the grid said to us. The
// records are recognised by their formats; everything else is dropped, or shown where the user wants to see the log.
#pragma once

#include <quillon.h>

#include <functional>
#include <string>
#include <string_view>

namespace tool {

struct RecordListener {
  // The host answered at this address.
  std::function<void(const std::string &address)> on_address;
  // A stanza arrived; the tree is gone when the function returns.
  std::function<void(const wb_dom_node *stanza)> on_stanza;
  // The session ended, or did not come up: what was under way, and why.
  std::function<void(const std::string &stage, const std::string &reason)> on_session_end;
};

// Takes the library's log over for the whole process. verbosity 0 shows nothing, 1 the log, 2 the stanzas that arrive as well.
void start_records(int verbosity);

// Records the stanzas or does not: that costs time for each.
void watch_stanzas(bool watch);

// Sets who listens; nullptr: nobody, and no function of the former listener is running any more. They are called on the thread
// that logs, mostly the event loop, and must not call the library.
void set_record_listener(const RecordListener *listener);

}  // namespace tool

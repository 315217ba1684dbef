// How the scripted peer answers requests of a message grid: in the controller's place, and in that of a publisher that echoes.
#pragma once

#include <optional>
#include <string>

#include <qlk/testpeer/script.hpp>

namespace testpeer {

// The payload of a grid request, within the stanza; null when it is none.
const Element *grid_request(const Stanza &stanza);

// Nothing when the stanza is no grid request, or one that the options leave to the test.
std::optional<Reply> grid_reply(const Options &options, const Stanza &stanza);

// The controller's address.
std::string controller_of(const Options &options);

// A message from the controller to that address.
std::string grid_notification(const Options &options, const std::string &to, std::string_view payload);

}  // namespace testpeer

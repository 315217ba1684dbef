// The text of HTTP/1.1: requests that are read, answers that are written.
#pragma once

#include <qlk/testpeer/https_peer.hpp>

#include <cstddef>
#include <string>
#include <vector>

namespace testpeer {

// From all up to the empty line, with it. Lines that are none are left out.
HttpRequest parse_request_head(std::string head);
// The bytes that the head says the body has.
size_t body_length(const HttpRequest &request);

std::string head_of(const HttpAnswer &answer);
// The body as it goes over the line: each piece, and what ends the last.
std::vector<std::string> encoded_pieces(const HttpAnswer &answer);

}  // namespace testpeer

// Sends IQs that were made before and counts their answers, over one connection to the echo server:
//
//   query_raw --port PORT --ca FILE --certificate FILE --key FILE [--tls yes|no] [--in-flight COUNT] [--payload BYTES]
//   [--requests COUNT]
//
// With one in flight it prints percentiles of the round trips too.
#include <algorithm>

#include "support/arguments.h"
#include "support/measure.h"
#include "support/raw_client.h"
#include "support/stanzas.h"

namespace {

std::string make_request(const bench::Target &target, size_t payload_bytes) {
  return "<iq type='get' id='7f3a91c2b04d4e5f8a6b7c8d9e0f1a2b' to='" + target.peer_jid() +
         "'><grid xmlns='quillon' type='request'>" + bench::make_request_payload(payload_bytes) + "</grid></iq>";
}

std::string repeat(const std::string &text, long count) {
  std::string all;
  for (long i = 0; i < count; ++i) all += text;
  return all;
}

}  // namespace

int main(int argc, char **argv) {
  const bench::Arguments arguments(argc, argv);
  const bench::Target target(arguments);
  const long requests = arguments.number("requests", 20000), in_flight = arguments.number("in-flight", 1);
  const std::string request = make_request(target, static_cast<size_t>(arguments.number("payload", 0)));
  const std::string window = repeat(request, in_flight);
  bench::RawClient client(target);
  client.connect();
  bench::Counter answers("</iq>");
  bench::RoundTrips trips(requests, in_flight);
  const bench::Span span;
  long sent = std::min(in_flight, requests), answered = 0;
  trips.begin();
  client.send(std::string_view(window).substr(0, request.size() * static_cast<size_t>(sent)));
  while (answered < requests) {
    const long came = answers.count(client.receive());
    answered += came;
    if (came > 0) trips.end();
    const long more = std::min(came, requests - sent);
    sent += more;
    if (more == 0) continue;
    trips.begin();
    client.send(std::string_view(window).substr(0, request.size() * static_cast<size_t>(more)));
  }
  bench::print_requests(span, requests, trips.microseconds());
}

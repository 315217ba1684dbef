// An XMPP stream tells the same whether it comes whole or in pieces. The first byte chooses the pieces.
#include "stream_parser.h"

#include "fuzz.h"

namespace {

class Recorder : public wb::StreamParser::Handler {
 public:
  void on_stream_open(wb_dom_node *head) override { told_ += "open " + fuzz::serialize(head) + "\n"; }
  void on_stanza(wb_dom_node *stanza) override { told_ += "stanza " + fuzz::serialize(stanza) + "\n"; }
  void on_stream_close() override { told_ += "close\n"; }
  std::string told_;
};

constexpr wb::StreamLimits kLimits = {.max_stanza_bytes = 1000, .max_depth = 10, .max_attributes = 8};

struct Reading {
  std::string told;
  wb::StreamError error = wb::StreamError::none;
};

Reading run_whole(std::string_view stream) {
  Recorder recorder;
  wb::StreamParser parser(recorder, kLimits);
  const wb::StreamError error = parser.feed(stream.data(), stream.size());
  return {recorder.told_, error};
}

Reading run_in_pieces(std::string_view stream, fuzz::Pieces pieces) {
  Recorder recorder;
  wb::StreamParser parser(recorder, kLimits);
  wb::StreamError error = wb::StreamError::none;
  while (!stream.empty()) {
    const size_t length = pieces.next(stream.size());
    error = parser.feed(stream.data(), length);
    stream.remove_prefix(length);
  }
  return {recorder.told_, error};
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  const std::string_view stream = fuzz::text(data + 1, size - 1);
  const Reading whole = run_whole(stream), pieces = run_in_pieces(stream, fuzz::Pieces(data[0]));
  if (whole.told != pieces.told) std::fprintf(stderr, "whole:\n%s\nin pieces:\n%s\n", whole.told.c_str(), pieces.told.c_str());
  fuzz::require(whole.told == pieces.told, "a stream in pieces tells what the whole one does");
  // Of several faults, pieces may come upon a limit before another. A tag that has not ended yet is not looked at, and may hide
  // its fault.
  const bool same = whole.error == pieces.error ||
                    (whole.error != wb::StreamError::none &&
                     (pieces.error == wb::StreamError::policy_violation || pieces.error == wb::StreamError::none));
  if (!same) {
    std::fprintf(stderr, "whole: %d, in pieces: %d\n", static_cast<int>(whole.error), static_cast<int>(pieces.error));
  }
  fuzz::require(same, "a stream in pieces ends as the whole one does");
  return 0;
}

// A document of items tells the same whether it is read whole, in pieces, or through the batches of a bulk download, whose
// text goes where the end tag comes next. The first byte chooses the pieces.
#include <warbler/items.h>

#include "fuzz.h"
#include "quillon_bulkdownload.h"

namespace {

using fuzz::Tree;

void record(wb_dom_node *item, void *told) {
  const Tree owned(item);
  *static_cast<std::string *>(told) += fuzz::serialize(item) + "\n";
}

struct Reading {
  std::string told;  // the items
  bool good = true;
};

// A text that comes in pieces takes more memory than one that comes whole, so that where they are compared there is enough.
constexpr size_t kMuch = 4u << 20, kLittle = 4096;

template <typename NextLength>
Reading read_items(std::string_view document, bool text_waits, size_t item_bytes_max, NextLength next_length) {
  Reading reading;
  wb_item_reader_options options = {};
  options.item_depth = 2;
  options.depth_max = 20;
  options.item_bytes_max = item_bytes_max;
  options.text_waits = text_waits;
  options.on_item = record;
  options.arg = &reading.told;
  wb_item_reader *reader = nullptr;
  fuzz::require(wb_item_reader_create(&options, &reader, nullptr), "a reader can be had");
  while (!document.empty()) {
    const size_t length = next_length(document.size());
    reading.good = wb_item_reader_feed(reader, document.data(), length, nullptr);
    document.remove_prefix(length);
  }
  wb_item_reader_destroy(reader);
  return reading;
}

// The way of a chunk from the ring to the application's items. What comes after a failure does not count.
std::string read_batches(std::string_view document, fuzz::Pieces pieces) {
  quillon_bulkdownload_iter iter = {};
  qlk::initParseData(&iter.parseData);
  fuzz::require(qlk::xmlParserCreate(&iter) == qlk::eERR_SUCC, "a parser can be had");
  std::string told;
  while (!document.empty()) {
    size_t length = pieces.next(document.size()), capacity = length + 1;
    char *chunk = static_cast<char *>(std::malloc(capacity));
    fuzz::require(chunk != nullptr, "a chunk can be had");
    document.copy(chunk, length);
    chunk[length] = '\0';
    document.remove_prefix(length);
    qlk::setChunk(&iter.parseData, chunk, length, capacity);
    std::free(chunk);
    const bool good = qlk::xmlParse(&iter) == qlk::eERR_SUCC;
    while (wb_dom_node *item = qlk::getNextItemNode(&iter.parseData)) record(item, &told);
    if (!good) break;
  }
  qlk::cleanParseData(&iter.parseData);
  qlk::xmlParserFree(&iter);
  return told;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  quillon_log_set_level(QUILLON_LOG_NONE);
  const std::string_view document = fuzz::text(data + 1, size - 1);
  // The parser takes a zero in the second byte for UTF-16, but only if it sees both bytes at once.
  if (size > 2 && data[2] == 0) return 0;
  const auto all = [](size_t length) { return length; };
  for (const bool text_waits : {false, true}) {
    fuzz::Pieces pieces(data[0]);
    const auto some = [&](size_t rest) { return pieces.next(rest); };
    const Reading whole = read_items(document, text_waits, kMuch, all);
    const Reading in_pieces = read_items(document, text_waits, kMuch, some);
    const Reading in_little = read_items(document, text_waits, kLittle, some);
    if (whole.told != in_pieces.told) {
      std::fprintf(stderr, "whole:\n%s\nin pieces:\n%s\n", whole.told.c_str(), in_pieces.told.c_str());
    }
    fuzz::require(whole.told == in_pieces.told, "a document in pieces tells what the whole one does");
    // Markup that has not ended yet is not looked at, so that a document which breaks off within it may hide its fault.
    fuzz::require(in_pieces.good || !whole.good, "what fails in pieces fails as a whole");
    fuzz::require(in_pieces.told.compare(0, in_little.told.size(), in_little.told) == 0, "a limit only ends a document sooner");
  }
  const fuzz::Pieces pieces(data[0]);
  fuzz::require(read_batches(document, pieces) == read_batches(document, fuzz::Pieces(static_cast<uint8_t>(data[0] + 1))),
                "the batches of a download tell the same in any pieces");
  return 0;
}

// Parses, and writes, the same stanza many times out of one stream, for an instruction counter to watch:
//
//   valgrind --tool=callgrind --callgrind-out-file=/dev/null parse_ours --mode MODE --stanza STANZA --count COUNT
//
// MODE is "expat" (expat with namespaces and handlers that do nothing: the limit), "parse" (our trees), "write" (our trees, and
// XML again) or "items" (the items of a bulk document, as a download reads them). STANZA is "iq", "event" or "payload", or
// "items" for a piece of such a document. Run it with two counts: the difference leaves the start-up out.
#include <expat.h>
#include <warbler/items.h>

#include <cstdlib>
#include <string>
#include <string_view>

#include "byte_buffer.h"
#include "serializer.h"
#include "stream_parser.h"
#include "support/arguments.h"
#include "support/measure.h"
#include "support/stanzas.h"

namespace {

void XMLCALL ignore_start(void *, const XML_Char *, const XML_Char **) {}
void XMLCALL ignore_end(void *, const XML_Char *) {}
void XMLCALL ignore_text(void *, const XML_Char *, int) {}

bool feed(XML_Parser parser, const std::string &bytes) {
  return XML_Parse(parser, bytes.data(), static_cast<int>(bytes.size()), XML_FALSE) == XML_STATUS_OK;
}

void run_expat(const std::string &stanza, long count) {
  XML_Parser parser = XML_ParserCreateNS("UTF-8", '|');
  XML_SetElementHandler(parser, ignore_start, ignore_end);
  XML_SetCharacterDataHandler(parser, ignore_text);
  bool good = feed(parser, bench::kStreamHead);
  for (long i = 0; good && i < count; ++i) good = feed(parser, stanza);
  XML_ParserFree(parser);
  if (!good) bench::fail("expat refused the stream");
}

struct Reader : wb::StreamParser::Handler {
  explicit Reader(bool write) : writes(write) {}
  void on_stream_open(wb_dom_node *) override {}
  void on_stream_close() override {}
  void on_stanza(wb_dom_node *stanza) override {
    ++stanzas;
    out.truncate(0);
    if (writes && !wb::serialize(stanza, wb::stream_namespace(), out, nullptr)) bench::fail("a stanza cannot be written");
  }

  const bool writes;
  long stanzas = 0;
  wb::ByteBuffer out;
};

void run_ours(const std::string &stanza, long count, bool write) {
  Reader reader(write);
  wb::StreamParser parser(reader, wb::StreamLimits{});
  const std::string head = bench::kStreamHead;
  bool good = parser.feed(head.data(), head.size()) == wb::StreamError::none;
  for (long i = 0; good && i < count; ++i) good = parser.feed(stanza.data(), stanza.size()) == wb::StreamError::none;
  if (!good || reader.stanzas != count) bench::fail("the parser refused the stream");
}

void run_items(const std::string &piece, long count) {
  long items = 0;
  wb_item_reader_options options = {};
  options.item_depth = 2;
  options.text_waits = true;
  options.arg = &items;
  options.on_item = [](wb_dom_node *item, void *arg) {
    ++*static_cast<long *>(arg);
    wb_dom_context_destroy(wb_dom_get_context(item));
  };
  wb_item_reader *reader = nullptr;
  constexpr std::string_view kHead = "<results xmlns='urn:quillon:results'><page>";
  bool good =
      wb_item_reader_create(&options, &reader, nullptr) && wb_item_reader_feed(reader, kHead.data(), kHead.size(), nullptr);
  for (long i = 0; good && i < count; ++i) good = wb_item_reader_feed(reader, piece.data(), piece.size(), nullptr);
  wb_item_reader_destroy(reader);
  if (!good || items < count) bench::fail("the reader refused the document");
}

}  // namespace

int main(int argc, char **argv) {
  const bench::Arguments arguments(argc, argv);
  const std::string mode = arguments.required("mode");
  const std::string stanza = bench::make_stanza(arguments.required("stanza"));
  const long count = arguments.number("count", 1000);
  const bench::Span span;
  if (mode == "expat") {
    run_expat(stanza, count);
  } else if (mode == "items") {
    run_items(stanza, count);
  } else if (mode == "parse" || mode == "write") {
    run_ours(stanza, count, mode == "write");
  } else {
    bench::fail("no mode is called " + mode);
  }
  bench::Result()
      .add("stanzas", static_cast<double>(count))
      .add("bytes", static_cast<double>(stanza.size()))
      .add("seconds", span.seconds())
      .print();
}

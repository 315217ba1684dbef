// Parses a bulk document that comes through standard input, from a program that downloads it on another core:
//
//   curl ... | bulk_reader --who expat|libxml2 --items COUNT
//
// "expat" has handlers that only count: the limit of a download whose parsing runs beside the transfer. "libxml2" is its text
// reader, which builds the tree of one item after the other, as an application would have it.
#include <expat.h>
#include <libxml/xmlreader.h>
#include <unistd.h>

#include "support/arguments.h"
#include "support/measure.h"

namespace {

constexpr int kReadBytes = 64 * 1024;

struct Outcome {
  long long bytes = 0, items = 0;
};

struct Depth {
  long depth = 0, items = 0;
};

void XMLCALL on_start(void *arg, const XML_Char *, const XML_Char **) { ++static_cast<Depth *>(arg)->depth; }
void XMLCALL on_end(void *arg, const XML_Char *) {
  auto &depth = *static_cast<Depth *>(arg);
  if (--depth.depth == 2) ++depth.items;
}
void XMLCALL on_text(void *, const XML_Char *, int) {}

Outcome read_with_expat() {
  const XML_Parser parser = XML_ParserCreateNS(nullptr, '|');
  Depth depth;
  XML_SetUserData(parser, &depth);
  XML_SetElementHandler(parser, on_start, on_end);
  XML_SetCharacterDataHandler(parser, on_text);
  Outcome outcome;
  for (ssize_t got = 1; got > 0;) {
    got = read(STDIN_FILENO, XML_GetBuffer(parser, kReadBytes), kReadBytes);
    if (got < 0 || XML_ParseBuffer(parser, static_cast<int>(got), got == 0) != XML_STATUS_OK)
      bench::fail("expat cannot read the document");
    outcome.bytes += got;
  }
  XML_ParserFree(parser);
  outcome.items = depth.items;
  return outcome;
}

int read_input(void *arg, char *buffer, int size) {
  const ssize_t got = read(STDIN_FILENO, buffer, static_cast<size_t>(size));
  if (got > 0) static_cast<Outcome *>(arg)->bytes += got;
  return static_cast<int>(got);
}

Outcome read_with_libxml2() {
  Outcome outcome;
  const xmlTextReaderPtr reader =
      xmlReaderForIO(read_input, nullptr, &outcome, nullptr, nullptr, XML_PARSE_NONET | XML_PARSE_HUGE);
  int result = xmlTextReaderRead(reader);
  while (result == 1) {
    if (xmlTextReaderDepth(reader) == 2 && xmlTextReaderNodeType(reader) == XML_READER_TYPE_ELEMENT) {
      if (xmlTextReaderExpand(reader) == nullptr) bench::fail("libxml2 cannot build an item");
      ++outcome.items;
      result = xmlTextReaderNext(reader);
    } else {
      result = xmlTextReaderRead(reader);
    }
  }
  if (result != 0) bench::fail("libxml2 cannot read the document");
  xmlFreeTextReader(reader);
  return outcome;
}

}  // namespace

int main(int argc, char **argv) {
  const bench::Arguments arguments(argc, argv);
  const std::string who = arguments.required("who");
  const long before = bench::resident_kib();
  const bench::Span span;
  const Outcome outcome = who == "expat" ? read_with_expat() : read_with_libxml2();
  if (outcome.items != arguments.number("items", 0))
    bench::fail("items are missing: there were " + std::to_string(outcome.items));
  bench::Result()
      .add("seconds", span.seconds())
      .add("bytes", static_cast<double>(outcome.bytes))
      .add("peak_kib", static_cast<double>(bench::peak_resident_kib() - before))
      .print();
}

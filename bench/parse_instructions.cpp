// Parses, and writes, the same stanza many times, for an instruction counter to watch:
//
//   valgrind --tool=callgrind --callgrind-out-file=/dev/null parse_instructions MODE STANZA COUNT
//
// MODE is "expat" (expat with namespaces and handlers that do nothing: the floor to compare with), "parse" (our trees) or "write"
// (our trees, and XML again). STANZA is "iq", "event" or "payload". Run it with two counts: the difference leaves the start-up
// out.
#include <expat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "byte_buffer.h"
#include "serializer.h"
#include "stream_parser.h"

namespace {

const char kHead[] =
    "<?xml version='1.0'?><stream:stream xmlns='jabber:client' xmlns:stream='http://etherx.jabber.org/streams' id='4f1d' "
    "from='grid.quillon.internal' version='1.0' xml:lang='en'>";

const char kIq[] =
    "<iq type='get' id='qlk-7f3a91c2-41' from='sensor@grid.quillon.internal/qlk' to='reader@grid.quillon.internal/qlk'>"
    "<grid xmlns='quillon' type='request'><readValues xmlns='urn:example:sensor'><name>boiler-3</name><count>25</count>"
    "<unit>celsius</unit></readValues></grid></iq>";

const char kEvent[] =
    "<message from='pubsub.grid.quillon.internal' to='reader@grid.quillon.internal/qlk' type='headline' id='e7a2b9d0'>"
    "<event xmlns='http://jabber.org/protocol/pubsub#event'><items node='urn:example:sensor/SensorCapability'>"
    "<item id='5c4d7e8f9a0b' publisher='sensor@grid.quillon.internal'><grid xmlns='quillon' type='notification'>"
    "<valueChanged xmlns='urn:example:sensor' xmlns:xsi='http://www.w3.org/2001/XMLSchema-instance' xsi:type='Reading'>"
    "<name>boiler-3</name><value unit='celsius'>81.25</value><time>2024-03-01T12:30:45Z</time><quality>good</quality>"
    "<note>above the &lt;upper&gt; limit</note></valueChanged></grid></item></items></event></message>";

std::string make_payload() {
  std::string xml =
      "<iq type='result' id='qlk-7f3a91c2-42' from='sensor@grid.quillon.internal/qlk' to='reader@grid.quillon.internal/qlk'>"
      "<grid xmlns='quillon' type='response'><history xmlns='urn:example:sensor'>";
  for (int i = 0; i < 99; ++i) {
    const std::string number = std::to_string(1000 + i);
    xml += "<reading id='" + number + "' sensor='boiler-3' unit='celsius'><value>81." + number +
           "</value></reading>\n  some text that goes with this reading, of a moderate length, about the plant\n";
  }
  return xml + "</history></grid></iq>";
}

void XMLCALL ignore_start(void *, const XML_Char *, const XML_Char **) {}
void XMLCALL ignore_end(void *, const XML_Char *) {}
void XMLCALL ignore_text(void *, const XML_Char *, int) {}

bool run_expat(const std::string &stanza, long count) {
  XML_Parser parser = XML_ParserCreateNS("UTF-8", '|');
  XML_SetElementHandler(parser, ignore_start, ignore_end);
  XML_SetCharacterDataHandler(parser, ignore_text);
  bool good = XML_Parse(parser, kHead, sizeof kHead - 1, XML_FALSE) == XML_STATUS_OK;
  for (long i = 0; good && i < count; ++i) {
    good = XML_Parse(parser, stanza.data(), static_cast<int>(stanza.size()), XML_FALSE) == XML_STATUS_OK;
  }
  XML_ParserFree(parser);
  return good;
}

struct Reader : wb::StreamParser::Handler {
  explicit Reader(bool write) : writes(write) {}
  void on_stream_open(wb_dom_node *) override {}
  void on_stream_close() override {}
  void on_stanza(wb_dom_node *stanza) override {
    ++stanzas;
    out.truncate(0);
    if (writes && !wb::serialize(stanza, "jabber:client", out, nullptr)) std::abort();
  }

  const bool writes;
  long stanzas = 0;
  wb::ByteBuffer out;
};

bool run_ours(const std::string &stanza, long count, bool write) {
  Reader reader(write);
  wb::StreamParser parser(reader, wb::StreamLimits{});
  if (parser.feed(kHead, sizeof kHead - 1) != wb::StreamError::none) return false;
  for (long i = 0; i < count; ++i) {
    if (parser.feed(stanza.data(), stanza.size()) != wb::StreamError::none) return false;
  }
  if (write) std::fprintf(stderr, "%zu bytes written\n", reader.out.size());
  return reader.stanzas == count;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s expat|parse|write iq|event|payload COUNT\n", argv[0]);
    return 2;
  }
  const std::string mode = argv[1];
  const std::string which = argv[2];
  const std::string stanza = which == "iq" ? kIq : which == "event" ? kEvent : make_payload();
  const long count = std::strtol(argv[3], nullptr, 10);
  const bool good = mode == "expat" ? run_expat(stanza, count) : run_ours(stanza, count, mode == "write");
  std::printf("%s %s: %ld stanzas of %zu bytes%s\n", mode.c_str(), which.c_str(), count, stanza.size(), good ? "" : " FAILED");
  return good ? 0 : 1;
}

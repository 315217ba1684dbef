// The work of parse_ours done by other libraries:
//
//   parse_peers --peer PEER --mode parse|write --stanza STANZA --count COUNT
//
// PEER is "libxml2" (its push parser, one stream, trees), "pugixml" (a document a stanza: it knows neither streams nor
// namespaces), "libstrophe" (a document a stanza, the public way to its parser) or "gloox" (its stream parser, trees).
#include <gloox/parser.h>
#include <gloox/tag.h>
#include <gloox/taghandler.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <strophe.h>

#include <pugixml.hpp>
#include <string>

#include "support/arguments.h"
#include "support/measure.h"
#include "support/stanzas.h"

namespace {

struct Work {
  std::string stanza;
  long count;
  bool writes;
};

// ---- libxml2: the default tree builder, which gives each stanza away as soon as it is whole.

struct XmlReader {
  long stanzas = 0;
  bool writes = false;
  xmlBufferPtr out = nullptr;
  endElementNsSAX2Func end_element = nullptr;
};

void end_element(void *context, const xmlChar *local, const xmlChar *prefix, const xmlChar *uri) {
  const xmlParserCtxtPtr parser = static_cast<xmlParserCtxtPtr>(context);
  XmlReader &reader = *static_cast<XmlReader *>(parser->_private);
  const xmlNodePtr node = parser->node;
  reader.end_element(context, local, prefix, uri);
  if (parser->nodeNr != 1) return;
  ++reader.stanzas;
  if (reader.writes) {
    xmlBufferEmpty(reader.out);
    if (xmlNodeDump(reader.out, parser->myDoc, node, 0, 0) < 0) bench::fail("libxml2 cannot write");
  }
  xmlUnlinkNode(node);
  xmlFreeNode(node);
}

long run_libxml2(const Work &work) {
  XmlReader reader;
  reader.writes = work.writes;
  reader.out = xmlBufferCreate();
  const std::string head = bench::kStreamHead;
  const xmlParserCtxtPtr parser = xmlCreatePushParserCtxt(nullptr, nullptr, head.data(), static_cast<int>(head.size()), nullptr);
  xmlCtxtUseOptions(parser, XML_PARSE_NONET | XML_PARSE_COMPACT);
  parser->_private = &reader;
  reader.end_element = parser->sax->endElementNs;
  parser->sax->endElementNs = end_element;
  for (long i = 0; i < work.count; ++i) {
    if (xmlParseChunk(parser, work.stanza.data(), static_cast<int>(work.stanza.size()), 0) != 0) break;
  }
  xmlFreeDoc(parser->myDoc);
  xmlFreeParserCtxt(parser);
  xmlBufferFree(reader.out);
  return reader.stanzas;
}

// ---- pugixml

struct StringWriter : pugi::xml_writer {
  void write(const void *data, size_t size) override { out.append(static_cast<const char *>(data), size); }
  std::string out;
};

long run_pugixml(const Work &work) {
  StringWriter writer;
  for (long i = 0; i < work.count; ++i) {
    pugi::xml_document document;
    if (!document.load_buffer(work.stanza.data(), work.stanza.size(), pugi::parse_default | pugi::parse_ws_pcdata_single))
      return i;
    writer.out.clear();
    if (work.writes) document.first_child().print(writer, "", pugi::format_raw);
  }
  return work.count;
}

// ---- libstrophe

long run_libstrophe(const Work &work) {
  xmpp_initialize();
  xmpp_ctx_t *const context = xmpp_ctx_new(nullptr, nullptr);
  long done = 0;
  for (; done < work.count; ++done) {
    xmpp_stanza_t *const stanza = xmpp_stanza_new_from_string(context, work.stanza.c_str());
    if (stanza == nullptr) break;
    if (work.writes) {
      char *text = nullptr;
      size_t length = 0;
      if (xmpp_stanza_to_text(stanza, &text, &length) != 0) bench::fail("libstrophe cannot write");
      xmpp_free(context, text);
    }
    xmpp_stanza_release(stanza);
  }
  xmpp_ctx_free(context);
  xmpp_shutdown();
  return done;
}

// ---- gloox

struct TagReader : gloox::TagHandler {
  explicit TagReader(bool write) : writes(write) {}
  void handleTag(gloox::Tag *tag) override {
    if (tag->name() == "stream") return;
    ++stanzas;
    if (writes && tag->xml().empty()) bench::fail("gloox cannot write");
  }
  const bool writes;
  long stanzas = 0;
};

long run_gloox(const Work &work) {
  TagReader reader(work.writes);
  gloox::Parser parser(&reader);
  std::string bytes = bench::kStreamHead;
  parser.feed(bytes);
  for (long i = 0; i < work.count; ++i) {
    bytes = work.stanza;  // the parser keeps what it wants of it
    if (parser.feed(bytes) >= 0) break;
  }
  return reader.stanzas;
}

}  // namespace

int main(int argc, char **argv) {
  const bench::Arguments arguments(argc, argv);
  const std::string peer = arguments.required("peer"), mode = arguments.required("mode");
  const Work work = {bench::make_stanza(arguments.required("stanza")), arguments.number("count", 1000), mode == "write"};
  const bench::Span span;
  long done = -1;
  if (peer == "libxml2") done = run_libxml2(work);
  if (peer == "pugixml") done = run_pugixml(work);
  if (peer == "libstrophe") done = run_libstrophe(work);
  if (peer == "gloox") done = run_gloox(work);
  if (done != work.count) bench::fail(peer + " did not do the work: " + std::to_string(done) + " stanzas");
  bench::Result()
      .add("stanzas", static_cast<double>(done))
      .add("bytes", static_cast<double>(work.stanza.size()))
      .add("seconds", span.seconds())
      .print();
}

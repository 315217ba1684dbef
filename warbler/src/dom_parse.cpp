#include <expat.h>
#include <strings.h>
#include <warbler/dom.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <type_traits>

#include "dom_builder.h"
#include "guard.h"
#include "xml_text.h"

namespace {

// A tag that a piece cuts is scanned again with the next one. Pieces that double keep that linear, and expat's copy of them
// small.
constexpr size_t kFirstPiece = 64u << 10;
constexpr size_t kPieceMax = 1u << 30;

constexpr char kNotUtf8[] = "the document is not in UTF-8";

struct ParserFree {
  void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
};
using ParserPtr = std::unique_ptr<std::remove_pointer_t<XML_Parser>, ParserFree>;

// What the names may take: room for every document that repeats some, and in proportion to its length.
constexpr size_t kNamesBytes = 16u << 20;
constexpr size_t kNamesBytesEachByte = 64;

wb::BuildOptions build_options(size_t length) {
  wb::BuildOptions options;
  options.names_bytes_max = kNamesBytes + kNamesBytesEachByte * std::min(length, SIZE_MAX / 2 / kNamesBytesEachByte);
  return options;
}

struct Document {
  explicit Document(size_t length) : builder(build_options(length)) {}

  ParserPtr parser;
  wb::DomBuilder builder;
  wb_errcode error = WB_ERR_NONE;
  const char *message = nullptr;

  void fail(wb_errcode code, const char *text) {
    if (error != WB_ERR_NONE) return;
    error = code;
    message = text;
    XML_StopParser(parser.get(), XML_FALSE);
  }
};

template <typename Body>
void guard(void *self, Body body) {
  auto &document = *static_cast<Document *>(self);
  if (document.error != WB_ERR_NONE) return;
  try {
    body(document);
  } catch (const abi::__forced_unwind &) {
    throw;
  } catch (...) {
    document.fail(WB_ERR_NO_MEMORY, nullptr);
  }
}

void XMLCALL on_start(void *self, const XML_Char *name, const XML_Char **attributes) {
  guard(self, [&](Document &document) {
    const wb::BuildResult result = document.builder.open(name, attributes);
    if (result == wb::BuildResult::too_many_names) return document.fail(WB_ERR_BAD_FORMAT, "names take too much memory");
    if (result != wb::BuildResult::ok) document.fail(WB_ERR_BAD_FORMAT, "namespaces misused");
  });
}

void XMLCALL on_end(void *self, const XML_Char *) {
  guard(self, [](Document &document) { document.builder.close(); });
}

void XMLCALL on_text(void *self, const XML_Char *bytes, int length) {
  guard(self, [&](Document &document) { document.builder.text(bytes, static_cast<size_t>(length)); });
}

void XMLCALL on_xml_declaration(void *self, const XML_Char *, const XML_Char *encoding, int) {
  guard(self, [&](Document &document) {
    if (encoding != nullptr && strcasecmp(encoding, "UTF-8") != 0) document.fail(WB_ERR_BAD_FORMAT, kNotUtf8);
  });
}

void XMLCALL on_instruction(void *self, const XML_Char *target, const XML_Char *) {
  guard(self, [&](Document &document) {
    if (std::strchr(target, ':') != nullptr) document.fail(WB_ERR_BAD_FORMAT, "colon in the target of a processing instruction");
  });
}

void XMLCALL on_doctype(void *self, const XML_Char *, const XML_Char *, const XML_Char *, int) {
  guard(self, [](Document &document) { document.fail(WB_ERR_BAD_FORMAT, "document type declaration"); });
}

void parse(Document &document, const char *xml, size_t length) {
  XML_Parser parser = document.parser.get();
  if (length > 0 && wb::begins_as_utf16(xml, length)) return document.fail(WB_ERR_BAD_FORMAT, kNotUtf8);
  size_t piece = kFirstPiece;
  bool is_last = false;
  while (!is_last && document.error == WB_ERR_NONE) {
    const size_t now = std::min(piece, length);
    is_last = now == length;
    if (XML_Parse(parser, xml, static_cast<int>(now), is_last ? XML_TRUE : XML_FALSE) == XML_STATUS_ERROR) {
      const XML_Error error = XML_GetErrorCode(parser);
      document.fail(error == XML_ERROR_NO_MEMORY ? WB_ERR_NO_MEMORY : WB_ERR_BAD_FORMAT, XML_ErrorString(error));
    }
    xml += now;
    length -= now;
    piece = std::min(piece * 2, kPieceMax);
  }
}

}  // namespace

bool wb_dom_parse(const char *xml, size_t length, wb_dom_node **root, wb_err *err) {
  return wb::guarded(err, __func__, [&] {
    if (root == nullptr) return WB_FAIL(err, WB_ERR_INVALID_ARG, "no place for the root");
    *root = nullptr;
    if (xml == nullptr) return WB_FAIL(err, WB_ERR_INVALID_ARG, "no document");
    Document document(length);
    document.parser.reset(XML_ParserCreate("UTF-8"));
    XML_Parser parser = document.parser.get();
    if (parser == nullptr) return WB_FAIL(err, WB_ERR_NO_MEMORY, nullptr);
    XML_SetUserData(parser, &document);
    XML_SetElementHandler(parser, on_start, on_end);
    XML_SetCharacterDataHandler(parser, on_text);
    XML_SetXmlDeclHandler(parser, on_xml_declaration);
    XML_SetProcessingInstructionHandler(parser, on_instruction);
    XML_SetStartDoctypeDeclHandler(parser, on_doctype);
    parse(document, xml, length);
    if (document.error != WB_ERR_NONE) return WB_FAIL(err, document.error, document.message);
    static_cast<void>(document.builder.take().release());
    *root = document.builder.root();
    return true;
  });
}

#include "verdict.h"

#include <expat.h>
#include <strings.h>
#include <warbler/dom.h>

#include <cstdlib>
#include <memory>
#include <optional>
#include <regex>
#include <string_view>

#include "stream_parser.h"

namespace conformance {

namespace {

using wb::StreamError;

// A byte order mark of UTF-8 may stand before everything.
std::string_view without_mark(std::string_view text) {
  constexpr std::string_view kMark = "\xEF\xBB\xBF";
  return text.starts_with(kMark) ? text.substr(kMark.size()) : text;
}

// A document type declaration stands before the first element, with comments, instructions and blanks before it.
bool has_dtd(std::string_view text) {
  text = without_mark(text);
  for (;;) {
    const size_t start = text.find_first_not_of(" \t\r\n");
    if (start == text.npos) return false;
    text.remove_prefix(start);
    const bool is_comment = text.starts_with("<!--");
    if (!is_comment && !text.starts_with("<?")) return text.starts_with("<!DOCTYPE");
    const size_t end = text.find(is_comment ? "-->" : "?>", 2);
    if (end == text.npos) return false;
    text.remove_prefix(end + (is_comment ? 3 : 2));
  }
}

bool is_in_utf8(std::string_view text) {
  if (text.starts_with("\xFF\xFE") || text.starts_with("\xFE\xFF") || text.substr(0, 4).find('\0') != text.npos) return false;
  const std::string head(without_mark(text).substr(0, 200));
  static const std::regex declared("^<\\?xml\\s[^>]*encoding\\s*=\\s*[\"']([A-Za-z][A-Za-z0-9._-]*)[\"']");
  std::smatch found;
  return !std::regex_search(head, found, declared) || strcasecmp(found[1].str().c_str(), "UTF-8") == 0;
}

bool is_in_scope(const Case &item) {
  if (!item.uses_namespaces || item.version == "1.1") return false;
  if (item.recommendation == "XML1.1" || item.recommendation == "NS1.1") return false;
  return item.edition.empty() || item.edition.find('4') != item.edition.npos;
}

// ---- The document as a whole

std::optional<std::string> fault_of_dom(bool is_read, const std::string &text) {
  wb_dom_node *root = nullptr;
  wb_err err = {};
  const bool done = wb_dom_parse(text.data(), text.size(), &root, &err);
  const std::string said = err.message != nullptr ? err.message : "";
  if (done) wb_dom_context_destroy(wb_dom_get_context(root));
  if (done != is_read) return done ? "the DOM parser reads it" : "the DOM parser refuses it: " + said;
  if (!done && err.code != WB_ERR_BAD_FORMAT) return "the DOM parser's error is " + std::to_string(err.code);
  if (!done && root != nullptr) return "the DOM parser hands out a tree all the same";
  return std::nullopt;
}

// ---- The document as a stanza

struct Counter : wb::StreamParser::Handler {
  void on_stream_open(wb_dom_node *) override { ++opened; }
  void on_stanza(wb_dom_node *) override { ++stanzas; }
  void on_stream_close() override { ++closed; }
  int opened = 0, stanzas = 0, closed = 0;
};

struct Reading {
  bool is_read;
  StreamError error;
  std::string said;
};

Reading read_stream(const std::string &text, size_t piece) {
  const std::string stream = "<s:stream xmlns:s='urn:s' xmlns='jabber:client'>" + text + "</s:stream>";
  Counter counter;
  wb::StreamParser parser(counter, {.max_stanza_bytes = size_t{1} << 30, .max_depth = 100'000, .max_attributes = 100'000});
  StreamError error = StreamError::none;
  for (size_t at = 0; at < stream.size() && error == StreamError::none; at += piece)
    error = parser.feed(stream.data() + at, std::min(piece, stream.size() - at));
  return {error == StreamError::none && counter.stanzas == 1 && counter.closed == 1, error, parser.error_text()};
}

// A stanza has no XML declaration. One that is in order is left out; one that is not stays, and must be refused.
std::string as_stanza(const std::string &text) {
  static const std::regex declaration(
      "^<\\?xml\\s+version\\s*=\\s*(\"1\\.0\"|'1\\.0')(\\s+encoding\\s*=\\s*(\"[Uu][Tt][Ff]-8\"|'[Uu][Tt][Ff]-8'))?"
      "(\\s+standalone\\s*=\\s*(\"(yes|no)\"|'(yes|no)'))?\\s*\\?>");
  return std::regex_replace(std::string(without_mark(text)), declaration, "", std::regex_constants::format_first_only);
}

// What expat finds in a document.
struct Content {
  bool is_forbidden = false;      // comments and instructions, which a stream has to refuse
  bool is_fault_outside = false;  // before or behind the one element
  int depth = 0;
};

Content content_of(const std::string &text) {
  const std::unique_ptr<std::remove_pointer_t<XML_Parser>, void (*)(XML_Parser)> parser(XML_ParserCreate(nullptr),
                                                                                        XML_ParserFree);
  Content found;
  XML_SetUserData(parser.get(), &found);
  XML_SetElementHandler(
      parser.get(), [](void *it, const char *, const char **) { ++static_cast<Content *>(it)->depth; },
      [](void *it, const char *) { --static_cast<Content *>(it)->depth; });
  XML_SetCommentHandler(parser.get(), [](void *it, const char *) { static_cast<Content *>(it)->is_forbidden = true; });
  XML_SetProcessingInstructionHandler(
      parser.get(), [](void *it, const char *, const char *) { static_cast<Content *>(it)->is_forbidden = true; });
  const XML_Status status = XML_Parse(parser.get(), text.data(), static_cast<int>(text.size()), XML_TRUE);
  found.is_fault_outside = status == XML_STATUS_ERROR && found.depth == 0;
  return found;
}

// Without references to blanks and CDATA sections of blanks.
std::string without_written_blanks(const std::string &text) {
  static const std::regex blank("&#(32|x20|9|x9|10|xA|13|xD);|<!\\[CDATA\\[\\s*\\]\\]>");
  return std::regex_replace(text, blank, "");
}

std::optional<std::string> fault_of_stream(bool is_read, const std::string &text, size_t piece) {
  const Content content = content_of(text);
  const bool is_forbidden = is_read && content.is_forbidden;
  const Reading reading = read_stream(as_stanza(text), piece);
  const std::string how = piece == 1 ? " in bytes" : "";
  // Between stanzas there may be references and CDATA sections, as long as they stand for blanks.
  if (reading.is_read && !is_read && content.is_fault_outside && without_written_blanks(text) != text) return std::nullopt;
  if (reading.is_read != (is_read && !is_forbidden))
    return (reading.is_read ? "the stream parser reads it" : "the stream parser refuses it: " + reading.said) + how;
  if (is_forbidden && reading.error != StreamError::restricted_xml)
    return "the stream parser's error is " + std::to_string(static_cast<int>(reading.error)) + how;
  if (reading.error == StreamError::no_memory) return "the stream parser finds no memory" + how;
  return std::nullopt;
}

}  // namespace

const char *name_of(Kind kind) {
  switch (kind) {
    case Kind::well_formed:
      return "well-formed, without a DTD";
    case Kind::not_well_formed:
      return "not well-formed, without a DTD";
    case Kind::with_dtd:
      return "with a DTD";
    case Kind::not_utf8:
      return "not in UTF-8";
    case Kind::open:
      return "left open by the suite";
    case Kind::out_of_scope:
      return "out of scope";
  }
  return "";
}

Kind kind_of(const Case &item, const std::string &text) {
  if (!is_in_scope(item)) return Kind::out_of_scope;
  if (!is_in_utf8(text)) return Kind::not_utf8;
  if (has_dtd(text)) return Kind::with_dtd;
  if (item.type == "error") return Kind::open;
  return item.type == "not-wf" ? Kind::not_well_formed : Kind::well_formed;
}

std::vector<std::string> judge(Kind kind, const std::string &text) {
  std::vector<std::string> faults;
  if (kind == Kind::out_of_scope || kind == Kind::open) return faults;
  const bool is_read = kind == Kind::well_formed;
  for (const std::optional<std::string> &fault :
       {fault_of_dom(is_read, text), fault_of_stream(is_read, text, text.size() + 100), fault_of_stream(is_read, text, 1)})
    if (fault.has_value()) faults.push_back(*fault);
  return faults;
}

Report run_suite(const std::filesystem::path &folder) {
  Report report;
  for (const Case &item : read_catalogue(folder)) {
    const std::string text = read_file(item.path);
    const Kind kind = kind_of(item, text);
    ++report.counts[kind];
    std::vector<std::string> faults = judge(kind, text);
    if (!faults.empty()) report.disagreements[item.id] = std::move(faults);
  }
  return report;
}

}  // namespace conformance

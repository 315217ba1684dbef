// Reads an XMPP stream in whatever pieces it comes: the stream's head, each stanza as a tree, its end.
//
// expat scans an unfinished tag again from its start with every piece, so that a long tag in small pieces would cost quadratic
// time. Bytes are therefore held back here from a tag's '<' until its '>' has come, however long it is. What remains are
// comments, processing instructions and the parts of a DTD, all of which the stream forbids, and references: one that is
// unfinished after kUnfinishedMax bytes ends the stream.
//
// expat keeps every distinct name for the life of a parser, and so do we. When they have become many, both are replaced between
// two stanzas; the fresh parser is shown the stream's head again.
#pragma once

#include <expat.h>
#include <warbler/dom.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <string>
#include <type_traits>

#include "dom_builder.h"

namespace wb {

struct StreamLimits {
  size_t max_stanza_bytes = 4u << 20;  // from a stanza's first '<' to its last '>', as written
  unsigned max_depth = 256;            // a stanza itself has depth 1
  unsigned max_attributes = 256;       // of one element, declarations among them
};

enum class StreamError {
  none,
  not_well_formed,
  restricted_xml,
  policy_violation,  // a limit
  unsupported_encoding,
  bad_namespace,
  no_memory
};

class StreamParser {
 public:
  // Called by parse. A node lives in a context of its own for the length of the call, longer for who retains the context.
  struct Handler {
    virtual void on_stream_open(wb_dom_node *head) = 0;  // the root element: its attributes and declarations
    virtual void on_stanza(wb_dom_node *stanza) = 0;     // a complete child of the root
    virtual void on_stream_close() = 0;                  // the root's end tag; what follows it is dropped

   protected:
    ~Handler() = default;
  };

  StreamParser(Handler &handler, const StreamLimits &limits) : handler_(handler), limits_(limits) {}

  // Room for size bytes; null when memory is out. It is valid until the next call of any function here.
  char *buffer(size_t size);

  // Consumes the first length bytes of buffer(); the handlers run inside. An error stays until reset. Not from inside a handler.
  StreamError parse(size_t length);

  // The same for bytes that lie elsewhere.
  StreamError feed(const char *bytes, size_t length);

  // From inside on_stanza: nothing that was read so far comes behind the stanza, except for the beginning of a tag.
  bool is_last_stanza() const { return stanza_end_ == given_; }

  // Expects a fresh stream. From inside a handler: once that returns, the rest of the input is dropped and parse returns.
  void reset();

  // No handler runs any more and all input is dropped, until reset. From inside a handler too.
  void stop();

  // What was wrong, for a log; "" without an error.
  const char *error_text() const { return error_text_; }

  static constexpr size_t kUnfinishedMax = 4096;
  // A fresh parser reads the head again: it must not be so long that a few stanzas make that a burden.
  static constexpr size_t kHeadBytesMax = 16u << 10;
  // What the names of a stanza may take, each with its namespace's URI in front.
  static constexpr size_t kNamesBytesMax = 16u << 20;

 private:
  struct ParserFree {
    void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
  };
  using ParserPtr = std::unique_ptr<std::remove_pointer_t<XML_Parser>, ParserFree>;
  struct MemoryFree {
    void operator()(char *memory) const { std::free(memory); }
  };

  // How far into the tag that is held back the search for its end has come.
  enum class Scan : char { start, name, end_tag, single_quoted, double_quoted };
  enum class State : char { running, stopped, reset_wanted, closed, failed };

  size_t max_head_bytes() const { return std::min(limits_.max_stanza_bytes, kHeadBytesMax); }
  static const char *scan_tag(const char *at, const char *end, Scan &scan);
  size_t find_unfinished_tag(const char *bytes, size_t from, size_t size);
  void consume(size_t size);
  void run(const char *bytes, size_t length);
  bool parse_piece(const char *bytes, size_t length);
  void check_pending();
  void make_parser();
  void renew();
  void clear();
  void fail(StreamError error, const char *text);
  void fail_expat();
  bool accept(BuildResult result);
  void finish_stanza();
  void after_handler();
  void start_element(const XML_Char *name, const XML_Char **attributes);
  void end_element();
  void character_data(const XML_Char *bytes, size_t length);

  template <typename Body>
  static void guard(void *self, Body body);
  static void XMLCALL on_start(void *self, const XML_Char *name, const XML_Char **attributes);
  static void XMLCALL on_end(void *self, const XML_Char *name);
  static void XMLCALL on_text(void *self, const XML_Char *bytes, int length);
  static void XMLCALL on_cdata_start(void *self);
  static void XMLCALL on_cdata_end(void *self);
  static void XMLCALL on_xml_declaration(void *self, const XML_Char *version, const XML_Char *encoding, int standalone);
  static void XMLCALL on_comment(void *self, const XML_Char *text);
  static void XMLCALL on_instruction(void *self, const XML_Char *target, const XML_Char *text);
  static void XMLCALL on_doctype(void *self, const XML_Char *name, const XML_Char *system, const XML_Char *pub, int has_subset);

  Handler &handler_;
  const StreamLimits limits_;

  std::unique_ptr<char, MemoryFree> input_;
  size_t capacity_ = 0;
  size_t held_ = 0;  // bytes at the front of input_ that are an unfinished tag
  Scan scan_ = Scan::start;

  ParserPtr parser_;  // null: to be made with the next bytes
  std::unique_ptr<DomBuilder> builder_;
  std::string head_;  // the start tag that brings a fresh parser to where the stream is between two stanzas

  XML_Index given_ = 0;         // bytes that parser_ was given
  XML_Index stanza_start_ = 0;  // as parser_ counts
  XML_Index stanza_end_ = 0;
  unsigned depth_ = 0;  // open elements, the root among them
  bool in_cdata_ = false;
  bool parsing_ = false;
  bool replaying_ = false;     // parser_ is being shown head_
  bool renew_wanted_ = false;  // a stanza has ended, and parser_ is to be replaced
  bool swollen_ = false;       // parser_ was given so much at once that its buffer is large
  State state_ = State::running;
  StreamError error_ = StreamError::none;
  const char *error_text_ = "";
};

}  // namespace wb

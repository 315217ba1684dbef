#include "stream_parser.h"

#include <strings.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "expat_deferral.h"
#include "guard.h"
#include "xml_text.h"

namespace {

// expat takes lengths as int.
constexpr size_t kPieceMax = 1u << 30;
// A buffer, here or in expat, that has grown beyond this is given back when it is no longer needed.
constexpr size_t kBufferKeepMax = 256u << 10;
constexpr size_t kBufferMin = 4096;

constexpr char kNotUtf8[] = "the stream is not in UTF-8";

bool is_blank(const char *bytes, size_t length) {
  return std::all_of(bytes, bytes + length, [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; });
}

// The start tag of the stream's root, cut down to what the stanzas depend on.
std::string make_head(const char *name, const wb::Element &root) {
  std::string head = std::string("<") + name;
  for (const wb::Declaration *declaration = root.declarations; declaration != nullptr; declaration = declaration->next) {
    std::string attribute = "xmlns";
    if (declaration->prefix->length != 0) attribute.append(":").append(declaration->prefix->view());
    wb::append_attribute(head, attribute, declaration->uri->view());
  }
  return head + ">";
}

}  // namespace

template <typename Body>
void wb::StreamParser::guard(void *self, Body body) {
  auto &parser = *static_cast<StreamParser *>(self);
  if (parser.state_ != State::running || parser.renew_wanted_) return;
  try {
    body(parser);
  } catch (const abi::__forced_unwind &) {
    throw;
  } catch (const std::bad_alloc &) {
    parser.fail(StreamError::no_memory, "out of memory");
  } catch (...) {
    parser.fail(StreamError::no_memory, "unexpected exception");
  }
}

void XMLCALL wb::StreamParser::on_start(void *self, const XML_Char *name, const XML_Char **attributes) {
  guard(self, [&](StreamParser &parser) { parser.start_element(name, attributes); });
}

void XMLCALL wb::StreamParser::on_end(void *self, const XML_Char *) {
  guard(self, [](StreamParser &parser) { parser.end_element(); });
}

void XMLCALL wb::StreamParser::on_text(void *self, const XML_Char *bytes, int length) {
  guard(self, [&](StreamParser &parser) { parser.character_data(bytes, static_cast<size_t>(length)); });
}

void XMLCALL wb::StreamParser::on_cdata_start(void *self) { static_cast<StreamParser *>(self)->in_cdata_ = true; }

void XMLCALL wb::StreamParser::on_cdata_end(void *self) { static_cast<StreamParser *>(self)->in_cdata_ = false; }

void XMLCALL wb::StreamParser::on_xml_declaration(void *self, const XML_Char *, const XML_Char *encoding, int) {
  guard(self, [&](StreamParser &parser) {
    if (encoding != nullptr && strcasecmp(encoding, "UTF-8") != 0) {
      parser.fail(StreamError::unsupported_encoding, kNotUtf8);
    }
  });
}

void XMLCALL wb::StreamParser::on_comment(void *self, const XML_Char *) {
  guard(self, [](StreamParser &parser) { parser.fail(StreamError::restricted_xml, "comment in the stream"); });
}

void XMLCALL wb::StreamParser::on_instruction(void *self, const XML_Char *, const XML_Char *) {
  guard(self, [](StreamParser &parser) { parser.fail(StreamError::restricted_xml, "processing instruction in the stream"); });
}

void XMLCALL wb::StreamParser::on_doctype(void *self, const XML_Char *, const XML_Char *, const XML_Char *, int) {
  guard(self, [](StreamParser &parser) { parser.fail(StreamError::restricted_xml, "document type declaration in the stream"); });
}

char *wb::StreamParser::buffer(size_t size) {
  if (size > SIZE_MAX / 4) return nullptr;
  const size_t wanted = held_ + size;
  if (held_ == 0 && capacity_ > kBufferKeepMax && wanted <= kBufferKeepMax) {
    input_.reset();
    capacity_ = 0;
  }
  if (wanted > capacity_) {
    const size_t capacity = std::max({wanted, capacity_ + capacity_ / 2, kBufferMin});
    auto *const memory = static_cast<char *>(std::realloc(input_.get(), capacity));
    if (memory == nullptr) return nullptr;
    static_cast<void>(input_.release());
    input_.reset(memory);
    capacity_ = capacity;
  }
  return input_.get() + held_;
}

wb::StreamError wb::StreamParser::feed(const char *bytes, size_t length) {
  if (length == 0) return error_;
  char *const room = buffer(length);
  if (room == nullptr) {
    fail(StreamError::no_memory, "out of memory");
    return error_;
  }
  std::memcpy(room, bytes, length);
  return parse(length);
}

wb::StreamError wb::StreamParser::parse(size_t length) {
  if (state_ != State::running || length == 0) return error_;
  parsing_ = true;
  try {
    consume(held_ + length);
    if (state_ == State::running) check_pending();
  } catch (const abi::__forced_unwind &) {
    throw;
  } catch (...) {
    fail(StreamError::no_memory, "out of memory");
  }
  parsing_ = false;
  if (state_ == State::reset_wanted) clear();
  if (state_ != State::running) held_ = 0;
  return error_;
}

void wb::StreamParser::reset() {
  if (parsing_) {
    state_ = State::reset_wanted;
  } else {
    clear();
  }
}

void wb::StreamParser::stop() { state_ = State::stopped; }

void wb::StreamParser::clear() {
  parser_.reset();
  builder_.reset();
  head_.clear();
  held_ = 0;
  depth_ = 0;
  in_cdata_ = replaying_ = renew_wanted_ = swollen_ = false;
  state_ = State::running;
  error_ = StreamError::none;
  error_text_ = "";
}

void wb::StreamParser::fail(StreamError error, const char *text) {
  if (state_ != State::running) return;
  state_ = State::failed;
  error_ = error;
  error_text_ = text;
  if (parser_ != nullptr) XML_StopParser(parser_.get(), XML_FALSE);
}

// From a tag's bytes behind its '<' on: the place from which on there is nothing to hold back, null when that has not come. A '<'
// in a tag is wrong, and what begins with "<!" or "<?" is no tag: expat sees to both.
const char *wb::StreamParser::scan_tag(const char *at, const char *end, Scan &scan) {
  for (; at != end; ++at) {
    const char c = *at;
    if (c == '<') return at;
    switch (scan) {
      case Scan::start:
        if (c == '!' || c == '?' || c == '>' || c == '"' || c == '\'') return at;
        scan = c == '/' ? Scan::end_tag : Scan::name;
        break;
      case Scan::name:
        if (c == '>') return at;
        if (c == '"') scan = Scan::double_quoted;
        if (c == '\'') scan = Scan::single_quoted;
        break;
      case Scan::end_tag:
        if (c == '>' || c == '"' || c == '\'') return at;
        break;
      case Scan::single_quoted:
        if (c == '\'') scan = Scan::name;
        break;
      case Scan::double_quoted:
        if (c == '"') scan = Scan::name;
        break;
    }
  }
  return nullptr;
}

// The place of the '<' after which no tag is finished, or size.
size_t wb::StreamParser::find_unfinished_tag(const char *bytes, size_t from, size_t size) {
  const size_t last = std::string_view(bytes + from, size - from).rfind('<');
  if (last == std::string_view::npos) return size;
  scan_ = Scan::start;
  const size_t start = from + last;
  return scan_tag(bytes + start + 1, bytes + size, scan_) != nullptr ? size : start;
}

void wb::StreamParser::consume(size_t size) {
  char *const bytes = input_.get();
  size_t from = 0;
  if (held_ > 0) {
    const char *const free_from = scan_tag(bytes + held_, bytes + size, scan_);
    held_ = size;
    if (free_from == nullptr) return;
    held_ = 0;
    from = static_cast<size_t>(free_from - bytes);
  }
  const size_t cut = find_unfinished_tag(bytes, from, size);
  run(bytes, cut);
  if (cut == size || state_ != State::running) return;
  int offset = 0;
  int count = 0;
  const char *const context = parser_ != nullptr ? XML_GetInputContext(parser_.get(), &offset, &count) : nullptr;
  // In a CDATA section or a comment a '<' begins no tag.
  const bool in_markup = context != nullptr && offset < count && context[offset] == '<';
  if (in_cdata_ || in_markup) return run(bytes + cut, size - cut);
  held_ = size - cut;
  std::memmove(bytes, bytes + cut, held_);
}

void wb::StreamParser::run(const char *bytes, size_t length) {
  while (length > 0 && state_ == State::running) {
    if (parser_ == nullptr) make_parser();
    size_t consumed = std::min(length, kPieceMax);
    const XML_Index before = given_;
    if ((given_ == 0 && begins_as_utf16(bytes, 1)) || (given_ == 1 && *bytes == '\0'))
      return fail(StreamError::unsupported_encoding, kNotUtf8);
    // The second byte is looked at once expat has judged the first, as when they come one by one.
    if (given_ == 0 && length > 1 && bytes[1] == '\0') consumed = 1;
    if (consumed > kBufferKeepMax) swollen_ = true;
    const bool parsed = parse_piece(bytes, consumed);
    if (state_ != State::running) return;
    if (renew_wanted_) {
      consumed = static_cast<size_t>(stanza_end_ - before);
      renew();
    } else if (!parsed) {
      return fail_expat();
    }
    bytes += consumed;
    length -= consumed;
  }
}

bool wb::StreamParser::parse_piece(const char *bytes, size_t length) {
  given_ += static_cast<XML_Index>(length);
  return XML_Parse(parser_.get(), bytes, static_cast<int>(length), XML_FALSE) != XML_STATUS_ERROR;
}

// What has not come to its end yet must not have grown beyond its limit.
void wb::StreamParser::check_pending() {
  const size_t stanza = depth_ > 1 ? static_cast<size_t>(given_ - stanza_start_) : 0;
  if (stanza + held_ > limits_.max_stanza_bytes) return fail(StreamError::policy_violation, "stanza too large");
  if (depth_ == 0 && held_ > max_head_bytes()) return fail(StreamError::policy_violation, "stream head too large");
  const XML_Index position = parser_ != nullptr ? XML_GetCurrentByteIndex(parser_.get()) : -1;
  if (position >= 0 && static_cast<size_t>(given_ - position) > kUnfinishedMax) {
    fail(StreamError::restricted_xml, "markup that is no tag in the stream");
  }
}

void wb::StreamParser::make_parser() {
  BuildOptions options;
  options.attributes_max = limits_.max_attributes;
  options.names_bytes_max = kNamesBytesMax;
  builder_ = std::make_unique<DomBuilder>(options);
  parser_.reset(XML_ParserCreate("UTF-8"));
  if (parser_ == nullptr) throw std::bad_alloc();
  given_ = 0;
  depth_ = 0;
  in_cdata_ = renew_wanted_ = swollen_ = false;
  XML_Parser parser = parser_.get();
  disable_reparse_deferral(parser);
  XML_SetUserData(parser, this);
  XML_SetElementHandler(parser, on_start, on_end);
  XML_SetCharacterDataHandler(parser, on_text);
  XML_SetCdataSectionHandler(parser, on_cdata_start, on_cdata_end);
  XML_SetXmlDeclHandler(parser, on_xml_declaration);
  XML_SetCommentHandler(parser, on_comment);
  XML_SetProcessingInstructionHandler(parser, on_instruction);
  XML_SetStartDoctypeDeclHandler(parser, on_doctype);
}

void wb::StreamParser::renew() {
  make_parser();
  replaying_ = true;
  const bool parsed = parse_piece(head_.data(), head_.size());
  replaying_ = false;
  builder_->take_names_as_known();
  if (!parsed && state_ == State::running) fail_expat();
}

void wb::StreamParser::fail_expat() {
  const XML_Error error = XML_GetErrorCode(parser_.get());
  StreamError kind = StreamError::not_well_formed;
  if (error == XML_ERROR_NO_MEMORY) kind = StreamError::no_memory;
  if (error == XML_ERROR_UNDEFINED_ENTITY) kind = StreamError::restricted_xml;
  if (error == XML_ERROR_UNKNOWN_ENCODING || error == XML_ERROR_INCORRECT_ENCODING) kind = StreamError::unsupported_encoding;
  fail(kind, XML_ErrorString(error));
}

bool wb::StreamParser::accept(BuildResult result) {
  if (result == BuildResult::bad_namespace) fail(StreamError::bad_namespace, "namespaces misused");
  if (result == BuildResult::too_many_attributes) fail(StreamError::policy_violation, "too many attributes");
  if (result == BuildResult::too_many_names) fail(StreamError::policy_violation, "names take too much memory");
  return result == BuildResult::ok;
}

void wb::StreamParser::start_element(const XML_Char *name, const XML_Char **attributes) {
  if (depth_ > limits_.max_depth) return fail(StreamError::policy_violation, "elements nested too deep");
  ++depth_;
  if (depth_ == 2) stanza_start_ = XML_GetCurrentByteIndex(parser_.get());
  if (replaying_) {
    accept(builder_->enter(name, attributes));
    return;
  }
  if (!accept(builder_->open(name, attributes)) || depth_ > 1) return;
  if (static_cast<size_t>(XML_GetCurrentByteCount(parser_.get())) > max_head_bytes()) {
    return fail(StreamError::policy_violation, "stream head too large");
  }
  head_ = make_head(name, *builder_->root());
  builder_->detach();
  const ContextRef context = builder_->take();
  handler_.on_stream_open(builder_->root());
  after_handler();
}

void wb::StreamParser::end_element() {
  const bool is_whole = builder_->close();
  --depth_;
  if (is_whole) return finish_stanza();
  if (depth_ > 0) return;
  state_ = State::closed;
  handler_.on_stream_close();
  after_handler();
}

void wb::StreamParser::finish_stanza() {
  const ContextRef context = builder_->take();
  stanza_end_ = XML_GetCurrentByteIndex(parser_.get()) + XML_GetCurrentByteCount(parser_.get());
  if (static_cast<size_t>(stanza_end_ - stanza_start_) > limits_.max_stanza_bytes) {
    return fail(StreamError::policy_violation, "stanza too large");
  }
  handler_.on_stanza(builder_->root());
  if (state_ == State::running && (swollen_ || builder_->is_full())) {
    renew_wanted_ = true;
    XML_StopParser(parser_.get(), XML_FALSE);
  }
  after_handler();
}

void wb::StreamParser::after_handler() {
  if (state_ != State::running) XML_StopParser(parser_.get(), XML_FALSE);
}

void wb::StreamParser::character_data(const XML_Char *bytes, size_t length) {
  if (depth_ > 1) return builder_->text(bytes, length);
  if (!is_blank(bytes, length)) fail(StreamError::not_well_formed, "text between stanzas");
}

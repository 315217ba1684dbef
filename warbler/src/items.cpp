// expat and we keep every distinct name for the life of a parser. When they have become many, both are replaced between two
// items, or two elements around items; the fresh parser is shown the start tags of what is open.
#include <warbler/items.h>

#include <expat.h>
#include <strings.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "dom_builder.h"
#include "expat_deferral.h"
#include "guard.h"
#include "token_scan.h"
#include "xml_text.h"

namespace {

constexpr char kTooManyNames[] = "too many names";

constexpr unsigned kDepthMax = 16384;
constexpr size_t kItemBytesMax = 64u << 20;
constexpr size_t kTokenBytesMax = 4u << 20;
// Markup whose end cannot be foreseen, such as a reference, is shown to expat again and again.
constexpr size_t kUnknownTokenMax = 16u << 10;
// Of names that one item brings along.
constexpr size_t kNameBytesMax = 16u << 20;
// expat takes lengths as int.
constexpr size_t kPieceMax = 1u << 30;
constexpr size_t kHeldKeepMax = 64u << 10;

struct ParserFree {
  void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
};
using ParserPtr = std::unique_ptr<std::remove_pointer_t<XML_Parser>, ParserFree>;

template <typename Number>
Number or_default(Number given, Number usual) {
  return given != 0 ? given : usual;
}

wb_item_reader_options completed(wb_item_reader_options options) {
  options.depth_max = or_default(options.depth_max, kDepthMax);
  options.item_bytes_max = or_default(options.item_bytes_max, kItemBytesMax);
  options.token_bytes_max = or_default(options.token_bytes_max, kTokenBytesMax);
  return options;
}

wb::BuildOptions build_options(const wb_item_reader_options &options) {
  wb::BuildOptions result;
  result.names_bytes_max = kNameBytesMax;
  result.keeps_declarations = false;
  result.text_waits = options.text_waits;
  return result;
}

// The start tag cut down to what the elements in it depend on.
std::string make_head(const char *name, const char **attributes) {
  std::string head = std::string("<") + name;
  for (; *attributes != nullptr; attributes += 2) {
    if (std::strncmp(*attributes, "xmlns", 5) == 0) wb::append_attribute(head, attributes[0], attributes[1]);
  }
  return head + ">";
}

}  // namespace

struct wb_item_reader {
 public:
  explicit wb_item_reader(const wb_item_reader_options &options) : options_(completed(options)) { make_parser(); }

  bool feed(const char *bytes, size_t length, wb_err *err);

 private:
  void make_parser();
  void consume(const char *bytes, size_t length);
  void hold(const char *bytes, size_t length);
  void run(const char *bytes, size_t length);
  bool parse_piece(const char *bytes, size_t length);
  void look_at_rest(const char *bytes, size_t length);
  void renew();
  void fail(wb_errcode code, const char *text);
  void fail_expat();
  void start_element(const XML_Char *name, const XML_Char **attributes);
  void end_element();
  void character_data(const XML_Char *bytes, size_t length);
  void check_item();
  bool check_token();

  template <typename Body>
  static void guard(void *self, Body body);
  static void XMLCALL on_start(void *self, const XML_Char *name, const XML_Char **attributes);
  static void XMLCALL on_end(void *self, const XML_Char *name);
  static void XMLCALL on_text(void *self, const XML_Char *bytes, int length);
  static void XMLCALL on_xml_declaration(void *self, const XML_Char *version, const XML_Char *encoding, int standalone);
  static void XMLCALL on_instruction(void *self, const XML_Char *target, const XML_Char *text);
  static void XMLCALL on_comment(void *self, const XML_Char *text);
  static void XMLCALL on_doctype(void *self, const XML_Char *name, const XML_Char *system, const XML_Char *pub, int has_subset);

  const wb_item_reader_options options_;
  ParserPtr parser_;
  std::unique_ptr<wb::DomBuilder> builder_;
  std::vector<std::string> heads_;  // of the open elements around the items
  wb::TokenScan scan_;              // over what comes after the bytes that were given to parser_
  std::string held_;                // those bytes
  XML_Index given_ = 0;             // bytes that parser_ was given
  XML_Index token_end_ = 0;         // as parser_ counts
  unsigned depth_ = 0;              // open elements
  bool begun_ = false;
  bool is_utf8_ = true;
  bool is_utf16_ = false;
  bool replaying_ = false;     // parser_ is being shown heads_
  bool renew_wanted_ = false;  // parser_ was stopped at token_end_, to be replaced
  wb_errcode error_ = WB_ERR_NONE;
  const char *error_text_ = nullptr;
};

template <typename Body>
void wb_item_reader::guard(void *self, Body body) {
  auto &reader = *static_cast<wb_item_reader *>(self);
  if (reader.error_ != WB_ERR_NONE || reader.renew_wanted_) return;
  try {
    body(reader);
  } catch (const abi::__forced_unwind &) {
    throw;
  } catch (...) {
    reader.fail(WB_ERR_NO_MEMORY, nullptr);
  }
}

void XMLCALL wb_item_reader::on_start(void *self, const XML_Char *name, const XML_Char **attributes) {
  guard(self, [&](wb_item_reader &reader) { reader.start_element(name, attributes); });
}

void XMLCALL wb_item_reader::on_end(void *self, const XML_Char *) {
  guard(self, [](wb_item_reader &reader) { reader.end_element(); });
}

void XMLCALL wb_item_reader::on_text(void *self, const XML_Char *bytes, int length) {
  guard(self, [&](wb_item_reader &reader) { reader.character_data(bytes, static_cast<size_t>(length)); });
}

void XMLCALL wb_item_reader::on_xml_declaration(void *self, const XML_Char *, const XML_Char *encoding, int) {
  auto &reader = *static_cast<wb_item_reader *>(self);
  reader.is_utf8_ = !reader.is_utf16_ && (encoding == nullptr || strcasecmp(encoding, "UTF-8") == 0);
}

void XMLCALL wb_item_reader::on_instruction(void *self, const XML_Char *target, const XML_Char *) {
  guard(self, [&](wb_item_reader &reader) {
    if (reader.check_token() && std::strchr(target, ':') != nullptr)
      reader.fail(WB_ERR_BAD_FORMAT, "colon in the target of a processing instruction");
  });
}

void XMLCALL wb_item_reader::on_comment(void *self, const XML_Char *) {
  guard(self, [](wb_item_reader &reader) { reader.check_token(); });
}

void XMLCALL wb_item_reader::on_doctype(void *self, const XML_Char *, const XML_Char *, const XML_Char *, int has_subset) {
  guard(self, [&](wb_item_reader &reader) {
    if (has_subset != 0) reader.fail(WB_ERR_BAD_FORMAT, "declarations in the document type");
  });
}

void wb_item_reader::make_parser() {
  builder_ = std::make_unique<wb::DomBuilder>(build_options(options_));
  parser_.reset(XML_ParserCreate(nullptr));
  if (parser_ == nullptr) throw std::bad_alloc();
  given_ = 0;
  depth_ = 0;
  renew_wanted_ = false;
  XML_Parser parser = parser_.get();
  wb::disable_reparse_deferral(parser);
  XML_SetUserData(parser, this);
  XML_SetElementHandler(parser, on_start, on_end);
  XML_SetCharacterDataHandler(parser, on_text);
  XML_SetXmlDeclHandler(parser, on_xml_declaration);
  XML_SetProcessingInstructionHandler(parser, on_instruction);
  XML_SetCommentHandler(parser, on_comment);
  XML_SetStartDoctypeDeclHandler(parser, on_doctype);
}

void wb_item_reader::fail(wb_errcode code, const char *text) {
  if (error_ != WB_ERR_NONE) return;
  error_ = code;
  error_text_ = text;
  XML_StopParser(parser_.get(), XML_FALSE);
}

void wb_item_reader::fail_expat() {
  const XML_Error error = XML_GetErrorCode(parser_.get());
  fail(error == XML_ERROR_NO_MEMORY ? WB_ERR_NO_MEMORY : WB_ERR_BAD_FORMAT, XML_ErrorString(error));
}

bool wb_item_reader::feed(const char *bytes, size_t length, wb_err *err) {
  if (length > 0 && error_ == WB_ERR_NONE) {
    try {
      consume(bytes, length);
    } catch (const abi::__forced_unwind &) {
      throw;
    } catch (...) {
      fail(WB_ERR_NO_MEMORY, nullptr);
    }
  }
  return error_ == WB_ERR_NONE || WB_FAIL(err, error_, error_text_);
}

void wb_item_reader::consume(const char *bytes, size_t length) {
  if (!begun_) is_utf16_ = wb::begins_as_utf16(bytes, length);
  is_utf8_ = is_utf8_ && !is_utf16_;
  begun_ = true;
  if (!scan_.may_end(bytes, bytes + length)) return hold(bytes, length);
  if (held_.empty()) return run(bytes, length);
  held_.append(bytes, length);
  std::string whole;
  whole.swap(held_);
  run(whole.data(), whole.size());
  whole.clear();
  if (whole.capacity() <= kHeldKeepMax) held_.swap(whole);
}

void wb_item_reader::hold(const char *bytes, size_t length) {
  const XML_Index unfinished = given_ - XML_GetCurrentByteIndex(parser_.get());
  if (static_cast<size_t>(unfinished) + held_.size() + length > options_.token_bytes_max) {
    return fail(WB_ERR_BAD_FORMAT, "markup too long");
  }
  held_.append(bytes, length);
}

void wb_item_reader::run(const char *bytes, size_t length) {
  while (length > 0) {
    const size_t piece = std::min(length, kPieceMax);
    size_t consumed = piece;
    const XML_Index before = given_;
    const bool parsed = parse_piece(bytes, piece);
    if (error_ != WB_ERR_NONE) return;
    if (renew_wanted_) {
      consumed = static_cast<size_t>(token_end_ - before);
      renew();
      scan_.forget();
    } else if (!parsed) {
      return fail_expat();
    } else {
      look_at_rest(bytes, piece);
    }
    if (error_ != WB_ERR_NONE) return;
    bytes += consumed;
    length -= consumed;
  }
}

bool wb_item_reader::parse_piece(const char *bytes, size_t length) {
  given_ += static_cast<XML_Index>(length);
  return XML_Parse(parser_.get(), bytes, static_cast<int>(length), XML_FALSE) != XML_STATUS_ERROR;
}

// What the parser could not use yet is the beginning of a token.
void wb_item_reader::look_at_rest(const char *bytes, size_t length) {
  const XML_Index position = XML_GetCurrentByteIndex(parser_.get());
  const size_t rest = position >= 0 ? static_cast<size_t>(given_ - position) : 0;
  scan_.forget();
  if (rest == 0) return;
  if (rest <= length && !is_utf16_) {
    scan_.begin();
    if (scan_.may_end(bytes + length - rest, bytes + length)) scan_.forget();
  }
  const size_t rest_max = scan_.is_unknown() ? kUnknownTokenMax : options_.token_bytes_max;
  if (rest > rest_max) fail(WB_ERR_BAD_FORMAT, "markup too long");
}

void wb_item_reader::renew() {
  make_parser();
  replaying_ = true;
  for (const std::string &head : heads_) {
    if (!parse_piece(head.data(), head.size()) && error_ == WB_ERR_NONE) fail_expat();
    if (error_ != WB_ERR_NONE) break;
  }
  replaying_ = false;
  builder_->take_names_as_known();
}

// What one item makes grow must not grow for ever.
void wb_item_reader::check_item() {
  if (builder_->tree_bytes() > options_.item_bytes_max) return fail(WB_ERR_BAD_FORMAT, "item too large");
  if (builder_->names_bytes() > kNameBytesMax) fail(WB_ERR_BAD_FORMAT, kTooManyNames);
}

// Markup that comes whole in one piece was never seen unfinished.
bool wb_item_reader::check_token() {
  if (static_cast<size_t>(XML_GetCurrentByteCount(parser_.get())) <= options_.token_bytes_max) return true;
  fail(WB_ERR_BAD_FORMAT, "markup too long");
  return false;
}

void wb_item_reader::start_element(const XML_Char *name, const XML_Char **attributes) {
  if (!replaying_ && !check_token()) return;
  if (depth_ >= options_.depth_max) return fail(WB_ERR_BAD_FORMAT, "elements nested too deep");
  const bool in_item = depth_ >= options_.item_depth;
  ++depth_;
  if (!in_item && !replaying_) heads_.push_back(make_head(name, attributes));
  if (options_.on_text_before_child != nullptr && builder_->has_waiting_text()) options_.on_text_before_child(options_.arg);
  const wb::BuildResult result = in_item ? builder_->open(name, attributes) : builder_->enter(name, attributes);
  if (result == wb::BuildResult::too_many_names) return fail(WB_ERR_BAD_FORMAT, kTooManyNames);
  if (result != wb::BuildResult::ok) return fail(WB_ERR_BAD_FORMAT, "namespaces misused");
  check_item();
}

void wb_item_reader::end_element() {
  const bool is_whole = builder_->close();
  --depth_;
  if (is_whole) {
    static_cast<void>(builder_->take().release());
    options_.on_item(builder_->root(), options_.arg);
  } else if (depth_ >= options_.item_depth) {
    return;
  } else {
    heads_.pop_back();
  }
  if (!is_utf8_ || depth_ == 0 || !builder_->is_full()) return;
  token_end_ = XML_GetCurrentByteIndex(parser_.get()) + XML_GetCurrentByteCount(parser_.get());
  renew_wanted_ = true;
  XML_StopParser(parser_.get(), XML_FALSE);
}

void wb_item_reader::character_data(const XML_Char *bytes, size_t length) {
  builder_->text(bytes, length);
  check_item();
}

bool wb_item_reader_create(const wb_item_reader_options *options, wb_item_reader **out, wb_err *err) {
  return wb::guarded(err, __func__, [&] {
    if (out == nullptr) return WB_FAIL(err, WB_ERR_INVALID_ARG, "no place for the reader");
    *out = nullptr;
    if (options == nullptr || options->on_item == nullptr) return WB_FAIL(err, WB_ERR_INVALID_ARG, "nobody to take the items");
    *out = new wb_item_reader(*options);
    return true;
  });
}

bool wb_item_reader_feed(wb_item_reader *reader, const char *bytes, size_t length, wb_err *err) {
  if (reader == nullptr || (bytes == nullptr && length > 0)) return WB_FAIL(err, WB_ERR_INVALID_ARG, "no reader or bytes");
  return reader->feed(bytes, length, err);
}

void wb_item_reader_destroy(wb_item_reader *reader) { delete reader; }

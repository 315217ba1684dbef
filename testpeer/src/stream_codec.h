// An XMPP stream as its receiver reads it: the head, stanza after stanza, the end. And base64, as SASL writes it.
#pragma once

#include <expat.h>
#include <qlk/testpeer/element.hpp>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace testpeer {

std::string base64_encode(std::string_view bytes);
// Nothing when it is not in base64. "=" stands for no bytes, as in SASL.
std::optional<std::string> base64_decode(std::string_view text);

// Reads one stream. It stops after each item, so that what follows an item can still be taken for something else.
class StreamReader {
 public:
  struct Item {
    enum class Kind { head, stanza, end } kind;
    Element element;
  };

  StreamReader();

  void feed(std::string_view bytes) { pending_.append(bytes); }
  // The next item; nothing when more bytes are needed. Throws std::runtime_error when the bytes are no stream.
  std::optional<Item> next();
  // Whether bytes were fed that belong to no item yet.
  bool has_rest() const { return consumed_ < fed_.size() + pending_.size(); }
  // Those bytes; the reader is of no use afterwards.
  std::string take_rest();

 private:
  struct ParserFree {
    void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
  };
  static void XMLCALL on_start(void *user, const XML_Char *name, const XML_Char **attributes);
  static void XMLCALL on_end(void *user, const XML_Char *name);
  static void XMLCALL on_text(void *user, const XML_Char *text, int length);
  static void XMLCALL on_doctype(void *user, const XML_Char *, const XML_Char *, const XML_Char *, int);
  void deliver(Item::Kind kind, Element element);
  void forget_consumed();

  std::unique_ptr<std::remove_pointer_t<XML_Parser>, ParserFree> parser_;
  std::string pending_;        // not seen by the parser yet
  std::string fed_;            // seen by it, from base_ on
  size_t base_ = 0;            // the place of fed_ in the stream
  size_t consumed_ = 0;        // how much of fed_ belongs to items that were delivered
  std::vector<Element> open_;  // the stanza that is being read and what is open in it
  std::optional<Item> item_;
  bool inside_ = false;  // the head was read
  bool suspended_ = false;
  const char *refused_ = nullptr;
};

}  // namespace testpeer

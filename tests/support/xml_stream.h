// XML as a server reads it: elements as plain values, taken off a stream as they become complete.
#pragma once

#include <expat.h>

#include <deque>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace test_support {

struct Element {
  std::string name, ns;
  std::map<std::string, std::string> attributes;  // a qualified one under "uri name"
  std::vector<Element> children;
  std::string text;  // all texts that are directly in it, one after the other

  std::string attribute(const std::string &attribute_name) const;
  // The first child of that name; null when there is none.
  const Element *child(std::string_view child_name) const;
  bool is(std::string_view element_name, std::string_view element_ns) const { return name == element_name && ns == element_ns; }
  // The element as XML that stands for itself: each one declares its namespace.
  std::string xml() const;
};

// Text as the content of an element or of an attribute in single quotes.
std::string escape_xml(std::string_view text);

// One stream, from its head to its end tag.
class XmlStream {
 public:
  struct Item {
    enum class Kind { head, stanza, end } kind;
    Element element;
  };

  XmlStream();

  // Throws std::runtime_error when it is no XML.
  void feed(std::string_view bytes);
  bool empty() const { return items_.empty(); }
  Item take();

 private:
  struct ParserFree {
    void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
  };
  static void XMLCALL on_start(void *user, const XML_Char *name, const XML_Char **attributes);
  static void XMLCALL on_end(void *user, const XML_Char *name);
  static void XMLCALL on_text(void *user, const XML_Char *text, int length);

  std::unique_ptr<std::remove_pointer_t<XML_Parser>, ParserFree> parser_;
  std::deque<Item> items_;
  std::vector<Element> open_;  // the stanza that is being read and what is open in it
  bool inside_ = false;        // the head has been read
};

}  // namespace test_support

// XML as the scripted peer has read it, and the little that is needed to write some.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace testpeer {

// An element with everything in it; an ordinary value.
struct Element {
  std::string ns = {}, local = {};
  std::map<std::string, std::string> attributes = {};  // by local name; one with a namespace by "{uri}local"
  std::string text = {};                               // all texts that stand directly in it, joined
  std::vector<Element> children = {};

  bool is(std::string_view local_name, std::string_view uri) const { return local == local_name && ns == uri; }
  // Empty when there is no such attribute.
  std::string attribute(const std::string &name) const;
  // The first child of that name, in any namespace if none is given; null when there is none. It lives as long as this element.
  const Element *child(std::string_view local_name, std::string_view uri = {}) const;
  // XML that stands for itself: each element declares its own namespace, its text comes before its children.
  std::string xml() const;
};
using Stanza = Element;

// Text as it may stand in an element, and in an attribute within single or double quotes.
std::string escape(std::string_view text);

}  // namespace testpeer

#include "xml_stream.h"

#include <stdexcept>

#include "../../warbler/src/expat_deferral.h"

namespace test_support {

namespace {

constexpr char kSeparator = ' ';  // in no namespace that we meet

void split(const std::string &expanded, std::string &ns, std::string &name) {
  const size_t at = expanded.find(kSeparator);
  ns = at == std::string::npos ? "" : expanded.substr(0, at);
  name = at == std::string::npos ? expanded : expanded.substr(at + 1);
}

}  // namespace

std::string escape_xml(std::string_view text) {
  std::string out;
  for (const char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '\'':
        out += "&apos;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string Element::attribute(const std::string &attribute_name) const {
  const auto found = attributes.find(attribute_name);
  return found == attributes.end() ? "" : found->second;
}

const Element *Element::child(std::string_view child_name) const {
  for (const Element &one : children) {
    if (one.name == child_name) return &one;
  }
  return nullptr;
}

std::string Element::xml() const {
  std::string out = "<" + name + " xmlns='" + escape_xml(ns) + "'";
  int prefixes = 0;
  for (const auto &[expanded, value] : attributes) {
    std::string uri, local;
    split(expanded, uri, local);
    if (!uri.empty()) {
      const std::string prefix = "p" + std::to_string(prefixes++);
      out.append(" xmlns:").append(prefix).append("='").append(escape_xml(uri)).append("'");
      local = prefix + ":" + local;
    }
    out.append(" ").append(local).append("='").append(escape_xml(value)).append("'");
  }
  out.append(">").append(escape_xml(text));
  for (const Element &one : children) out += one.xml();
  return out.append("</").append(name).append(">");
}

XmlStream::XmlStream() : parser_(XML_ParserCreateNS(nullptr, kSeparator)) {
  if (parser_ == nullptr) throw std::bad_alloc();
  wb::disable_reparse_deferral(parser_.get());
  XML_SetUserData(parser_.get(), this);
  XML_SetElementHandler(parser_.get(), on_start, on_end);
  XML_SetCharacterDataHandler(parser_.get(), on_text);
}

void XmlStream::feed(std::string_view bytes) {
  if (XML_Parse(parser_.get(), bytes.data(), static_cast<int>(bytes.size()), 0) == XML_STATUS_OK) return;
  throw std::runtime_error(std::string("the client sent no XML: ") + XML_ErrorString(XML_GetErrorCode(parser_.get())));
}

XmlStream::Item XmlStream::take() {
  Item item = std::move(items_.front());
  items_.pop_front();
  return item;
}

void XmlStream::on_start(void *user, const XML_Char *name, const XML_Char **attributes) {
  XmlStream &self = *static_cast<XmlStream *>(user);
  Element element;
  split(name, element.ns, element.name);
  for (; *attributes != nullptr; attributes += 2) element.attributes[attributes[0]] = attributes[1];
  if (self.inside_) return self.open_.push_back(std::move(element));
  self.inside_ = true;
  self.items_.push_back({Item::Kind::head, std::move(element)});
}

void XmlStream::on_end(void *user, const XML_Char *) {
  XmlStream &self = *static_cast<XmlStream *>(user);
  if (self.open_.empty()) return self.items_.push_back({Item::Kind::end, {}});
  Element element = std::move(self.open_.back());
  self.open_.pop_back();
  if (self.open_.empty()) return self.items_.push_back({Item::Kind::stanza, std::move(element)});
  self.open_.back().children.push_back(std::move(element));
}

void XmlStream::on_text(void *user, const XML_Char *text, int length) {
  XmlStream &self = *static_cast<XmlStream *>(user);
  if (!self.open_.empty()) self.open_.back().text.append(text, static_cast<size_t>(length));
}

}  // namespace test_support

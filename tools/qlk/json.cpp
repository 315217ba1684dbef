// Elements as JSON. The tree's interface does not list attributes, so the XML text is read once more; both the reading and the
// writing keep their own stack, since a payload may be nested deeper than this program's.
#include <expat.h>

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <vector>

#include "failure.h"
#include "xml.h"

namespace tool {

namespace {

constexpr char kSeparator = '}';

// "local", or "{namespace}local".
std::string name_of(const char *expat_name) {
  const std::string_view name = expat_name;
  return name.find(kSeparator) == std::string_view::npos ? std::string(name) : "{" + std::string(name);
}

bool is_blank(std::string_view text) { return text.find_first_not_of(" \t\r\n") == std::string_view::npos; }

class Writer {
 public:
  void start(const char *expat_name, const char **attributes) {
    if (!open_.empty()) out_ += std::exchange(open_.back().has_children, true) ? "," : ",\"children\":[";
    std::string ns, local;
    split_name(name_of(expat_name), ns, local);
    out_.append("{\"name\":").append(json_string(local));
    if (ns != (open_.empty() ? "" : open_.back().ns)) out_.append(",\"namespace\":").append(json_string(ns));
    open_.push_back({std::move(ns), "", false});
    for (const char **at = attributes; *at != nullptr; at += 2) {
      out_.append(at == attributes ? ",\"attributes\":{" : ",").append(json_string(name_of(at[0])));
      out_.append(":").append(json_string(at[1]));
    }
    if (*attributes != nullptr) out_ += '}';
  }
  void text(const char *text, int length) { open_.back().text.append(text, static_cast<size_t>(length)); }
  void end() {
    const Open &element = open_.back();
    if (element.has_children) out_ += ']';
    if (!element.text.empty() && !(element.has_children && is_blank(element.text))) {
      out_.append(",\"text\":").append(json_string(element.text));
    }
    out_ += '}';
    open_.pop_back();
  }
  std::string take() { return std::move(out_); }

 private:
  struct Open {
    std::string ns, text;
    bool has_children;
  };
  std::string out_;
  std::vector<Open> open_;
};

// Nothing may be thrown through the parser.
template <typename Step>
void contained(void *parser, Step &&step) {
  try {
    step(*static_cast<Writer *>(XML_GetUserData(static_cast<XML_Parser>(parser))));
  } catch (const std::exception &) {
    XML_StopParser(static_cast<XML_Parser>(parser), XML_FALSE);
  }
}

void on_start(void *parser, const char *name, const char **attributes) {
  contained(parser, [&](Writer &writer) { writer.start(name, attributes); });
}
void on_end(void *parser, const char *) {
  contained(parser, [](Writer &writer) { writer.end(); });
}
void on_text(void *parser, const char *text, int length) {
  contained(parser, [&](Writer &writer) { writer.text(text, length); });
}

struct ParserFree {
  void operator()(XML_ParserStruct *parser) const { XML_ParserFree(parser); }
};

}  // namespace

std::string json_string(std::string_view text) {
  return nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string to_json(const wb_dom_node *node) {
  const std::string xml = to_xml(node);
  Writer writer;
  const std::unique_ptr<XML_ParserStruct, ParserFree> parser(XML_ParserCreateNS("UTF-8", kSeparator));
  if (parser == nullptr) throw std::bad_alloc();
  XML_SetUserData(parser.get(), &writer);
  XML_UseParserAsHandlerArg(parser.get());
  XML_SetElementHandler(parser.get(), on_start, on_end);
  XML_SetCharacterDataHandler(parser.get(), on_text);
  if (XML_Parse(parser.get(), xml.data(), static_cast<int>(xml.size()), XML_TRUE) != XML_STATUS_OK) {
    throw Failure(ExitCode::bad_data, "a payload cannot be written as JSON");
  }
  return writer.take();
}

}  // namespace tool

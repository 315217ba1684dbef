#include "catalogue.h"

#include <expat.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <stdexcept>
#include <type_traits>

namespace conformance {

namespace {

struct ParserFree {
  void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
};
using ParserPtr = std::unique_ptr<std::remove_pointer_t<XML_Parser>, ParserFree>;

// The included catalogues are external entities: expat asks for them, each is read by a parser of its own, and URIs in it are
// relative to it and to the xml:base of the elements around them.
class Reader {
 public:
  explicit Reader(const std::filesystem::path &folder) : bases_{folder} {}

  std::vector<Case> read() {
    const ParserPtr parser(XML_ParserCreate(nullptr));
    XML_SetUserData(parser.get(), this);
    XML_SetElementHandler(parser.get(), on_start, on_end);
    XML_SetExternalEntityRefHandler(parser.get(), on_entity);
    parse(parser.get(), bases_.back() / "xmlconf.xml");
    return std::move(cases_);
  }

 private:
  static Reader &reader(void *self) { return *static_cast<Reader *>(self); }

  void parse(XML_Parser parser, const std::filesystem::path &path) {
    const std::string text = read_file(path);
    if (XML_Parse(parser, text.data(), static_cast<int>(text.size()), XML_TRUE) == XML_STATUS_OK) return;
    if (problem_.empty())
      problem_ = path.string() + ":" + std::to_string(XML_GetCurrentLineNumber(parser)) + ": " +
                 XML_ErrorString(XML_GetErrorCode(parser));
    throw std::runtime_error(problem_);
  }

  static void on_start(void *self, const char *name, const char **attributes) {
    Reader &it = reader(self);
    std::map<std::string, std::string> values;
    for (; *attributes != nullptr; attributes += 2) values[attributes[0]] = attributes[1];
    it.bases_.push_back(it.bases_.back() / values["xml:base"]);
    if (std::strcmp(name, "TEST") != 0) return;
    it.cases_.push_back({.id = values["ID"],
                         .type = values["TYPE"],
                         .recommendation = values["RECOMMENDATION"],
                         .version = values["VERSION"],
                         .edition = values["EDITION"],
                         .uses_namespaces = values["NAMESPACE"] != "no",
                         .path = it.bases_.back() / values["URI"]});
  }

  static void on_end(void *self, const char *) { reader(self).bases_.pop_back(); }

  // Entities are named relative to the suite's folder, where the one catalogue is that includes others.
  static int on_entity(XML_Parser parser, const char *context, const char *, const char *system, const char *) {
    Reader &it = reader(XML_GetUserData(parser));
    const ParserPtr inner(XML_ExternalEntityParserCreate(parser, context, nullptr));
    const std::filesystem::path path = it.bases_.front() / system;
    it.bases_.push_back(path.parent_path());
    try {
      it.parse(inner.get(), path);
    } catch (const std::runtime_error &error) {
      it.problem_ = error.what();
      return XML_STATUS_ERROR;
    }
    it.bases_.pop_back();
    return XML_STATUS_OK;
  }

  std::vector<std::filesystem::path> bases_;
  std::vector<Case> cases_;
  std::string problem_;
};

}  // namespace

std::vector<Case> read_catalogue(const std::filesystem::path &folder) { return Reader(folder).read(); }

std::string read_file(const std::filesystem::path &path) {
  std::ifstream file(path, std::ios::binary);
  std::string text{std::istreambuf_iterator<char>(file), {}};
  if (!file) throw std::runtime_error("cannot read " + path.string());
  return text;
}

}  // namespace conformance

// What our two parsers make of the suite's documents, and what they should make of them.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "catalogue.h"

namespace conformance {

// What a document is for us. Where the suite leaves it open, being refused or not are both right.
enum class Kind {
  well_formed,      // without a DTD: read
  not_well_formed,  // without a DTD: refused
  with_dtd,         // refused, well-formed or not
  not_utf8,         // in another encoding: refused
  open,             // an "error", which a parser may report or not
  out_of_scope      // of XML 1.1 or Namespaces 1.1, of the fifth edition's names alone, or for parsers that know no namespaces
};
const char *name_of(Kind kind);

Kind kind_of(const Case &item, const std::string &text);

// The faults of the two parsers with the document, one line each; none when they agree with the suite.
std::vector<std::string> judge(Kind kind, const std::string &text);

struct Report {
  std::map<Kind, int> counts;
  std::map<std::string, std::vector<std::string>> disagreements;  // by the case's id
};
Report run_suite(const std::filesystem::path &folder);

}  // namespace conformance

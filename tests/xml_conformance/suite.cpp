// Runs the W3C's XML conformance suite, whose folder XML_CONFORMANCE_SUITE names: 0 when our parsers agree with it, 1 when they
// do not, 77 when there is no suite.
#include <cstdlib>
#include <exception>
#include <iostream>

#include "verdict.h"

namespace {

constexpr int kAgreement = 0, kDisagreement = 1, kNoSuite = 77;

int run(const char *folder) {
  const conformance::Report report = conformance::run_suite(folder);
  for (const auto &[kind, count] : report.counts) std::cout << count << " " << name_of(kind) << "\n";
  for (const auto &[id, faults] : report.disagreements)
    for (const std::string &fault : faults) std::cout << id << ": " << fault << "\n";
  const bool is_whole = report.counts.contains(conformance::Kind::well_formed) &&
                        report.counts.contains(conformance::Kind::not_well_formed) &&
                        report.counts.contains(conformance::Kind::with_dtd);
  if (!is_whole) std::cout << "a suite has more than that\n";
  return is_whole && report.disagreements.empty() ? kAgreement : kDisagreement;
}

}  // namespace

int main() {
  const char *folder = std::getenv("XML_CONFORMANCE_SUITE");
  if (folder == nullptr || *folder == '\0') {
    std::cout << "XML_CONFORMANCE_SUITE names no folder with the suite's xmlconf.xml\n";
    return kNoSuite;
  }
  try {
    return run(folder);
  } catch (const std::exception &error) {
    std::cout << error.what() << "\n";
    return kDisagreement;
  }
}

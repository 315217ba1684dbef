// The catalogue of the W3C's XML conformance suite: what it says of each of its documents.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace conformance {

struct Case {
  std::string id, type;  // type: "valid", "invalid", "not-wf" or "error"
  std::string recommendation, version, edition;
  bool uses_namespaces = true;
  std::filesystem::path path;
};

// Reads xmlconf.xml of the folder with all the catalogues that it includes. Throws std::runtime_error when it cannot.
std::vector<Case> read_catalogue(const std::filesystem::path &folder);

// The whole file. Throws std::runtime_error.
std::string read_file(const std::filesystem::path &path);

}  // namespace conformance

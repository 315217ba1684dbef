// Runs a target on files: replay FILE-OR-FOLDER... It shows where a finding fails, and that old ones stay mended.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz.h"

namespace {

void replay(const std::filesystem::path &file) {
  std::ifstream stream(file, std::ios::binary);
  const std::vector<char> bytes{std::istreambuf_iterator<char>(stream), {}};
  if (!stream) {
    std::fprintf(stderr, "cannot read %s\n", file.c_str());
    std::exit(2);
  }
  std::fprintf(stderr, "%s\n", file.c_str());  // the last line tells which one fails
  // In memory of its very size, so that reading beyond it is seen.
  const std::vector<uint8_t> exact(bytes.begin(), bytes.end());
  LLVMFuzzerTestOneInput(exact.data(), exact.size());
}

}  // namespace

int main(int argc, char **argv) {
  size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    if (!std::filesystem::is_directory(argv[i])) {
      replay(argv[i]);
      ++count;
      continue;
    }
    for (const auto &entry : std::filesystem::directory_iterator(argv[i])) {
      replay(entry.path());
      ++count;
    }
  }
  std::printf("%zu inputs, nothing found\n", count);
  return count > 0 ? 0 : 2;
}

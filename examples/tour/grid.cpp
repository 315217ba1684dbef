#include "grid.h"

#include <cstdio>
#include <cstdlib>
#include <iostream>

namespace tour {

Grid::Grid(std::string command, std::string folder) : command_(std::move(command)), folder_(std::move(folder)) {
  environment_ = "\n" + run("env");
}

std::string Grid::run(const std::string &arguments) const {
  const std::string line = "'" + command_ + "' --folder '" + folder_ + "' " + arguments;
  FILE *pipe = popen(line.c_str(), "r");
  std::string output;
  char buffer[512];
  size_t got;
  while (pipe != nullptr && (got = fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, got);
  if (pipe == nullptr || pclose(pipe) != 0) {
    std::cerr << "this failed: " << line << '\n' << output;
    std::exit(1);
  }
  return output;
}

std::string Grid::administrate(const std::string &arguments) const {
  std::string printed = run(arguments);
  if (!printed.empty() && printed.back() == '\n') printed.pop_back();
  return printed;
}

std::string Grid::value(const std::string &name) const {
  const size_t at = environment_.find("\n" + name + "=");
  if (at == std::string::npos) return "";
  const size_t begin = at + name.size() + 2;
  std::string text = environment_.substr(begin, environment_.find('\n', begin) - begin);
  if (text.size() > 1 && text.front() == '\'' && text.back() == '\'') text = text.substr(1, text.size() - 2);
  return text;
}

}  // namespace tour

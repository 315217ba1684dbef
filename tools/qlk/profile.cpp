#include "profile.h"

#include <toml++/toml.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>

#include "failure.h"

namespace tool {

namespace {

namespace fs = std::filesystem;

std::string variable(const char *name) {
  const char *value = std::getenv(name);
  return value != nullptr ? value : "";
}

class Reader {
 public:
  explicit Reader(const std::string &path) : path_(path), folder_(fs::absolute(path).parent_path()) {}

  void text(const toml::node &node, std::string &out) const {
    const auto value = node.value<std::string>();
    if (!node.is_string()) fail(node, "a text is expected here");
    out = *value;
  }
  void file(const toml::node &node, std::string &out) const {
    text(node, out);
    if (out.empty()) return;
    if (out.starts_with("~/")) out.replace(0, 1, variable("HOME"));
    out = (folder_ / out).lexically_normal().string();
  }
  void texts(const toml::node &node, std::vector<std::string> &out) const {
    out.clear();
    if (node.is_string()) return text(node, out.emplace_back());
    const toml::array *list = node.as_array();
    if (list == nullptr || list->empty()) fail(node, "a list of texts is expected here");
    for (const toml::node &entry : *list) text(entry, out.emplace_back());
  }
  void seconds(const toml::node &node, int &out) const {
    const auto value = node.value<int64_t>();
    if (!node.is_integer() || *value < 1 || *value > 86400) fail(node, "a number of seconds is expected here, 1 to 86400");
    out = static_cast<int>(*value);
  }
  [[noreturn]] void fail(const toml::node &node, const std::string &what) const {
    throw Failure(ExitCode::usage, path_ + ":" + std::to_string(node.source().begin.line) + ": " + what);
  }

 private:
  const std::string path_;
  const fs::path folder_;
};

using Entry = std::function<void(const toml::node &)>;

void read_table(const Reader &reader, const toml::table &table, const std::map<std::string, Entry, std::less<>> &entries) {
  for (const auto &[key, node] : table) {
    const auto entry = entries.find(key.str());
    if (entry == entries.end()) reader.fail(node, "'" + std::string(key.str()) + "' is no setting of a profile");
    entry->second(node);
  }
}

toml::table parse(const std::string &path) {
  std::ifstream file(path);
  if (!file || fs::is_directory(path)) throw Failure(ExitCode::usage, "the profile " + path + " cannot be read");
  try {
    return toml::parse(file, path);
  } catch (const toml::parse_error &error) {
    throw Failure(ExitCode::usage,
                  path + ":" + std::to_string(error.source().begin.line) + ": " + std::string(error.description()));
  }
}

}  // namespace

std::string default_profile_path() {
  if (const std::string named = variable("QLK_PROFILE"); !named.empty()) return named;
  if (const std::string folder = variable("XDG_CONFIG_HOME"); !folder.empty()) return folder + "/qlk/profile.toml";
  const std::string home = variable("HOME");
  return home.empty() ? "" : home + "/.config/qlk/profile.toml";
}

Profile read_profile(const std::string &path) {
  const toml::table table = parse(path);
  const Reader reader(path);
  Profile profile;
  const auto text = [&](std::string &out) { return [&](const toml::node &node) { reader.text(node, out); }; };
  const auto file = [&](std::string &out) { return [&](const toml::node &node) { reader.file(node, out); }; };
  const auto texts = [&](std::vector<std::string> &out) { return [&](const toml::node &node) { reader.texts(node, out); }; };
  read_table(reader, table,
             {{"hosts", texts(profile.hosts)},
              {"user", text(profile.user)},
              {"certificate", file(profile.certificate)},
              {"key", file(profile.key)},
              {"passphrase_file", file(profile.passphrase_file)},
              {"ca", file(profile.ca)},
              {"crl", file(profile.crl)},
              {"groups", texts(profile.groups)},
              {"description", text(profile.description)},
              {"sasl_response", text(profile.sasl_response)},
              {"namespace", text(profile.capability_namespace)},
              {"timeout_seconds", [&](const toml::node &node) { reader.seconds(node, profile.timeout_seconds); }},
              {"bulk", [&](const toml::node &node) {
                 const toml::table *bulk = node.as_table();
                 if (bulk == nullptr) reader.fail(node, "[bulk] is a table");
                 read_table(reader, *bulk, {{"url", text(profile.bulk_url)}, {"ca", file(profile.bulk_ca)}});
               }}});
  return profile;
}

}  // namespace tool

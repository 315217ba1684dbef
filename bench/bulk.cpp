// Downloads the same document in three ways, each in a process of its own, one after the other and as often as is asked for:
//
//   bulk QUILLON-GRID FOLDER [MIB [ROUNDS]]
//
// curl to nowhere; curl feeding expat (namespaces on) with handlers that do nothing, in one thread; this library, item by item.
// The grid in the folder must be up. Rates are in MB (10^6 bytes) of the document a second; memory is how far the resident set
// grew at its peak.
#include <curl/curl.h>
#include <expat.h>
#include <quillon.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr unsigned long kRecordBytes = 600;
constexpr char kUser[] = "bench";

struct Target {
  std::string url, ca, certificate, key, domain, records;
};

struct Result {
  double seconds;
  unsigned long long items, bytes;
  long grown_kib;
};

std::string run_command(const std::string &command) {
  std::string output;
  FILE *const pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return output;
  char line[4096];
  while (std::fgets(line, sizeof line, pipe) != nullptr) output += line;
  return pclose(pipe) == 0 ? output : "";
}

std::string value_of(const std::string &lines, const std::string &name) {
  std::istringstream input(lines);
  for (std::string line; std::getline(input, line);) {
    if (line.rfind(name + "=", 0) == 0) return line.substr(name.size() + 1);
  }
  return "";
}

long memory_kib(const char *field) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(field, 0) == 0) return std::strtol(line.c_str() + std::strlen(field) + 1, nullptr, 10);
  }
  return 0;
}

std::string make_request(const Target &target) {
  return "<bulkRequest xmlns='http://quillon.internal/quillon' records='" + target.records + "' recordSize='" +
         std::to_string(kRecordBytes) + "'/>";
}

// ---- curl alone

size_t count_bytes(char *, size_t size, size_t count, void *bytes) {
  *static_cast<unsigned long long *>(bytes) += size * count;
  return size * count;
}

struct Expat {
  XML_Parser parser;
  unsigned long long bytes;
};

size_t feed_expat(char *bytes, size_t size, size_t count, void *arg) {
  Expat &expat = *static_cast<Expat *>(arg);
  expat.bytes += size * count;
  return XML_Parse(expat.parser, bytes, static_cast<int>(size * count), XML_FALSE) == XML_STATUS_OK ? size * count : 0;
}

void XMLCALL ignore_start(void *, const XML_Char *, const XML_Char **) {}
void XMLCALL ignore_end(void *, const XML_Char *) {}
void XMLCALL ignore_text(void *, const XML_Char *, int) {}

bool perform(const Target &target, curl_write_callback callback, void *arg) {
  CURL *const handle = curl_easy_init();
  const std::string body = make_request(target);
  const std::string user = std::string("user:") + kUser + "@" + target.domain;
  curl_slist *const headers = curl_slist_append(curl_slist_append(nullptr, "Content-Type: application/xml"), user.c_str());
  curl_easy_setopt(handle, CURLOPT_URL, target.url.c_str());
  curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(handle, CURLOPT_CAINFO, target.ca.c_str());
  curl_easy_setopt(handle, CURLOPT_SSLCERT, target.certificate.c_str());
  curl_easy_setopt(handle, CURLOPT_SSLKEY, target.key.c_str());
  curl_easy_setopt(handle, CURLOPT_POSTFIELDS, body.c_str());
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, callback);
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, arg);
  const CURLcode code = curl_easy_perform(handle);
  if (code != CURLE_OK) std::fprintf(stderr, "curl: %s\n", curl_easy_strerror(code));
  curl_easy_cleanup(handle);
  curl_slist_free_all(headers);
  return code == CURLE_OK;
}

bool to_nowhere(const Target &target, Result &result) { return perform(target, count_bytes, &result.bytes); }

bool to_expat(const Target &target, Result &result) {
  Expat expat = {XML_ParserCreateNS(nullptr, '|'), 0};
  XML_SetElementHandler(expat.parser, ignore_start, ignore_end);
  XML_SetCharacterDataHandler(expat.parser, ignore_text);
  const bool done = perform(target, feed_expat, &expat);
  XML_ParserFree(expat.parser);
  result.bytes = expat.bytes;
  return done;
}

// ---- this library

bool item_by_item(const Target &target, Result &result) {
  wb_dom_node *request = nullptr;
  const std::string xml = make_request(target);
  quillon_config *config = nullptr;
  quillon_bulkdownload *bulkdownload = nullptr;
  quillon_config_create(&config);
  quillon_log_set_level(QUILLON_LOG_ERROR);
  quillon_config_set_user_name(config, kUser);
  quillon_config_set_bulk_server_cert_chain_filename(config, target.ca.c_str());
  quillon_config_set_client_cert_chain_filename(config, target.certificate.c_str());
  quillon_config_set_client_cert_key_filename(config, target.key.c_str());
  if (!wb_dom_parse(xml.data(), xml.size(), &request, nullptr)) return false;
  if (quillon_bulkdownload_create(&bulkdownload, config) != QUILLON_STATUS_OK) return false;
  quillon_bulkdownload_set_url(bulkdownload, target.url.c_str());
  quillon_bulkdownload_set_request(bulkdownload, request);
  QUILLON_STATUS status = quillon_bulkdownload_open(bulkdownload);
  for (wb_dom_node *item = nullptr; status == QUILLON_STATUS_OK;) {
    status = quillon_bulkdownload_next(bulkdownload, &item);
    if (item == nullptr) break;
    ++result.items;
    wb_dom_context_destroy(wb_dom_get_context(item));
  }
  quillon_bulkdownload_close(bulkdownload);
  quillon_bulkdownload_destroy(&bulkdownload);
  quillon_config_destroy(config);
  wb_dom_context_destroy(wb_dom_get_context(request));
  return status == QUILLON_STATUS_OK && result.items == std::strtoull(target.records.c_str(), nullptr, 10);
}

// ---- the measurement

using Way = bool (*)(const Target &, Result &);

// In a process of its own, which tells its result through a pipe.
bool measure(Way way, const Target &target, Result &result) {
  int ends[2];
  if (pipe(ends) != 0) return false;
  const pid_t child = fork();
  if (child == 0) {
    Result mine = {};
    const long before = memory_kib("VmRSS:");
    const auto begun = std::chrono::steady_clock::now();
    const bool done = way(target, mine);
    mine.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count();
    mine.grown_kib = memory_kib("VmHWM:") - before;
    _exit(done && ::write(ends[1], &mine, sizeof mine) == sizeof mine ? 0 : 1);
  }
  close(ends[1]);
  const bool told = child > 0 && read(ends[0], &result, sizeof result) == sizeof result;
  close(ends[0]);
  int status = 0;
  return child > 0 && waitpid(child, &status, 0) == child && told && status == 0;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 3 || argc > 5) {
    std::fprintf(stderr, "usage: %s QUILLON-GRID FOLDER [MIB [ROUNDS]]\n", argv[0]);
    return 2;
  }
  const std::string grid = std::string(argv[1]) + " --folder '" + argv[2] + "' ";
  const std::string environment = run_command(grid + "env");
  std::istringstream enrolled(run_command(grid + "enroll " + kUser));
  const unsigned long long mib = argc > 3 ? std::strtoull(argv[3], nullptr, 10) : 1024;
  const int rounds = argc > 4 ? std::atoi(argv[4]) : 5;
  Target target;
  target.url = value_of(environment, "QUILLON_GRID_BULK_URL");
  target.ca = value_of(environment, "QUILLON_GRID_CA");
  target.domain = value_of(environment, "QUILLON_GRID_DOMAIN");
  target.records = std::to_string((mib << 20) / kRecordBytes);
  std::getline(enrolled, target.certificate);
  std::getline(enrolled, target.key);
  if (target.url.empty() || target.key.empty() || rounds < 1) {
    std::fprintf(stderr, "no grid in %s: quillon-grid --folder %s up\n", argv[2], argv[2]);
    return 1;
  }
  struct Line {
    const char *name;
    Way way;
    std::vector<double> rates;
    long grown_kib;
  } lines[] = {{"curl to nowhere", to_nowhere, {}, 0},
               {"curl feeding expat, empty handlers", to_expat, {}, 0},
               {"libqlk, item by item", item_by_item, {}, 0}};
  unsigned long long bytes = 0;
  for (int round = 0; round < rounds; ++round) {
    for (Line &line : lines) {
      Result result = {};
      if (!measure(line.way, target, result)) {
        std::fprintf(stderr, "%s: failed\n", line.name);
        return 1;
      }
      bytes = std::max(bytes, result.bytes);
      line.rates.push_back(static_cast<double>(bytes) / result.seconds / 1e6);
      line.grown_kib = std::max(line.grown_kib, result.grown_kib);
    }
  }
  std::printf("%s records, %llu bytes, %d rounds\n\n", target.records.c_str(), bytes, rounds);
  std::printf("| Way | MB/s, median | lowest | highest | growth, MiB |\n|---|---|---|---|---|\n");
  for (const Line &line : lines) {
    const auto [lowest, highest] = std::minmax_element(line.rates.begin(), line.rates.end());
    std::printf("| %s | %.0f | %.0f | %.0f | %.1f |\n", line.name, median(line.rates), *lowest, *highest,
                static_cast<double>(line.grown_kib) / 1024);
  }
  return 0;
}

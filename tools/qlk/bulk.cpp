#include "bulk.h"

#include "payloads.h"
#include "progress.h"
#include "session.h"
#include "terminal.h"

namespace tool {

namespace {

constexpr size_t kReasonBytes = 256;
constexpr std::chrono::milliseconds kPatience{1500};  // a transfer that is silent cannot be asked to end

struct Options {
  std::string url, request, ca;
  uint64_t expected = 0, limit = 0;  // 0: unknown; no limit
  bool as_json = false, counts = false;
};

struct DownloadEnd {
  void operator()(quillon_bulkdownload *download) const { quillon_bulkdownload_destroy(&download); }
};
using Download = std::unique_ptr<quillon_bulkdownload, DownloadEnd>;

Download open_download(const Config &config, const std::string &url, wb_dom_node *request) {
  quillon_bulkdownload *created = nullptr;
  expect_ok(quillon_bulkdownload_create(&created, config.get()), "prepare the download");
  Download download(created);
  if (quillon_bulkdownload_set_url(created, url.c_str()) != QUILLON_STATUS_OK)
    throw Failure(ExitCode::usage, "the URL is too long");
  if (quillon_bulkdownload_set_request(created, request) != QUILLON_STATUS_OK) {
    throw Failure(ExitCode::usage, "the request is longer than 65536 bytes");
  }
  expect_ok(quillon_bulkdownload_open(created), "begin the download");
  return download;
}

Failure explain(const Download &download, QUILLON_STATUS status, const std::string &url, uint64_t items) {
  if (status == QUILLON_STATUS_XML_ERROR) {
    return {ExitCode::bad_data, "what came is no well-formed document; " + grouped(items) + " items came before the fault"};
  }
  char reason[kReasonBytes] = "";
  quillon_bulkdownload_get_error_details(download.get(), reason, sizeof reason);
  const std::string why = *reason != '\0' ? reason : text_of(status);
  if (items == 0)
    return {ExitCode::no_connection, url + ": " + why, "Is the service up? A local grid tells: quillon-grid status"};
  return {ExitCode::bad_data, "the transfer broke off after " + grouped(items) + " items: " + why};
}

// Hands out what came before a failure, and then the failure.
class Items {
 public:
  Items(Download download, std::string url) : download_(std::move(download)), url_(std::move(url)) {}

  // Null at the end.
  Element next() {
    for (;;) {
      wb_dom_node *node = nullptr;
      const QUILLON_STATUS status = quillon_bulkdownload_next(download_.get(), &node);
      if (node != nullptr) {
        ++count_;
        return Element(node);
      }
      if (is_broken_) throw explain(download_, QUILLON_STATUS_XML_ERROR, url_, count_);
      if (status == QUILLON_STATUS_OK) return nullptr;
      if (status != QUILLON_STATUS_XML_ERROR) throw explain(download_, status, url_, count_);
      is_broken_ = true;  // what was whole before the fault is still to come
    }
  }

 private:
  const Download download_;
  const std::string url_;
  uint64_t count_ = 0;
  bool is_broken_ = false;
};

void print_item(const Options &options, const wb_dom_node *item) {
  if (!options.counts) print_line(options.as_json ? to_json(item) : to_xml_line(item));
}

void transfer(const Options &options, Items &items, Progress &progress, const Stop &stop) {
  while (options.limit == 0 || progress.items() < options.limit) {
    const Element item = items.next();
    stop.check();
    if (item == nullptr) return;
    print_item(options, item.get());
    progress.add();
  }
}

ExitCode run(const Context &context, const Options &options, Stop &stop) {
  Settings settings = complete_settings(context.connection, stop, Needs::user);
  if (!options.ca.empty()) settings.values.bulk_ca = options.ca;
  const std::string url = options.url.empty() ? settings.values.bulk_url : options.url;
  if (url.empty()) throw Failure(ExitCode::usage, "there is no URL: give it as an argument, or under [bulk] in the profile");
  const Element request = parse_payload(read_file(options.request, stop), origin_of(options.request));
  const Config config = make_config(settings);
  stop.set_patience(kPatience);
  Items items(open_download(config, url, request.get()), url);
  // Items that run over the same terminal would tear the bar to pieces.
  const bool shows = is_terminal(stderr) && (options.counts || !is_terminal(stdout));
  Progress progress(options.expected, shows);
  try {
    transfer(options, items, progress, stop);
  } catch (...) {
    progress.end();
    if (shows) note(progress.summary() + (stop.requested() ? ", then interrupted" : ""));
    throw;
  }
  progress.end();
  if (options.counts) print_line(std::to_string(progress.items()));
  if (shows) note(progress.summary());
  if (progress.items() == 0) note("there was no item; a service that refuses a request may answer so, too");
  return ExitCode::done;
}

}  // namespace

void add_bulk_command(CommandLine &line, Context &context) {
  const auto options = std::make_shared<Options>();
  Command command = add_command(line, context, "bulk",
                                "Downloads a large document and prints its items, the elements two levels below its root",
                                "  qlk bulk --request readings.xml > items.xml\n"
                                "  qlk bulk https://127.0.0.1:8443/bulk --request - --json < readings.xml\n"
                                "  qlk bulk --request readings.xml --count --expect 1000000",
                                [&context, options](Stop &stop) { return run(context, *options, stop); });
  command.argument("URL", options->url, "The service's URL (default: the profile's)");
  command.option("-r,--request", "FILE", options->request, "A file that holds the request, an XML element; - is standard input",
                 Command::Need::required);
  command.option("--bulk-ca", "FILE", options->ca,
                 "The authorities that vouch for the service (default: the profile's, else those of --ca)");
  command.number("--expect", "N", options->expected, "How many items will come, for the progress bar");
  command.number("--limit", "N", options->limit, "End after this many items");
  command.flag("--json", options->as_json, "Print JSON lines instead of XML lines");
  command.flag("-c,--count", options->counts, "Print only how many items there are");
  command.exclude("--count", "--json");
}

}  // namespace tool

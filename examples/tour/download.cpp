#include "download.h"

#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace tour {

namespace {

long peak_memory_kib() {
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

// <bulkRequest records="..."/>
wb_dom_node *make_request(size_t records) {
  wb_dom_ctx *context = nullptr;
  wb_dom_node *request = nullptr;
  const bool built = wb_dom_context_create(&context, nullptr) &&
                     wb_dom_element_create(context, "{http://quillon.internal/quillon}bulkRequest", &request, nullptr) &&
                     wb_dom_set_attribute(request, "records", std::to_string(records).c_str(), nullptr);
  if (!built) std::abort();
  return request;
}

size_t count_items(quillon_bulkdownload *download) {
  size_t count = 0;
  for (;; ++count) {
    wb_dom_node *item = nullptr;
    Member::expect_ok(quillon_bulkdownload_next(download, &item), "download");
    if (item == nullptr) return count;
    wb_dom_context_destroy(wb_dom_get_context(item));
  }
}

}  // namespace

void show_download(const Grid &grid, const Member &member, size_t records) {
  quillon_bulkdownload *download = nullptr;
  wb_dom_node *request = make_request(records);
  Member::expect_ok(quillon_bulkdownload_create(&download, member.config()), "create a download");
  Member::expect_ok(quillon_bulkdownload_set_url(download, grid.bulk_url().c_str()), "set the URL");
  Member::expect_ok(quillon_bulkdownload_set_request(download, request), "set the request");
  wb_dom_context_destroy(wb_dom_get_context(request));
  const auto began = std::chrono::steady_clock::now();
  Member::expect_ok(quillon_bulkdownload_open(download), "open the download");
  const size_t got = count_items(download);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
  Member::expect_ok(quillon_bulkdownload_destroy(&download), "end the download");
  char line[200];
  std::snprintf(line, sizeof line, "downloaded %zu records in %.2f s: %.0f records a second; the process took %.1f MiB at most",
                got, seconds, static_cast<double>(got) / seconds, static_cast<double>(peak_memory_kib()) / 1024);
  Member::say(member.user(), line);
}

}  // namespace tour

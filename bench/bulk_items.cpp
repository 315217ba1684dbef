// Downloads that many items of 600 bytes with the library, from the bulk service of a local grid:
//
//   bulk_items --url URL --ca FILE --certificate FILE --key FILE --user NAME --items COUNT
#include <quillon.h>

#include "support/arguments.h"
#include "support/measure.h"

namespace {

void check(QUILLON_STATUS status, const char *what) {
  if (status != QUILLON_STATUS_OK) bench::fail(std::string(what) + " failed with status " + std::to_string(status));
}

wb_dom_node *make_request(long items) {
  const std::string xml =
      "<bulkRequest xmlns='http://quillon.internal/quillon' records='" + std::to_string(items) + "' recordSize='600'/>";
  wb_dom_node *request = nullptr;
  if (!wb_dom_parse(xml.data(), xml.size(), &request, nullptr)) bench::fail("wb_dom_parse failed");
  return request;
}

long download(quillon_bulkdownload *bulkdownload) {
  check(quillon_bulkdownload_open(bulkdownload), "quillon_bulkdownload_open");
  long items = 0;
  for (;;) {
    wb_dom_node *item = nullptr;
    check(quillon_bulkdownload_next(bulkdownload, &item), "quillon_bulkdownload_next");
    if (item == nullptr) break;
    ++items;
    wb_dom_context_destroy(wb_dom_get_context(item));
  }
  check(quillon_bulkdownload_close(bulkdownload), "quillon_bulkdownload_close");
  return items;
}

}  // namespace

int main(int argc, char **argv) {
  const bench::Arguments arguments(argc, argv);
  const long items = arguments.number("items", 1);
  quillon_config *config = nullptr;
  quillon_bulkdownload *bulkdownload = nullptr;
  check(quillon_config_create(&config), "quillon_config_create");
  quillon_log_set_level(QUILLON_LOG_ERROR);
  check(quillon_config_set_user_name(config, arguments.required("user").c_str()), "the user");
  check(quillon_config_set_bulk_server_cert_chain_filename(config, arguments.required("ca").c_str()), "the CA");
  check(quillon_config_set_client_cert_chain_filename(config, arguments.required("certificate").c_str()), "the certificate");
  check(quillon_config_set_client_cert_key_filename(config, arguments.required("key").c_str()), "the key");
  check(quillon_bulkdownload_create(&bulkdownload, config), "quillon_bulkdownload_create");
  check(quillon_bulkdownload_set_url(bulkdownload, arguments.required("url").c_str()), "the URL");
  wb_dom_node *const request = make_request(items);
  check(quillon_bulkdownload_set_request(bulkdownload, request), "the request");
  const long before = bench::resident_kib();
  const bench::Span span;
  if (download(bulkdownload) != items) bench::fail("items are missing");
  bench::Result()
      .add("seconds", span.seconds())
      .add("cpu_ms", span.cpu() * 1e3)
      .add("peak_kib", static_cast<double>(bench::peak_resident_kib() - before))
      .print();
  quillon_bulkdownload_destroy(&bulkdownload);
  quillon_config_destroy(config);
  wb_dom_context_destroy(wb_dom_get_context(request));
}

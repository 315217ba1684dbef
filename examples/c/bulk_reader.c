/* Downloads so many readings from the bulk service, and counts them:
 *
 *   bulk_reader bob 100000 */
#include "settings.h"

/* <bulkRequest resultSet="readings" records="..."/>, as the local grid's service has it; in a context of its own. */
static wb_dom_node *make_request(const char *records) {
  wb_dom_ctx *context = NULL;
  wb_dom_node *request = NULL;
  if (!wb_dom_context_create(&context, NULL) ||
      !wb_dom_element_create(context, "{http://quillon.internal/quillon}bulkRequest", &request, NULL) ||
      !wb_dom_set_attribute(request, "resultSet", "readings", NULL) || !wb_dom_set_attribute(request, "records", records, NULL)) {
    check(QUILLON_STATUS_XML_ERROR, "make the request");
  }
  return request;
}

int main(int argc, char **argv) {
  if (argc != 3) return usage(argv, "USER RECORDS");
  quillon_config *config = make_config(argv);
  quillon_bulkdownload *download = NULL;
  wb_dom_node *request = make_request(argv[2]), *item = NULL;
  check(quillon_bulkdownload_create(&download, config), "make a download");
  check(quillon_bulkdownload_set_url(download, grid_variable("QUILLON_GRID_BULK_URL")), "set the URL");
  check(quillon_bulkdownload_set_request(download, request), "set the request");
  wb_dom_context_destroy(wb_dom_get_context(request)); /* it was written as XML */

  check(quillon_bulkdownload_open(download), "open the download");
  long count = 0;
  QUILLON_STATUS status;
  do {
    status = quillon_bulkdownload_next(download, &item); /* none at the end; some may be left when the transfer has failed */
    if (item != NULL) ++count;
    wb_dom_context_destroy(wb_dom_get_context(item)); /* each item is ours; none is harmless */
  } while (item != NULL);
  printf("%ld readings\n", count);
  if (status == QUILLON_STATUS_REST_ERROR) {
    char reason[256];
    check(quillon_bulkdownload_get_error_details(download, reason, sizeof reason), "learn the reason");
    fprintf(stderr, "%s\n", reason);
  }

  check(quillon_bulkdownload_close(download), "close the download");
  quillon_bulkdownload_destroy(&download);
  quillon_config_destroy(config);
  check(status, "read to the end");
  return 0;
}

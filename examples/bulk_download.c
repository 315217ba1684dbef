/* Downloads records of the local grid's bulk service and prints them:
 *
 *   bulk_download URL CA CERTIFICATE KEY USER RECORDS
 *
 * `quillon-grid env` prints the URL and the CA's file, `quillon-grid enroll USER` the files of the certificate and the key. */
#include <quillon.h>
#include <stdlib.h>

/* <bulkRequest resultSet="readings" records="..."/>, or NULL. */
static wb_dom_node *make_request(const char *records) {
  wb_dom_ctx *context = NULL;
  wb_dom_node *request = NULL;
  if (!wb_dom_context_create(&context, NULL)) return NULL;
  if (wb_dom_element_create(context, "{http://quillon.internal/quillon}bulkRequest", &request, NULL) &&
      wb_dom_set_attribute(request, "resultSet", "readings", NULL) && wb_dom_set_attribute(request, "records", records, NULL)) {
    return request;
  }
  wb_dom_context_destroy(context);
  return NULL;
}

static bool print_item(wb_dom_node *item) {
  char *xml = NULL;
  bool written = wb_serialize_xml(item, &xml, NULL, NULL) && puts(xml) >= 0;
  free(xml);
  wb_dom_context_destroy(wb_dom_get_context(item));
  return written;
}

static QUILLON_STATUS download(quillon_bulkdownload *bulkdownload) {
  wb_dom_node *item = NULL;
  QUILLON_STATUS status = quillon_bulkdownload_open(bulkdownload);
  if (status != QUILLON_STATUS_OK) return status;
  do {
    status = quillon_bulkdownload_next(bulkdownload, &item);
    /* A transfer that failed may still have brought this item. */
    if (item != NULL && !print_item(item)) break;
  } while (item != NULL);
  if (status == QUILLON_STATUS_REST_ERROR) {
    char reason[256];
    quillon_bulkdownload_get_error_details(bulkdownload, reason, sizeof reason);
    fprintf(stderr, "%s\n", reason);
  }
  quillon_bulkdownload_close(bulkdownload);
  return status;
}

int main(int argc, char **argv) {
  quillon_config *config = NULL;
  quillon_bulkdownload *bulkdownload = NULL;
  if (argc != 7) {
    fprintf(stderr, "usage: %s URL CA CERTIFICATE KEY USER RECORDS\n", argv[0]);
    return 2;
  }
  wb_dom_node *request = make_request(argv[6]);
  QUILLON_STATUS status = quillon_config_create(&config);
  quillon_log_set_level(QUILLON_LOG_NONE);
  if (status == QUILLON_STATUS_OK) status = quillon_config_set_bulk_server_cert_chain_filename(config, argv[2]);
  if (status == QUILLON_STATUS_OK) status = quillon_config_set_client_cert_chain_filename(config, argv[3]);
  if (status == QUILLON_STATUS_OK) status = quillon_config_set_client_cert_key_filename(config, argv[4]);
  if (status == QUILLON_STATUS_OK) status = quillon_config_set_user_name(config, argv[5]);
  if (status == QUILLON_STATUS_OK) status = quillon_bulkdownload_create(&bulkdownload, config);
  if (status == QUILLON_STATUS_OK) status = quillon_bulkdownload_set_url(bulkdownload, argv[1]);
  if (status == QUILLON_STATUS_OK) status = quillon_bulkdownload_set_request(bulkdownload, request);
  if (status == QUILLON_STATUS_OK) status = download(bulkdownload);
  fprintf(stderr, "%s\n", quillon_status_get_message(status));
  quillon_bulkdownload_destroy(&bulkdownload);
  quillon_config_destroy(config);
  wb_dom_context_destroy(wb_dom_get_context(request));
  return status == QUILLON_STATUS_OK ? 0 : 1;
}

/* Uses both libraries without a network: a configuration, a tree of XML, a status text. */
#include <quillon.h>
#include <stdlib.h>
#include <string.h>

static int fail(const char *what) {
  fprintf(stderr, "consumer: %s\n", what);
  return EXIT_FAILURE;
}

int main(void) {
  quillon_config *config = NULL;
  wb_dom_ctx *context = NULL;
  wb_dom_node *element = NULL;
  char *xml = NULL;
  size_t length = 0;

  if (quillon_config_create(&config) != QUILLON_STATUS_OK) return fail("no configuration");
  if (quillon_config_set_user_name(config, "alice") != QUILLON_STATUS_OK) return fail("the user name was refused");
  quillon_config_destroy(config);

  if (!wb_dom_context_create(&context, NULL)) return fail("no context");
  if (!wb_dom_element_create(context, "{urn:example}greeting", &element, NULL)) return fail("no element");
  if (!wb_serialize_xml(element, &xml, &length, NULL)) return fail("not serialised");
  if (length != strlen(xml) || strstr(xml, "urn:example") == NULL) return fail(xml);
  free(xml);
  wb_dom_context_destroy(context);

  if (quillon_status_get_message(QUILLON_STATUS_OK) == NULL) return fail("no status text");
  return EXIT_SUCCESS;
}

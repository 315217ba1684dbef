/* Prints the readings that publishers send, until Ctrl-C:
 *
 *   subscriber bob */
#include "settings.h"

/* On a thread of the library, one notification at a time. */
static void on_reading(wb_dom_node *reading, void *arg) {
  (void)arg;
  const char *text = wb_dom_get_first_text(reading);
  printf("reading: %s\n", text != NULL ? text : "");
}

int main(int argc, char **argv) {
  if (argc != 2) return usage(argv, "USER");
  quillon_config *config = make_config(argv);
  quillon_connection *connection = make_connection(config);
  quillon_capability *weather = make_weather();

  check(quillon_connection_register_notification_handler(connection, "urn:example:weather", "reading", on_reading, NULL),
        "register the handler");
  check(quillon_connection_connect(connection), "connect");
  check(quillon_capability_subscribe(weather, connection), "subscribe to Weather");
  block_ctrl_c();
  puts("subscribed");
  wait_for_ctrl_c();

  check(quillon_connection_disconnect(connection), "disconnect");
  quillon_connection_destroy(connection);
  quillon_capability_destroy(weather);
  quillon_config_destroy(config);
  return 0;
}

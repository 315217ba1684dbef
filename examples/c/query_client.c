/* Asks a publisher for the weather of a day, and prints its answer:
 *
 *   query_client bob Monday */
#include "settings.h"

int main(int argc, char **argv) {
  if (argc != 3) return usage(argv, "USER DAY");
  quillon_config *config = make_config(argv);
  quillon_connection *connection = make_connection(config);
  quillon_capability *weather = make_weather();
  wb_dom_node *response = NULL;

  check(quillon_connection_connect(connection), "connect");
  check(quillon_capability_subscribe(weather, connection), "subscribe to Weather"); /* learns who publishes it */
  check(quillon_connection_query(connection, weather, make_element("day", argv[2]), &response), "ask");
  const char *forecast = wb_dom_get_first_text(response);
  puts(forecast != NULL ? forecast : "an empty answer");
  wb_dom_context_destroy(wb_dom_get_context(response)); /* the response is ours */

  check(quillon_connection_disconnect(connection), "disconnect");
  quillon_connection_destroy(connection);
  quillon_capability_destroy(weather);
  quillon_config_destroy(config);
  return 0;
}

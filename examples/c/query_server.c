/* Answers queries for the weather of a day, until Ctrl-C:
 *
 *   query_server alice */
#include "settings.h"

/* <day>Monday</day> is answered with <forecast>sunny on Monday</forecast>. On a thread of the library, one query at a time. */
static wb_dom_node *answer(wb_dom_node *request, void *arg) {
  (void)arg;
  char forecast[200];
  const char *day = wb_dom_get_first_text(request);
  snprintf(forecast, sizeof forecast, "sunny on %s", day != NULL ? day : "every day");
  return make_element("forecast", forecast); /* the library sends it and frees it */
}

int main(int argc, char **argv) {
  if (argc != 2) return usage(argv, "USER");
  quillon_config *config = make_config(argv);
  quillon_connection *connection = make_connection(config);
  quillon_capability *weather = make_weather();

  check(quillon_connection_register_query_handler(connection, "urn:example:weather", "day", answer, NULL),
        "register the handler");
  check(quillon_connection_connect(connection), "connect");
  check(quillon_capability_publish(weather, connection), "publish Weather");
  block_ctrl_c();
  puts("ready");
  wait_for_ctrl_c();

  check(quillon_connection_disconnect(connection), "disconnect");
  quillon_connection_destroy(connection);
  quillon_capability_destroy(weather);
  quillon_config_destroy(config);
  return 0;
}

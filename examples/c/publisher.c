/* Publishes a reading every second, until Ctrl-C:
 *
 *   publisher alice */
#include "settings.h"

int main(int argc, char **argv) {
  if (argc != 2) return usage(argv, "USER");
  quillon_config *config = make_config(argv);
  quillon_connection *connection = make_connection(config);
  quillon_capability *weather = make_weather();

  check(quillon_connection_connect(connection), "connect");
  check(quillon_capability_publish(weather, connection), "publish Weather");
  block_ctrl_c();
  puts("publishing");
  for (int count = 1; !ctrl_c_within(1); ++count) {
    char text[40];
    snprintf(text, sizeof text, "%d degrees", 20 + count % 10);
    check(quillon_connection_notify(connection, weather, make_element("reading", text)), "notify");
  }

  check(quillon_connection_disconnect(connection), "disconnect");
  quillon_connection_destroy(connection);
  quillon_capability_destroy(weather);
  quillon_config_destroy(config);
  return 0;
}

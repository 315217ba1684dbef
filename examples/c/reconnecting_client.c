/* Stays in the grid until Ctrl-C: looks every minute whether the session was lost, and connects again. What was subscribed or
 * published is announced again each time.
 *
 *   reconnecting_client bob     and elsewhere: quillon-grid server-stop; quillon-grid server-start */
#include "settings.h"

/* On the thread that connects. */
static void on_connect(quillon_connection *connection, void *arg) {
  (void)connection, (void)arg;
  puts("connected");
}

/* On the event loop: nothing here may wait for the connection. */
static void on_disconnect(quillon_connection *connection, QUILLON_STATUS status, void *arg) {
  (void)connection, (void)arg;
  printf("disconnected: %s\n", quillon_status_get_message(status));
}

int main(int argc, char **argv) {
  if (argc != 2) return usage(argv, "USER");
  quillon_config *config = make_config(argv);
  quillon_connection *connection = make_connection(config);
  quillon_reconnection *reconnection = NULL;
  check(quillon_connection_set_connect_cb(connection, on_connect), "set the connect callback");
  check(quillon_connection_set_disconnect_cb(connection, on_disconnect), "set the disconnect callback");

  block_ctrl_c();
  check(quillon_reconnection_create(&reconnection, connection), "make the reconnection");
  check(quillon_reconnection_start(reconnection), "start the reconnection"); /* it connects from a thread of its own */
  wait_for_ctrl_c();

  check(quillon_reconnection_stop(reconnection), "stop the reconnection"); /* it disconnects, too */
  quillon_reconnection_destroy(reconnection);
  quillon_connection_destroy(connection);
  quillon_config_destroy(config);
  return 0;
}

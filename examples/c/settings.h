/* What the examples share: the settings of a user of the local grid, and a few lines that every program would need.
 * `eval "$(quillon-grid env --export)"` tells them where the grid is; the user was enrolled there. */
#ifndef EXAMPLES_SETTINGS_H
#define EXAMPLES_SETTINGS_H

#include <quillon.h>
#include <signal.h>
#include <stdlib.h>
#include <time.h>

/* Ends the program when a call has failed. */
static inline void check(QUILLON_STATUS status, const char *what) {
  if (status == QUILLON_STATUS_OK) return;
  const char *text = quillon_status_get_message(status);
  fprintf(stderr, "cannot %s: %s\n", what, text != NULL ? text : "not connected");
  exit(1);
}

/* Tells the arguments. Returns: the exit code for it */
static inline int usage(char **argv, const char *arguments) {
  fprintf(stderr, "usage: %s %s\n", argv[0], arguments);
  return 2;
}

/* One of the variables of the grid; without it the program ends. */
static inline const char *grid_variable(const char *name) {
  const char *value = getenv(name);
  if (value != NULL) return value;
  fprintf(stderr, "%s is not set: 'quillon-grid env --export' tells it\n", name);
  exit(2);
}

/* The library's records come without an end of line. */
WB_PRINTF(1, 0) static inline int print_record(const char *format, va_list args) {
  vfprintf(stderr, format, args);
  return fputc('\n', stderr);
}

/* A configuration for the user, who is the first argument; the caller destroys it. */
static inline quillon_config *make_config(char **argv) {
  const char *folder = grid_variable("QUILLON_GRID_FOLDER"), *ca = grid_variable("QUILLON_GRID_CA");
  char certificate[1000], key[1000];
  quillon_config *config = NULL;
  snprintf(certificate, sizeof certificate, "%s/users/%s/certificate.pem", folder, argv[1]);
  snprintf(key, sizeof key, "%s/users/%s/key.pem", folder, argv[1]);
  setvbuf(stdout, NULL, _IOLBF, 0);
  quillon_log_set_callback(print_record);
  quillon_log_set_level(QUILLON_LOG_WARN);
  check(quillon_config_create(&config), "make a configuration");
  check(quillon_config_set_host(config, grid_variable("QUILLON_GRID_HOST")), "set the host");
  check(quillon_config_set_user_name(config, argv[1]), "set the user");
  check(quillon_config_set_client_cert_chain_filename(config, certificate), "set the certificate");
  check(quillon_config_set_client_cert_key_filename(config, key), "set the key");
  check(quillon_config_set_server_cert_chain_filename(config, ca), "set the CA");
  check(quillon_config_set_bulk_server_cert_chain_filename(config, ca), "set the CA of downloads");
  return config;
}

static inline quillon_connection *make_connection(quillon_config *config) {
  quillon_connection *connection = NULL;
  check(quillon_connection_create(&connection), "make a connection");
  check(quillon_connection_set_config(connection, config), "set the configuration");
  return connection;
}

static inline quillon_capability *make_weather(void) {
  quillon_capability *weather = NULL;
  check(quillon_capability_create(&weather), "make a capability");
  check(quillon_capability_set_namespace(weather, "urn:example:weather"), "set the namespace");
  check(quillon_capability_set_name(weather, "Weather"), "set the name");
  return weather;
}

/* <name xmlns="urn:example:weather">text</name> in a context of its own. */
static inline wb_dom_node *make_element(const char *name, const char *text) {
  char ename[100];
  wb_dom_ctx *context = NULL;
  wb_dom_node *element = NULL, *content = NULL;
  snprintf(ename, sizeof ename, "{urn:example:weather}%s", name);
  if (!wb_dom_context_create(&context, NULL) || !wb_dom_element_create(context, ename, &element, NULL) ||
      !wb_dom_text_create(context, text, &content, NULL) || !wb_dom_add_child(element, content, NULL)) {
    check(QUILLON_STATUS_XML_ERROR, "make an element");
  }
  return element;
}

/* From here on Ctrl-C ends nothing by itself: ctrl_c_within takes it. The library's threads take no signals. */
static inline void block_ctrl_c(void) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals, NULL);
}

/* Waits for Ctrl-C. Returns: whether it came within so many seconds */
static inline bool ctrl_c_within(time_t seconds) {
  const struct timespec timeout = {.tv_sec = seconds, .tv_nsec = 0};
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  return sigtimedwait(&signals, NULL, &timeout) == SIGINT;
}

static inline void wait_for_ctrl_c(void) {
  while (!ctrl_c_within(3600)) continue;
}

#endif

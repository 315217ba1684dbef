/* A look into a client while it works: what it has counted, and the stanzas that pass. */
#ifndef WARBLER_INSPECT_H
#define WARBLER_INSPECT_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <warbler/client.h>
#include <warbler/err.h>
#include <warbler/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/* What a client has counted since it was made, over all its sessions: XMPP as plain text, before TLS encrypts it or as TLS
 * decrypted it. Later versions may append fields. */
typedef struct wb_client_statistics {
  size_t size;                  /* in: sizeof(wb_client_statistics) of the caller; out: how much of it was filled */
  uint64_t stanzas_sent;        /* IQs, messages and presences of sessions that were up, handed to TLS */
  uint64_t stanzas_received;    /* the same, read */
  uint64_t bytes_sent;          /* all that was said: what opens and ends sessions too, and the blanks that keep a link alive */
  uint64_t bytes_received;      /* all that was heard */
  size_t bytes_waiting;         /* what waits to be written now; max_queue_bytes bounds it */
  size_t bytes_waiting_highest; /* the most that ever waited */
} wb_client_statistics;

/* Reads the counters; they go on meanwhile, so that each is exact and they may be a stanza apart. What lies beyond the fields
 * that this version knows is set to zero. Any thread; it takes no lock and holds nothing up. Fails with WB_ERR_INVALID_ARG (NULL,
 * or a size that ends before the last field of the first version). */
WB_API bool wb_client_get_statistics(const wb_client *client, wb_client_statistics *statistics, wb_err *err);

/* Which way a stanza goes. */
typedef enum wb_trace_direction {
  WB_TRACE_SENT = 0,    /* to the server */
  WB_TRACE_RECEIVED = 1 /* from the server */
} wb_trace_direction;

/* Receives one element of the stream: a stanza, or what a session is opened and ended with, such as features, SASL and stream
 * errors; the stream's head and closing tag are none. The text, zero-terminated and of that length, lives until the function
 * returns. Secrets are rows of asterisks of the same length: the payloads of SASL, whatever stands in elements called token or
 * password, and attributes of these names.
 * On the loop, one at a time, in the order in which elements are written and read. It must return soon, and must neither destroy
 * the client nor connect or disconnect it. */
typedef void (*wb_client_trace)(wb_trace_direction direction, const char *xml, size_t length, void *arg);

/* Shows each element to the function from now on; NULL: nobody, which costs a load and a branch for each stanza. A call that is
 * under way on another thread may still be running when this returns. What cannot be kept for want of memory is not shown, and
 * what is being sent on other threads at this moment may not be. Any thread; it does not block. NULL for the client is harmless.
 */
WB_API void wb_client_set_trace(wb_client *client, wb_client_trace function, void *arg);

#ifdef __cplusplus
}
#endif

#endif

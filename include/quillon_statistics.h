/* libqlk: a view inside a connection that works: what it has counted, the stanzas that pass, and the keys of its TLS sessions.
 * quillon.h includes this header, and what it says of all functions holds here too. */
#ifndef QUILLON_STATISTICS_H
#define QUILLON_STATISTICS_H

#include <quillon.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Statistics --------------------------------------------------------------------------------------------- */

/* How queries ended. The library's own questions to the controller, such as those that a connect asks, are synchronous queries
 * too. A synchronous one that asked several publishers counts by the last. Calls with invalid arguments are not counted. */
typedef struct _quillon_query_counts {
  uint64_t answered;  /* a publisher, or the controller, answered */
  uint64_t refused;   /* it refused, or the server did in its place, or it answered with no response */
  uint64_t not_sent;  /* the last attempt sent nothing: no session, no publisher known, not taken, or called while drained */
  uint64_t timed_out; /* sent, and no answer came in time */
  uint64_t unknown;   /* sent, and the session ended, or the call was cancelled, before an answer came */
} quillon_query_counts;

/* What a connection is about. */
typedef enum QUILLON_CONNECTION_PHASE {
  QUILLON_CONNECTION_PHASE_DOWN = 0,       /* not part of the grid, and no connect is under way */
  QUILLON_CONNECTION_PHASE_CONNECTING = 1, /* a connect is under way */
  QUILLON_CONNECTION_PHASE_PENDING = 2,    /* a connect waits for an administrator to enable the account */
  QUILLON_CONNECTION_PHASE_CONNECTED = 3,  /* part of the grid */
  QUILLON_CONNECTION_PHASE_MAX = 4         /* the end of the range, no phase */
} QUILLON_CONNECTION_PHASE;

/* The number of buckets of quillon_statistics.latency. */
enum { QUILLON_LATENCY_BUCKETS = 32 };

/* What a connection has counted since it was made, over all its sessions. Fields that tell what is now, and not what has been,
 * say so. Later versions may append fields. */
typedef struct _quillon_statistics {
  size_t size; /* in: sizeof(quillon_statistics) of the caller; out: how much of it the library has filled */

  /* XMPP, as plain text: before TLS encrypts it, or as TLS decrypted it. */
  uint64_t stanzas_sent;        /* IQs, messages and presences of sessions that were up, taken to be written */
  uint64_t stanzas_received;    /* the same, read */
  uint64_t bytes_sent;          /* all that was said: what opens and ends sessions too, and the blanks that keep a link alive */
  uint64_t bytes_received;      /* all that was heard, up to the end of each stream */
  size_t bytes_waiting;         /* now: what waits to be written */
  size_t bytes_waiting_highest; /* the most that ever waited */

  quillon_query_counts synchronous_queries;  /* those that were waited for, once they had ended */
  quillon_query_counts asynchronous_queries; /* those of quillon_async.h, once they had ended */
  size_t queries_in_flight;                  /* now: those of both kinds that have not ended */
  size_t queries_in_flight_highest;          /* the most there ever were at once */

  /* The queries that were answered, by how long that took, from the call to its end, in microseconds: bucket 0 counts those below
   * 1, bucket i those from 2^(i-1) on and below 2^i; the last bucket also all that took longer. */
  uint64_t latency[QUILLON_LATENCY_BUCKETS];
  uint64_t latency_sum; /* of all of them together, in microseconds */

  /* What waits for a thread to call the application, as in quillon_connection_get_handler_queue_usage. */
  quillon_handler_queue_usage request_queue;      /* requests */
  quillon_handler_queue_usage notification_queue; /* notifications */
  quillon_handler_queue_usage completion_queue;   /* asynchronous queries that have ended; none is ever dropped */

  uint64_t session_attempts; /* XMPP sessions that connects began */
  uint64_t sessions;         /* those that came up */
  uint64_t reconnects;       /* how often it became part of the grid again */

  QUILLON_CONNECTION_PHASE phase; /* now */
  /* The time spent in each phase, the present one too: all together the time since the connection was made. */
  uint64_t phase_milliseconds[QUILLON_CONNECTION_PHASE_MAX];
} quillon_statistics;

/* Reads the statistics, which are always kept; set statistics->size first. They go on meanwhile, so that each is exact and they
 * may be a query apart. What lies beyond the fields that the library knows is set to zero.
 * Thread:  any, callbacks too; it does not block, and holds up nothing that goes on.
 * Returns: QUILLON_STATUS_OK, or QUILLON_STATUS_INVALID_ARGS also for a size that ends before
 *          phase_milliseconds does */
QUILLON_API QUILLON_STATUS quillon_connection_get_statistics(const quillon_connection *connection,
                                                             quillon_statistics *statistics);

/* The time in microseconds within which that part of the answered queries, from 0 to 1, was answered: for the median 0.5. It is
 * the end of the bucket in which the part is reached, so that it is at most twice the exact time; UINT64_MAX for the last bucket,
 * which has no end. 0 when nothing was answered, for NULL, and for a part that is no number from 0 to 1. Thread: any; it only
 * reads the record. */
QUILLON_API uint64_t quillon_statistics_latency_quantile(const quillon_statistics *statistics, double part);

/* ---- Trace of the stanzas ----------------------------------------------------------------------------------- */

/* Which way a stanza goes. */
typedef enum QUILLON_TRACE_DIRECTION {
  QUILLON_TRACE_SENT = 0,     /* to the server */
  QUILLON_TRACE_RECEIVED = 1, /* from the server */
  QUILLON_TRACE_MAX = 2       /* the end of the range, no direction */
} QUILLON_TRACE_DIRECTION;

/* Receives each stanza, and each other element of the stream, such as features, SASL and stream errors, as XML in a text that is
 * zero-terminated, length bytes long, and gone when the callback returns. What is secret is a row of asterisks of the same
 * length: the payloads of SASL, whatever stands in elements called token or password, in any namespace, and attributes of these
 * names. Nothing else is: a secret that an application puts into a payload by another name is shown.
 * On the event loop, one at a time, in the order in which the elements are written and read. It must return soon, and must
 * neither block on the connection nor destroy it. */
typedef void (*quillon_stanza_trace_cb)(quillon_connection *connection, QUILLON_TRACE_DIRECTION direction, const char *xml,
                                        size_t length, void *user_data);

/* Shows each stanza to the callback from now on, also those of later sessions; NULL: to nobody, as at first, which costs a load
 * and a branch for each. A call that is under way on the event loop may still be running when this returns; set it before
 * connecting to see everything. While it is set, synchronous queries are written by the event loop, which is a little slower.
 * Thread:  any; it does not block.
 * Returns: QUILLON_STATUS_OK, or QUILLON_STATUS_INVALID_ARGS */
QUILLON_API QUILLON_STATUS quillon_connection_set_stanza_trace(quillon_connection *connection, quillon_stanza_trace_cb callback,
                                                               void *user_data);

/* ---- TLS key log -------------------------------------------------------------------------------------------- */

/* Has the keys of the TLS sessions that begin from now on appended to the file, one a line in the NSS key log format, which
 * programs that decode captured traffic read; NULL ends that for sessions that are yet to begin. It holds wherever
 * quillon_config_fill_ssl_ctx fills the context: sessions with the XMPP server, unless the application fills it otherwise, and
 * bulk downloads. Whoever has the file can read all that these sessions carry, tokens too: it is for debugging only. A warning is
 * logged for each session.
 *   The file is made with mode 0600 when it is not there, and must otherwise be a regular file of the caller's that nobody else
 * may read, with one name and no symbolic link.
 * Returns: QUILLON_STATUS_OK
 *          QUILLON_STATUS_INVALID_ARGS  also for a name that is empty or longer than 65536 bytes
 *          QUILLON_STATUS_UNKNOWN       the file cannot be opened, or is none to write secrets to, which is logged; what was set
 *                                       before stays in force */
QUILLON_API QUILLON_STATUS quillon_config_set_tls_key_log(quillon_config *config, const char *filename);

#ifdef __cplusplus
}
#endif

#endif

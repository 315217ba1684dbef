/* libqlk: queries that nobody waits for. quillon.h includes this header, and what it says of all functions holds here too.
 *
 * A call goes out at once and ends later, on a thread of the library, with one definite outcome. Any number may be in flight,
 * begun by one thread or by many. The synchronous queries of quillon.h are not touched by them: both send in the same way and
 * share the memory of which publisher answered last, but a synchronous caller is woken by the event loop itself and waits for no
 * callback. */
#ifndef QUILLON_ASYNC_H
#define QUILLON_ASYNC_H

#include <quillon.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Asynchronous queries ----------------------------------------------------------------------------------- */

/* What is known of a request once its call has ended. */
typedef enum QUILLON_QUERY_OUTCOME {
  QUILLON_QUERY_OUTCOME_ANSWERED = 0, /* a publisher answered */
  QUILLON_QUERY_OUTCOME_REFUSED = 1,  /* every publisher that was asked refused, or the server did in its place */
  QUILLON_QUERY_OUTCOME_NOT_SENT = 2, /* nothing left this process: asking again does nothing twice */
  QUILLON_QUERY_OUTCOME_UNKNOWN = 3,  /* sent, and no answer came: a publisher may have acted on it, or may still do so */
  QUILLON_QUERY_OUTCOME_MAX = 4       /* the end of the range, no outcome */
} QUILLON_QUERY_OUTCOME;

/* How a call ended. It and what it points to live until the callback returns; who wants the response longer retains its context:
 * wb_dom_context_retain(wb_dom_get_context(response)). Later versions may append fields.
 *   status, by outcome:
 *          ANSWERED   QUILLON_STATUS_OK
 *          REFUSED    QUILLON_STATUS_XMPP_ERROR            the last publisher, or the server, refused the request
 *                     QUILLON_STATUS_QUILLON_ERROR         a publisher answered, but with no response
 *          NOT_SENT   QUILLON_STATUS_NO_CONNECTION         there is no session
 *                     QUILLON_STATUS_CAPABILITY_NOT_FOUND  no publisher is known
 *                     QUILLON_STATUS_SEND_TIMEOUT          the deadline passed before
 *                     QUILLON_STATUS_CONNECTION_ERROR      the connection was destroyed before
 *                     QUILLON_STATUS_XML_ERROR             the request could not be built
 *                     QUILLON_STATUS_MALLOC_ERROR          memory is exhausted
 *                     QUILLON_STATUS_UNKNOWN               the session did not take it: no legal text, too large, or too much
 *                                                          waits to be written; or quillon_pending_query_cancel
 *          UNKNOWN    QUILLON_STATUS_SEND_TIMEOUT          the deadline passed
 *                     QUILLON_STATUS_CONNECTION_ERROR      the session ended, or the connection was destroyed
 *                     QUILLON_STATUS_UNKNOWN               quillon_pending_query_cancel */
typedef struct _quillon_query_result {
  QUILLON_QUERY_OUTCOME outcome; /* what is known of the request */
  QUILLON_STATUS status;         /* why */
  const char *publisher;         /* the full JID that answered or refused, else the one asked last; NULL when none was */
  wb_dom_node *response;         /* the payload of the answer; NULL unless the outcome is ANSWERED */
} quillon_query_result;

/* Receives the end of a call, exactly once. On the connection's completion thread, which calls one at a time, in the order in
 * which calls end. It may block and call every function, quillon_connection_destroy included; while it blocks, those of the
 * connection's other calls wait, so it must not wait for the end of another asynchronous query of the same connection. */
typedef void (*quillon_query_done_cb)(const quillon_query_result *result, void *user_data);

/* A call that was begun: what it can be cancelled with. */
typedef struct _quillon_pending_query quillon_pending_query;

/* Begins to ask the publishers of the capability, in the order of quillon_connection_query: beginning with the one that answered
 * last, each further one when the one before refused, or was silent for its share of the time, which is what is left divided by
 * the publishers left, and at most the send time-out. A publisher that was passed over may still answer before the deadline: the
 * first answer counts, whoever gives it. The deadline is one for all of them, in milliseconds from now; 0: nothing is sent.
 * Owner:   request is consumed with one reference of its context if the result is OK, and otherwise stays the caller's.
 *          *pending, which may be NULL for who never cancels, is set before the callback can run; the caller ends it with
 *          quillon_pending_query_destroy. The capability may be destroyed meanwhile.
 * Thread:  any, the event loop's and callbacks too; it does not block. The first call starts two threads of the connection.
 * Returns: QUILLON_STATUS_OK             the callback will run, exactly once, with what became of it
 *          anything else: nothing was begun, and the callback does not run:
 *          QUILLON_STATUS_INVALID_ARGS   connection, capability, request or callback is NULL
 *          QUILLON_STATUS_NO_CONNECTION  the connection was drained, or is being destroyed
 *          QUILLON_STATUS_PTHREAD_ERROR  the threads could not be started */
QUILLON_API QUILLON_STATUS quillon_connection_query_async(quillon_connection *connection, quillon_capability *capability,
                                                          wb_dom_node *request, uint32_t milliseconds,
                                                          quillon_query_done_cb callback, void *user_data,
                                                          quillon_pending_query **pending);

/* The same, asking the controller. */
QUILLON_API QUILLON_STATUS quillon_connection_query_controller_async(quillon_connection *connection, wb_dom_node *request,
                                                                     uint32_t milliseconds, quillon_query_done_cb callback,
                                                                     void *user_data, quillon_pending_query **pending);

/* Ends a call that has not ended yet: its outcome is UNKNOWN, or REFUSED or NOT_SENT when that is sure, and its status
 * QUILLON_STATUS_UNKNOWN but for REFUSED. What was sent is not called back; an answer that still comes is dropped. The callback
 * runs as always, perhaps after the return. It may be called after the end of the call and of the connection.
 * Thread:  any; it does not block.
 * Returns: QUILLON_STATUS_OK, also when the call had ended, or QUILLON_STATUS_INVALID_ARGS */
QUILLON_API QUILLON_STATUS quillon_pending_query_cancel(quillon_pending_query *pending);

/* Frees the handle; the call goes on. NULL is harmless. Thread: any; it does not block. */
QUILLON_API void quillon_pending_query_destroy(quillon_pending_query *pending);

/* ---- Leaving in order --------------------------------------------------------------------------------------- */

/* Leaves the grid by a deadline, in milliseconds from now. From the call on no query is sent any more: synchronous ones, and what
 * else asks the controller, return QUILLON_STATUS_NO_CONNECTION, as asynchronous ones do, until quillon_connection_connect is
 * called again. Those under way may end; then the requests that had arrived are answered; then the session is ended as
 * quillon_connection_disconnect does. Stop a quillon_reconnection first, or it connects again when this is over.
 *   At the deadline what is left is cut short: asynchronous calls end with QUILLON_STATUS_SEND_TIMEOUT and their callbacks run,
 * synchronous ones return with the end of the session, and stanzas that wait for a handler are dropped (where a handler drains,
 * those that wait for it at once). After the return no callback of the connection runs, until it connects again.
 *   It may be called out of every callback but disconnect_cb and the TLS context's: the callback that calls it goes on when it
 * returns, and those of other calls run within it. A callback may destroy the connection meanwhile; it then returns at once.
 * Blocks:  until all has ended, at most the milliseconds and what quillon_connection_disconnect takes; longer only for callbacks
 *          that are running, unless they drain the connection too.
 * Thread:  any but the event loop's.
 * Returns: QUILLON_STATUS_OK            everything had ended before the deadline, also without a session
 *          QUILLON_STATUS_SEND_TIMEOUT  something was cut short; the session is ended all the same, unless a callback that does
 *                                       not return holds the event loop up: then it ends, and callbacks with it, once that has
 *          QUILLON_STATUS_SEND_ERROR    called on the event loop: nothing was done
 *          QUILLON_STATUS_MALLOC_ERROR  memory is exhausted, and the session may still be up */
QUILLON_API QUILLON_STATUS quillon_connection_drain(quillon_connection *connection, uint32_t milliseconds);

#ifdef __cplusplus
}
#endif

#endif

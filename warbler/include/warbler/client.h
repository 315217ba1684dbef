/* The XMPP client: one session with one server, over TCP and STARTTLS, authenticated by SASL.
 *
 * Threads. Socket, TLS, parsing, events and callbacks run on the thread that dispatches the event base ("selector"), called the
 * loop. wb_client_connect, wb_client_send_stanza and wb_client_track_iq may be called on any thread.
 *
 * Ownership. wb_client_send_stanza and wb_client_track_iq consume one reference of the stanza's context, whether they succeed or
 * fail. A received stanza belongs to the client for the length of the event or callback; who wants it longer retains its context.
 *
 * Events (wb_client_event), all raised on the loop; their source is the client (wb_client *):
 *   "clientConnected"         the session is up: bound and ready for stanzas; data is the full JID in force (const char *)
 *   "clientDisconnected"      the session or the attempt has ended, exactly once for each connect; data is the stream error
 *                             element (wb_dom_node *) or NULL; every tracked IQ has been called back before
 *   "reconnectStatusChanged"  the countdown of "client_reconnect_countdown" began, ended or was cancelled; read it with
 *                             wb_client_reconnect_get_status
 *   "presenceReceived", "messageReceived", "iqReceived"
 *                             data is the stanza (wb_dom_node *); an IQ is reported when it is a get or set with an element
 *                             child named "grid", anything else the client answers itself
 *   "clientDestroyed"         wb_client_destroy has begun; raised on the thread that calls it
 *
 * Configuration table of wb_client_connect; keys compare without regard to case, texts are zero-terminated:
 *   "selector"                    struct event_base *, the loop
 *   "domain"                      the XMPP domain: stream address, TLS server name, expected certificate name
 *   "host"                        where to dial: name, name:port, 192.0.2.1:port or [2001:db8::1]:port; 5222 without a port
 *   "userjid"                     the full JID; its resource is the one that is bound
 *   "streamtype"                  "socket", the only one there is
 *   "client_sasl_factory"         wb_sasl_factory *
 *   "client_reconnect_countdown"  seconds until the client connects again by itself after a session was lost; "0": never
 *   "tls-connect-cb", "tls-accept-cb"          addresses of variables that hold a wb_tls_connect_func / wb_tls_accept_func
 *   "tls-connect-cb-arg", "tls-accept-cb-arg"  their arguments
 * and, optional:
 *   "other_hosts"                 further hosts in the forms of "host", with blanks between them: their addresses are dialled
 *                                 too, and the session is with the first that answers
 * and, all optional, as decimal texts:
 *   "max_stanza_bytes" (4194304), "max_depth" (256), "max_attributes" (256)   limits of what is received
 *   "max_queue_bytes" (67108864)      bytes that may wait to be written before a send is refused
 *   "connect_timeout_seconds" (45)    name resolution, TCP, TLS, SASL and binding together; a server that does not bear being
 *                                     asked several things at once is asked a second time within it
 *   "idle_probe_seconds" (60)         a link that was silent for so long is probed; after as long again without an answer it
 *                                     is ended; the client itself is never silent for so long, nor for as long as the server
 *                                     announces to bear (the idle-seconds of its stream limits)
 *   "race_milliseconds" (0)           0: addresses are dialled one after the other, each for its share of the time. More: the
 *                                     next one is dialled so long after the one before, or when that has failed, IPv6 and IPv4
 *                                     by turns, and the first that answers wins
 *
 * Lifetime of the table. Texts, numbers and the hooks that the variables hold are copied before wb_client_connect returns. Three
 * things are borrowed: the table itself, which mechanisms are given; the factory; and whatever the hooks' arguments point to. An
 * attempt uses them until it has ended, by "clientConnected" or "clientDisconnected"; until then the table must not be changed
 * on another thread than the loop. A session that is up uses none of them.
 *   With "client_reconnect_countdown" the client begins further attempts by itself, with the same table, factory and arguments.
 * All three must then stay from wb_client_connect on, while a session is up too, until one of these: a wb_client_disconnect has
 * returned and the "clientDisconnected" of what it ended, if there was anything, has been raised; a wb_client_connect with
 * another table was called later, and its first event has come after the "clientDisconnected" of what it replaced, if there was
 * anything; wb_client_destroy has returned. */
#ifndef WARBLER_CLIENT_H
#define WARBLER_CLIENT_H

#include <stdbool.h>
#include <warbler/dom.h>
#include <warbler/err.h>
#include <warbler/event.h>
#include <warbler/export.h>
#include <warbler/htable.h>
#include <warbler/workq.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A client, which has one session at most. */
typedef struct wb_client wb_client;

/* What has become of the countdown of "client_reconnect_countdown". */
typedef enum wb_reconnect_status {
  WB_RECONNECT_CANCELED = 0, /* it was cancelled; the client does not connect by itself */
  WB_RECONNECT_PENDING = 1,  /* it began */
  WB_RECONNECT_STARTING = 2  /* it has ended, and the client connects */
} wb_reconnect_status;

/* Makes a client that uses the queue and its event base; both must outlive it. Fails with WB_ERR_INVALID_ARG or WB_ERR_NO_MEMORY.
 * The caller destroys *out. */
WB_API bool wb_client_create(wb_workq *queue, wb_client **out, wb_err *err);

/* Drops the session, if there is one, without a closing handshake and without "clientDisconnected"; tracked IQs are called back
 * with NULL. Waits for a callback of this client that is under way on the loop, unless it is called from one; afterwards none
 * runs. Any thread. NULL is harmless. */
WB_API void wb_client_destroy(wb_client *client);

/* Checks the configuration and starts to connect on the loop; the outcome comes as an event. How long the table must live is told
 * at the top. A client that is connected or half connected drops its old session first. Never blocks. Fails with
 * WB_ERR_INVALID_ARG (NULL, or a key that is missing), WB_ERR_BAD_FORMAT (host, JID or number) or WB_ERR_NO_MEMORY; nothing has
 * begun then and no event follows. */
WB_API bool wb_client_connect(wb_client *client, wb_htable *config, wb_err *err);

/* Ends the session: writes what waits, for at most five seconds, closes the stream, waits two seconds at most for the server's
 * closing tag, and raises "clientDisconnected". What is sent from the moment of the call is refused. reason is logged;
 * WB_ERR_NONE is an ordinary end. On the loop. On a client without a session it only cancels a reconnect countdown. */
WB_API void wb_client_disconnect(wb_client *client, wb_errcode reason);

/* Sends a stanza. It is written in the next pass of the loop, with all others of that pass; success means that it will be written
 * if the session lives. Any thread; never blocks. Fails with WB_ERR_INVALID_STATE (no session, or one that is ending),
 * WB_ERR_BAD_FORMAT (text that is no XML, or over the limit that the server announced), WB_ERR_NO_MEMORY (more than
 * max_queue_bytes wait). Consumes one reference of the context. */
WB_API bool wb_client_send_stanza(wb_client *client, wb_dom_node *stanza, wb_err *err);

/* Receives the answer of a tracked IQ, a result or an error; NULL: none came in time, or the session ended. Called exactly once.
 */
typedef void (*wb_client_iq_callback)(wb_dom_node *result, void *arg);

/* Sends an IQ of type get or set under a fresh id, which replaces its attribute id, and calls back on the loop with the answer of
 * that id that comes from the address it was sent to. Any thread; never blocks. Fails as wb_client_send_stanza does; the callback
 * is not called then. A time-out of 0 calls back with NULL in the next pass of the loop. Consumes one reference of the context.
 */
WB_API bool wb_client_track_iq(wb_client *client, wb_dom_node *iq, wb_client_iq_callback callback, void *arg,
                               unsigned timeout_seconds, wb_err *err);

/* Whether the calling thread leaves the IQs that it tracks from here on to the loop to write, of every client. At first it does
 * not: it writes each itself where the loop is idle, which is soonest for one that is waited for. Who sends many in a row turns
 * it on meanwhile: they leave together, and the two threads do not get into each other's way. Any thread, for itself; never
 * blocks. */
WB_API void wb_client_leave_writing_to_loop(bool leaves);

/* Reads a "reconnectStatusChanged" event; timeout (seconds, may be NULL) is the countdown of WB_RECONNECT_PENDING. False for
 * another event. */
WB_API bool wb_client_reconnect_get_status(const wb_event_data *event, wb_reconnect_status *status, unsigned *timeout);

/* The event of that name, which lives as long as the client; NULL for a name that the client does not raise. Any thread. */
WB_API wb_event *wb_client_event(wb_client *client, const char *name);

#ifdef __cplusplus
}
#endif

#endif

/* libqlk: how a reconnection waits, which host it tries, and what it tells. quillon.h includes this header, and what it says of
 * all functions holds here too.
 *
 * With none of this a reconnection looks every 60 seconds whether its connection is down. The first of the three setters of
 * delays, jitter and hosts that is called makes it prompt: it then learns at once that the session has ended, and waits as it is
 * told from that moment on. */
#ifndef QUILLON_RECONNECTION_OPTIONS_H
#define QUILLON_RECONNECTION_OPTIONS_H

#include <quillon.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- How long a reconnection waits -------------------------------------------------------------------------- */

/* Sets the delays, in milliseconds. The first follows the loss of the session, or an attempt that failed; each
 * further one is the one before times growth_percent / 100, until it has come to the ceiling. They begin anew once a
 * session has lasted for as long as the ceiling: one that is lost sooner counts as another failure. Where nothing is
 * set it is 60000, 100, 60000: 60 seconds each time.
 *   After the server's stream error conflict (another session of this user has taken the place of this one) or
 * policy-violation the delay is the ceiling, whatever else is set, since to come back at once would bring the same
 * again. A server that says so in the midst of the opening is asked once more within the same connect, step by step.
 * first_milliseconds:   1 and more
 * growth_percent:       100 and more
 * ceiling_milliseconds: first_milliseconds and more
 * Thread:  any, callbacks too, also while the reconnection runs: it holds from its next wait on. It does not block.
 * Returns: QUILLON_STATUS_OK
 *          QUILLON_STATUS_INVALID_ARGS  reconnection is NULL, or a number is outside its range */
QUILLON_API QUILLON_STATUS quillon_reconnection_set_delays(quillon_reconnection *reconnection, uint32_t first_milliseconds,
                                                           uint32_t growth_percent, uint32_t ceiling_milliseconds);

/* True: each wait is as long as chance has it between nothing and the delay, so that many clients that have lost one
 * server do not come back together. Only the delay after conflict and policy-violation is waited for whole. At first
 * false.
 * Thread:  as quillon_reconnection_set_delays.
 * Returns: QUILLON_STATUS_OK, or QUILLON_STATUS_INVALID_ARGS when reconnection is NULL */
QUILLON_API QUILLON_STATUS quillon_reconnection_set_jitter(quillon_reconnection *reconnection, bool is_full);

/* True: when a host is lost or could not be reached, the next one of the configuration is tried at once; only when all have had
 * their turn is there a delay. At first false: there is a delay before each attempt. With addresses that are raced an attempt is
 * the turn of all hosts.
 * Thread:  as quillon_reconnection_set_delays.
 * Returns: QUILLON_STATUS_OK, or QUILLON_STATUS_INVALID_ARGS when reconnection is NULL */
QUILLON_API QUILLON_STATUS quillon_reconnection_set_next_host_at_once(quillon_reconnection *reconnection, bool is_at_once);

/* ---- What a reconnection tells ------------------------------------------------------------------------------ */

/* What has become of the connection that is kept up. */
typedef enum QUILLON_RECONNECTION_STATE {
  QUILLON_RECONNECTION_STATE_UP = 0,   /* it is part of the grid */
  QUILLON_RECONNECTION_STATE_DOWN = 1, /* it is not, and the next attempt has to wait */
  QUILLON_RECONNECTION_STATE_MAX = 2   /* the end of the range, no state */
} QUILLON_RECONNECTION_STATE;

/* A change of that state. Later versions may append fields. */
typedef struct _quillon_reconnection_report {
  QUILLON_RECONNECTION_STATE state; /* the new one */
  QUILLON_STATUS status;            /* UP: QUILLON_STATUS_OK; DOWN: of the last connect, CONNECTION_ERROR for a lost session */
  uint32_t attempts;                /* to connect, since the session was lost or the reconnection was started */
  uint64_t milliseconds;            /* since then */
  uint64_t next_milliseconds;       /* DOWN: until the next attempt; UP: 0 */
} quillon_reconnection_report;

/* Receives a report, which lives until it returns. On the reconnection's thread, one at a time: while it blocks nothing is tried.
 * It may call every function, quillon_reconnection_destroy and quillon_connection_destroy included. */
typedef void (*quillon_reconnection_report_cb)(const quillon_reconnection_report *report, void *user_data);

/* Sets who receives reports; NULL: nobody, as at first. However many attempts fail, an outage is reported once, before
 * its first wait, and its end once; one that another host ends before there was a wait is only reported UP. After the
 * return of quillon_reconnection_destroy no report comes, unless it could not wait for the thread; a
 * quillon_reconnection_stop does not wait. Without another option set, a lost session is noticed, and reported, when
 * the 60 seconds are over.
 * Thread:  as quillon_reconnection_set_delays; a call of the callback before may still be under way.
 * Returns: QUILLON_STATUS_OK, or QUILLON_STATUS_INVALID_ARGS when reconnection is NULL */
QUILLON_API QUILLON_STATUS quillon_reconnection_set_report_cb(quillon_reconnection *reconnection,
                                                              quillon_reconnection_report_cb callback, void *user_data);

/* ---- Which address is dialled ------------------------------------------------------------------------------- */

/* True: every connect, a reconnection's or not, dials the addresses of all hosts of the configuration, beginning with
 * the host whose turn it is: the next one 250 milliseconds after the one before, or when that has failed, those of IPv6
 * and IPv4 by turns; the first that answers is connected to. So one that is silent costs a fraction of a second. False,
 * as at first: only the addresses of the host whose turn it is, one after the other. It holds from the next connect on.
 * All hosts must have a valid form then, or connecting is refused with QUILLON_STATUS_WB_ERROR.
 * Returns: QUILLON_STATUS_OK, or QUILLON_STATUS_INVALID_ARGS when config is NULL */
QUILLON_API QUILLON_STATUS quillon_config_set_address_racing(quillon_config *config, bool is_raced);

#ifdef __cplusplus
}
#endif

#endif

// Sending for the rest of the library.
#pragma once

#include "quillon.h"
#include "stanza_builder.h"

namespace qlk {

// What became of a request that was waited for. Lost: it was sent, and whether it was answered is not known.
enum class SendFate { not_sent, answered, timed_out, lost };

// quillon_wb_client_send_and_wait with a record of its own; says also whether the IQ was sent. The reply is set when the result
// is OK.
QUILLON_STATUS send_and_wait(quillon_connection &connection, NodePtr iq, NodePtr &reply, SendFate &fate);

// The outcome of a send: OK with the reply, else NULL. One reference of the reply's context is the callee's.
using SendDone = void (*)(void *arg, QUILLON_STATUS status, wb_dom_node *reply);

// Sends an IQ of type get or set, of which it consumes one reference, and calls done exactly once: on the loop with the reply or
// the time-out, or at once, on this thread, when nothing was sent: QUILLON_STATUS_NO_CONNECTION without a session,
// QUILLON_STATUS_UNKNOWN when the XMPP client refuses, which is logged. Thread: any; never blocks.
void send_async(quillon_connection &connection, wb_dom_node *iq, unsigned timeout_seconds, SendDone done, void *arg);

// Sends a stanza through the connection's client, consuming one reference. False when that is refused or the connection is being
// destroyed. Thread: any; never blocks.
bool send_stanza(const quillon_connection &connection, wb_dom_node *stanza, wb_err *err);

}  // namespace qlk

// What the XMPP client tells its connection, and what it asks of it: events and TLS hooks, all on the event loop.
#pragma once

#include "quillon.h"

namespace qlk {

bool bind_events(quillon_connection &connection);
void unbind_events(quillon_connection &connection);

// Fills the TLS context from the connection's configuration.
void _default_ssl_ctx_cb(quillon_connection *connection, void *ssl_ctx, void *user_data);

// The status that tells the application why a session ended: error is the stream error element, or NULL.
QUILLON_STATUS disconnect_status(const wb_dom_node *error, bool was_grid_connected);

}  // namespace qlk

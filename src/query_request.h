// What every query is made of, whether its caller waits for the answer or is called back: the request in its envelope, the
// payload of the reply, and the memory of which publisher answered last.
#pragma once

#include <cstddef>

#include "owners.h"
#include "quillon_capability.h"
#include "quillon_query.h"
#include "stanza_builder.h"

namespace qlk {

// The request in its envelope, built in the payload's own context; null, logged, when that fails.
wb_dom_node *build_request(const quillon_connection &connection, const quillon_string &jid, wb_dom_node *payload);

// The same payload in a context of its own; null, logged, when that fails. An attempt that was given up may still be waiting to
// be written by the event loop, so that its envelope must not lose the payload to the next one.
NodePtr copy_payload(const wb_dom_node *payload);

// Takes the payload out of the reply. On failure the reply is released.
// Returns: QUILLON_STATUS_OK, QUILLON_STATUS_XMPP_ERROR (no result) or QUILLON_STATUS_QUILLON_ERROR (a result, but no response)
QUILLON_STATUS read_reply(NodePtr reply, NodePtr &response);

// Which publisher answered last, by the capability's key. The table owns its keys, so that no capability is looked at later.
class StickyIndex {
 public:
  StickyIndex(_quillon_query &query, const quillon_capability &capability)
      : query_(query), key_(capability_sticky_key(capability)) {}

  // The index stored; when there is none, 0 is stored.
  size_t read();
  void store(size_t index);

 private:
  wb_htable *table() { return query_.map_of_capability_to_sticky_index.get(); }
  void store_locked(size_t index);

  _quillon_query &query_;
  const StickyKey key_;
};

}  // namespace qlk

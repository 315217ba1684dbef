#pragma once

#include <memory>
#include <mutex>

#include "call_gate.h"
#include "dispatch_thread.h"
#include "owners.h"
#include "quillon.h"
#include "statistics.h"

struct _quillon_query {
  quillon_connection *connection = nullptr;         // borrowed
  qlk::TablePtr map_of_capability_to_sticky_index;  // the index plus one as the value itself
  qlk::TablePtr map_of_name_to_callback;
  std::mutex map_mutex;                                                   // guards both tables
  qlk::DispatchThread request_handler{"queries wait for their handler"};  // thread, queue and run flag
  qlk::CallGate calls;                                                    // synchronous queries
  qlk::QueryStatistics statistics;                                        // of all queries of the connection
  std::shared_ptr<_quillon_query> self;  // the creator's reference; the handler thread has one too
};

namespace qlk {

// Ends the request-handler thread, which sends replies through the connection's client: to be called before that client is
// destroyed. Thread: any; on the handler thread itself the loop ends when the handler returns, and its reply is dropped.
void query_stop(quillon_query *query);

// Answers one request: the handler of the request-handler thread, whose owner is the quillon_query.
void handle_request(void *owner, wb_dom_node *iq);

}  // namespace qlk

// What an application does, one function for each. The member is the one that the flow's calls are about, and outlives the flow.
#pragma once

#include "member.h"
#include "sweep.h"

namespace exhaustion {

constexpr QUILLON_STATUS kOk = QUILLON_STATUS_OK;

// The life of a connection: connection_flows.cpp.
Flow create_flow(Member &);
Flow connect_flow(Member &member);
Flow connect_by_name_flow(Member &member);
Flow race_flow(Member &member);
Flow disconnect_flow(Member &member);
Flow drain_flow(Member &member);
Flow destroy_flow(Member &member);
Flow reconnection_flow(Member &member);
Flow reports_flow(Member &member);

// What a member of the grid does: member_flows.cpp.
Flow subscribe_flow(Member &member);
Flow publish_flow(Member &member);
Flow query_flow(Member &member);
Flow traced_query_flow(Member &member);
Flow async_query_flow(Member &member);
Flow first_async_query_flow(Member &member);
Flow answer_flow(Member &member);
Flow notify_flow(Member &member);
Flow token_flow(Member &member);

// What needs no connection: local_flows.cpp.
Flow configure_flow(Member &);
Flow reload_flow(Member &member);
Flow bulk_flow(Member &member);
Flow parse_flow(Member &);
Flow serialise_flow(Member &);
Flow stream_flow(Member &);

// What every exchange with the grid may come to: it could not be written, could not be sent, or was not answered. And what else
// this one may.
std::vector<QUILLON_STATUS> exchange_statuses(std::vector<QUILLON_STATUS> more = {});

}  // namespace exhaustion

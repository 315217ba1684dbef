// The names of the connection's part of the grid protocol, for applications that build or read the same stanzas.
#include "quillon.h"
#include "quillon_grid.h"

#define IN_GRID(local) "{" GRID_NS "}" local
#define STREAM_ERROR(local) "{urn:ietf:params:xml:ns:xmpp-streams}" local

const char *const conn_namespace_id = GRID_NS;
const char *const conn_upd_notif_name = "connectionUpdateNotification";
const char *const state_disabled = "disabled";
const char *const state_deleted = "deleted";
const char *const state_auth = "authorizationChanged";
const char *const state_enabled = "enabled";
const char *const ele_connect_name = IN_GRID("connectRequest");
const char *const ele_disconnect_name = IN_GRID("disconnectRequest");
const char *const ele_cred_name = IN_GRID("giCredentials");
const char *const ele_username_name = IN_GRID("userName");
const char *const ele_username_value = IN_GRID("value");
const char *const ele_group_name = IN_GRID("group");
const char *const ele_groups_name = IN_GRID("groups");
const char *const ele_ginode_info_tag = IN_GRID("giNodeInfo");
const char *const ele_desc_name = IN_GRID("description");
const char *const ele_approval_status = IN_GRID("approvalStatus");
const char *const ele_get_capabilities_name = IN_GRID("getRegisteredCapabilitiesRequest");
const char *const ele_get_capability_status = IN_GRID("getCapabilityStatusRequest");
const char *const ele_cap_name = IN_GRID("name");
const char *const ele_cap_version = IN_GRID("version");
const char *const ele_session_name = "Session";
const char *const ele_pres_name = "{jabber:client}presence";
const char *const ele_id_fieldname = "{}id";
const char *const ele_id_fieldname_val = "1";
const char *const ele_to_fieldname = "{}to";
const char *const jabber_ele_not_authorized_err = STREAM_ERROR("not-authorized");
const char *const jabber_ele_remote_connection_err = STREAM_ERROR("remote-connection-failed");
const char *const core_capability_ns = GRID_NS;
const char *const core_capability_name = "CoreCapability";
const char *const core_notif_name = "RegisteredCapabilityUpdateNotification";

#include "requests.h"

#include "jid.h"

namespace controller {

namespace {

constexpr char kRequestSuffix[] = "Request";
constexpr char kConnectRequest[] = "connectRequest";

// The capabilities whose topics the name leads to: a dynamic capability's topic is its name, which may be that of a plain one's
// topic.
std::vector<std::string> owners_of(const std::string &name) {
  std::vector<std::string> owners = {name};
  const std::string_view suffix = kVersionSuffix;
  if (name.size() > suffix.size() && std::string_view(name).substr(name.size() - suffix.size()) == suffix) {
    owners.push_back(name.substr(0, name.size() - suffix.size()));
  }
  return owners;
}

Refusal not_authorized(const std::string &why) { return {"not-authorized", "not authorized: " + why}; }

std::string groups_of(const wb_dom_node *credentials) {
  std::string text;
  const wb_dom_node *groups = find_child(credentials, kGridNs, "groups");
  for (const wb_dom_node *node = groups != nullptr ? wb_dom_get_first_child(groups) : nullptr; node != nullptr;
       node = wb_dom_get_sibling(node)) {
    text += (text.empty() ? "" : ",") + text_of(node);
  }
  return text;
}

}  // namespace

Requests::Requests(const Options &options, Session &session, Accounts &accounts, Registry &registry, Directory &directory)
    : options_(options),
      session_(session),
      accounts_(accounts),
      registry_(registry),
      directory_(directory),
      handlers_({{ename(kGridNs, kConnectRequest), &Requests::connect},
                 {ename(kGridNs, "subscribeRequest"), &Requests::subscribe},
                 {ename(kGridNs, "initPublishRequest"), &Requests::publish},
                 {ename(kGridNs, "getAllPublishersRequest"), &Requests::list_publishers},
                 {ename(kGridNs, "getRegisteredCapabilitiesRequest"), &Requests::list_capabilities},
                 {ename(kGridNs, "getCapabilityStatusRequest"), &Requests::tell_status},
                 {ename(kGridNs, "proposeCapabilityRequest"), &Requests::propose},
                 {ename(kGridNs, "updateCapabilityRequest"), &Requests::update},
                 {ename(kAdminNs, "getAuthorizedByUserRequest"), &Requests::tell_authorization},
                 {ename(kAdminNs, "getTokenRequest"), &Requests::issue_token}}) {}

void Requests::receive_presence(const wb_dom_node *presence) {
  const std::string jid = attribute_of(presence, "from"), type = attribute_of(presence, "type");
  if (!user_of(jid, options_.domain)) return;
  if (type.empty()) directory_.arrive(jid);
  if (type == "unavailable") directory_.leave(jid);
}

void Requests::receive_iq(const wb_dom_node *iq) {
  Request request;
  request.jid = attribute_of(iq, "from");
  request.id = attribute_of(iq, "id");
  const auto user = user_of(request.jid, options_.domain);
  if (!user) {
    wb_log(WB_LOG_WARN, "ignored: a request from %s, which is no client of this domain", request.jid.c_str());
    return;
  }
  request.user = user_name_of(*user);
  const wb_dom_node *grid = find_child(iq, kEnvelopeNs, "grid");
  request.payload = grid != nullptr ? wb_dom_get_first_child(grid) : nullptr;
  if (attribute_of(iq, "type") != "get" || attribute_of(grid, "type") != "request" || request.payload == nullptr) {
    answer_with_error(iq, "modify", "bad-request");
    return;
  }
  const auto found = handlers_.find(wb_dom_get_ename(request.payload));
  if (found == handlers_.end()) {
    answer_with_error(iq, "cancel", "feature-not-implemented");
    return;
  }
  const std::string name = wb_dom_get_localname(request.payload);
  request.response_ns = wb_dom_get_namespace_uri(request.payload);
  request.response_name = name.substr(0, name.size() - (sizeof kRequestSuffix - 1)) + "Response";
  wb_log(WB_LOG_VERBOSE, "%s from %s", name.c_str(), request.jid.c_str());
  try {
    directory_.note_present(request.jid);
    if (name != kConnectRequest && !accounts_.is_approved(request.user)) {
      refuse(request, not_authorized("the account is " + accounts_.state(request.user).value_or("unknown")));
      return;
    }
    (this->*found->second)(request);
  } catch (const std::exception &error) {
    wb_log(WB_LOG_ERROR, "%s: %s", name.c_str(), error.what());
    refuse(request, {"internal", "the controller failed"});
  }
}

void Requests::answer(const Request &request, const std::function<void(Element)> &fill) {
  Stanza iq = make_iq("result", request.jid);
  iq.root().set("id", request.id);
  Element grid = iq.root().add_in(kEnvelopeNs, "grid").set("type", "response");
  fill(grid.add_in(request.response_ns, request.response_name));
  session_.send(std::move(iq));
}

void Requests::refuse(const Request &request, const Refusal &refusal) {
  wb_log(WB_LOG_INFO, "%s for %s: refused, %s", request.response_name.c_str(), request.jid.c_str(), refusal.description.c_str());
  answer(request, [&](Element response) {
    Element error = response.add_in(kGridNs, "error");
    error.add("description", refusal.description);  // the first child: clients that know no codes read that one
    error.add("code", refusal.code);
  });
}

void Requests::answer_with_error(const wb_dom_node *iq, const char *type, const char *condition) {
  Stanza reply = make_iq("error", attribute_of(iq, "from"));
  reply.root().set("id", attribute_of(iq, "id"));
  reply.root().add("error").set("type", type).add_in(kStanzaErrorsNs, condition);
  session_.send(std::move(reply));
}

bool Requests::is_refused(const Request &request, const std::string &capability, const char *operation) {
  for (const std::string &owner : owners_of(capability)) {
    const bool is_core = owner == kCoreCapability && std::string_view(operation) != "subscribe";
    if (!is_core && !accounts_.is_forbidden(request.user, owner, operation)) continue;
    refuse(request, not_authorized(request.user + " may not " + operation + " " + owner));
    return true;
  }
  return false;
}

void Requests::connect(const Request &request) {
  const wb_dom_node *credentials = find_child(request.payload, kGridNs, "giCredentials");
  const wb_dom_node *node = find_child(request.payload, kGridNs, "giNodeInfo");
  const std::string status = accounts_.admit(request.user, groups_of(credentials), child_text(node, kGridNs, "description"));
  wb_log(WB_LOG_INFO, "%s: %s", request.jid.c_str(), status.c_str());
  answer(request, [&](Element response) { response.add("approvalStatus", status); });
}

bool Requests::read_announcement(const Request &request, const char *operation, Announcement &announcement) {
  const wb_dom_node *reference = find_child(request.payload, kGridNs, "capabilityRef");
  announcement.jid = request.jid;
  announcement.user = request.user;
  announcement.is_dynamic = reference != nullptr;
  announcement.capability = announcement.is_dynamic ? child_text(reference, kGridNs, "name")
                                                    : attribute_of(find_child(request.payload, kGridNs, "capability"),
                                                                   ename(kSchemaInstanceNs, "type").c_str());
  if (!Registry::is_good_name(announcement.capability)) {
    refuse(request, {"malformed", "the capability's name is missing, too long, or holds control characters"});
    return false;
  }
  return !is_refused(request, announcement.capability, operation);
}

void Requests::subscribe(const Request &request) {
  Announcement announcement;
  if (!read_announcement(request, "subscribe", announcement)) return;
  directory_.subscribe(announcement, [this, request, announcement](bool done) {
    if (!done) {
      refuse(request, {"unavailable", "the topic could not be set up"});
      return;
    }
    answer(request, [&](Element response) {
      Element details = response.add("xmppDetails");
      for (const std::string &jid : directory_.publishers(announcement.capability)) details.add("jid", jid);
    });
    directory_.tell_of_the_gone(announcement);
  });
}

void Requests::publish(const Request &request) {
  Announcement announcement;
  if (!read_announcement(request, "publish", announcement)) return;
  directory_.publish(announcement, [this, request, announcement](bool done) {
    if (!done) {
      refuse(request, {"unavailable", "the topic could not be set up"});
      return;
    }
    registry_.note_published(announcement.capability);
    answer(request, [](Element) {});
  });
}

void Requests::list_publishers(const Request &request) {
  answer(request, [this](Element response) {
    for (const auto &[capability, jids] : directory_.all_publishers()) {
      Element info = response.add("publisherInfo");
      info.add("capabilityRef").add("name", capability);
      for (const std::string &jid : jids) info.add("publisherJID", jid);
    }
  });
}

void Requests::list_capabilities(const Request &request) {
  answer(request, [this](Element response) { registry_.describe_all(response); });
}

// status is "active" while somebody publishes the capability.
void Requests::tell_status(const Request &request) {
  const std::string name = child_text(request.payload, kGridNs, "name"),
                    version = child_text(request.payload, kGridNs, "version");
  const auto registered = registry_.version(name);
  if (!registered) {
    refuse(request, {"unknown", "the capability " + name + " is not registered"});
    return;
  }
  if (!version.empty() && version != *registered) {
    refuse(request, {"unknown", "the capability " + name + " has version " + *registered + ", not " + version});
    return;
  }
  answer(request, [&](Element response) {
    const size_t publishers = directory_.publishers(name).size();
    registry_.describe(name, response);
    response.add("status", publishers > 0 ? "active" : "inactive");
    response.add("publishers", std::to_string(publishers));
    response.add("subscribers", std::to_string(directory_.subscribers(name).size()));
  });
}

void Requests::propose(const Request &request) {
  if (is_refused(request, child_text(request.payload, kGridNs, "name"), "propose")) return;
  if (const auto refusal = registry_.propose(request.payload)) {
    refuse(request, *refusal);
    return;
  }
  answer(request, [](Element) {});
}

void Requests::update(const Request &request) {
  if (is_refused(request, child_text(request.payload, kGridNs, "name"), "update")) return;
  if (const auto refusal = registry_.update(request.payload)) {
    refuse(request, *refusal);
    return;
  }
  answer(request, [](Element) {});
}

void Requests::tell_authorization(const Request &request) {
  const std::string user = user_name_of(child_text(request.payload, kAdminNs, "user"));
  const bool authorized = accounts_.is_authorized(user, child_text(request.payload, kAdminNs, "capabilityName"),
                                                  child_text(request.payload, kAdminNs, "operationName"));
  answer(request, [&](Element response) { response.add("authorized", authorized ? "true" : "false"); });
}

void Requests::issue_token(const Request &request) {
  const std::string token = accounts_.make_token(request.user);
  answer(request, [&](Element response) { response.add("token", token); });
}

}  // namespace controller

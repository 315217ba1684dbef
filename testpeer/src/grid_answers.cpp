#include "grid_answers.h"

namespace testpeer {

namespace {

constexpr char kEnvelope[] = "quillon";

std::string element(const std::string &local, const std::string &ns, const std::string &content) {
  return "<" + local + " xmlns='" + escape(ns) + "'>" + content + "</" + local + ">";
}

std::string envelope(const char *type, std::string_view payload) {
  return std::string("<grid xmlns='") + kEnvelope + "' type='" + type + "'>" + std::string(payload) + "</grid>";
}

std::string controller_answer(const Options &options, const Element &request) {
  const auto scripted = options.controller_answers.find(request.local);
  if (scripted != options.controller_answers.end()) return scripted->second;
  if (request.local == "connectRequest")
    return element("connectResponse", request.ns, element("approvalStatus", request.ns, escape(options.approval_status)));
  if (request.local == "subscribeRequest") {
    std::string jids;
    for (const std::string &publisher : options.publishers) jids += element("jid", request.ns, escape(publisher));
    return element("subscribeResponse", request.ns, element("xmppDetails", request.ns, jids));
  }
  if (request.local == "initPublishRequest") return element("initPublishResponse", request.ns, "");
  return request.xml();
}

}  // namespace

const Element *grid_request(const Stanza &stanza) {
  const Element *grid = stanza.local == "iq" && stanza.attribute("type") == "get" ? stanza.child("grid", kEnvelope) : nullptr;
  if (grid == nullptr || grid->attribute("type") != "request" || grid->children.empty()) return nullptr;
  return &grid->children.front();
}

std::string controller_of(const Options &options) {
  return options.controller.empty() ? "controller@" + options.domain + "/qlk" : options.controller;
}

std::optional<Reply> grid_reply(const Options &options, const Stanza &stanza) {
  const Element *request = grid_request(stanza);
  if (request == nullptr) return std::nullopt;
  const auto scripted = options.request_replies.find(request->local);
  std::string answer;
  if (options.act_as_controller && stanza.attribute("to") == controller_of(options)) {
    answer = controller_answer(options, *request);
  } else if (options.echo_queries) {
    answer = request->xml();
  } else if (scripted == options.request_replies.end()) {
    return std::nullopt;
  }
  Reply reply = scripted != options.request_replies.end() ? scripted->second : options.grid_reply;
  if (reply.payload.empty() && reply.error.empty()) reply.payload = envelope("response", answer);
  return reply;
}

std::string grid_notification(const Options &options, const std::string &to, std::string_view payload) {
  return "<message from='" + escape(controller_of(options)) + "' to='" + escape(to) + "'>" + envelope("notification", payload) +
         "</message>";
}

}  // namespace testpeer

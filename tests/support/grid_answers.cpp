#include "grid_answers.h"

namespace testpeer {

namespace {

constexpr char kEnvelope[] = "quillon";

std::string element(const std::string &local, const std::string &ns, const std::string &content) {
  return "<" + local + " xmlns='" + escape(ns) + "'>" + content + "</" + local + ">";
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

bool answer_grid_request(Connection &connection, const Stanza &stanza) {
  const Options &options = connection.options();
  const Element *grid = stanza.local == "iq" && stanza.attribute("type") == "get" ? stanza.child("grid", kEnvelope) : nullptr;
  if (grid == nullptr || grid->attribute("type") != "request" || grid->children.empty()) return false;
  const Element &request = grid->children.front();
  const std::string controller = options.controller.empty() ? "controller@" + options.domain + "/qlk" : options.controller;
  Reply reply = options.grid_reply;
  std::string answer;
  if (options.act_as_controller && stanza.attribute("to") == controller) {
    answer = controller_answer(options, request);
  } else if (options.echo_queries) {
    answer = request.xml();
  } else {
    return false;
  }
  if (reply.payload.empty() && reply.error.empty())
    reply.payload = std::string("<grid xmlns='") + kEnvelope + "' type='response'>" + answer + "</grid>";
  connection.reply(stanza, reply);
  return true;
}

}  // namespace testpeer

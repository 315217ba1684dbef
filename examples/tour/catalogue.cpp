#include "catalogue.h"

namespace tour {

namespace {

constexpr char kTides[] = "Tides";

std::string child_text(const wb_dom_node *parent, const std::string &name) {
  const wb_dom_node *child =
      wb_dom_get_first_element(parent, (std::string("{") + wb_dom_get_namespace_uri(parent) + "}" + name).c_str());
  return child != nullptr ? Member::text_of(child) : "";
}

void propose(const Member &member) {
  const char *reading[] = {"highWater", "lowWater"}, *writing[] = {"correct"};
  Member::expect_ok(quillon_capability_propose(member.capability(), member.connection(), kTides, "1.0", reading, 2, writing, 1,
                                               "high and low water", "harbour"),
                    "propose a capability");
  Member::say(member.user(), std::string("proposed the capability ") + kTides + "; accepted by the controller");
}

void list(const Member &member) {
  wb_dom_node *answer = nullptr;
  Member::expect_ok(quillon_connection_query_capabilities(member.connection(), &answer), "list the capabilities");
  std::string names;
  for (const wb_dom_node *entry = wb_dom_get_first_child(answer); entry != nullptr; entry = wb_dom_get_sibling(entry))
    names += " " + child_text(entry, "name") + " " + child_text(entry, "version") + ";";
  Member::say(member.user(), "the registered capabilities are" + names.substr(0, names.size() - 1));
  wb_dom_context_destroy(wb_dom_get_context(answer));
}

void look_at(const Member &member) {
  wb_dom_node *answer = nullptr;
  Member::expect_ok(quillon_connection_query_capability_status(member.connection(), kTides, nullptr, &answer),
                    "ask for its status");
  Member::say(member.user(), std::string("the status of ") + kTides + " " + child_text(answer, "version") + " is " +
                                 child_text(answer, "status") + ": " + child_text(answer, "description") + ", " +
                                 child_text(answer, "publishers") + " publishers");
  wb_dom_context_destroy(wb_dom_get_context(answer));
}

void modify(const Member &member) {
  const char *reading[] = {"highWater", "lowWater", "current"};
  Member::expect_ok(quillon_capability_modify(member.capability(), member.connection(), kTides, "1.1", reading, 3, nullptr, 0,
                                              "high water, low water and the current between", "harbour"),
                    "modify the capability");
  Member::say(member.user(), std::string("modified ") + kTides + "; accepted by the controller");
}

}  // namespace

void show_catalogue(const Member &member) {
  propose(member);
  list(member);
  look_at(member);
  modify(member);
  look_at(member);
}

}  // namespace tour

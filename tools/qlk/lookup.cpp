#include "lookup.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "terminal.h"
#include "text.h"
#include "xml.h"

namespace tool {

namespace {

using Json = nlohmann::ordered_json;

Definition read_definition(const wb_dom_node *element) {
  Definition definition = {child_text(element, "name"),
                           child_text(element, "version"),
                           child_text(element, "description"),
                           child_text(element, "vendorPlatform"),
                           child_text(element, "status"),
                           child_text(element, "publishers"),
                           child_text(element, "subscribers"),
                           {},
                           {}};
  const wb_dom_node *methods = child_of(element, "queryMethods");
  for (const wb_dom_node *method = methods != nullptr ? wb_dom_get_first_child(methods) : nullptr; method != nullptr;
       method = wb_dom_get_sibling(method)) {
    const bool reads = child_text(method, "methodPermissions") == "readOnly";
    (reads ? definition.queries : definition.actions).push_back(child_text(method, "methodName"));
  }
  return definition;
}

std::vector<Definition> look_up_all(Session &session) {
  session.begin_request();
  wb_dom_node *received = nullptr;
  session.expect(quillon_connection_query_capabilities(session.connection(), &received), "list the capabilities");
  const Element response(received);
  if (!session.refusal().empty()) session.expect(QUILLON_STATUS_NOT_AUTHORIZED, "list the capabilities");
  std::vector<Definition> list;
  for (const wb_dom_node *child = wb_dom_get_first_child(response.get()); child != nullptr; child = wb_dom_get_sibling(child)) {
    if (std::string_view(wb_dom_get_localname(child)) == "capability") list.push_back(read_definition(child));
  }
  return list;
}

Json json_of(const Definition &definition) {
  Json object = {{"name", definition.name}, {"version", definition.version}};
  if (!definition.status.empty()) object["status"] = definition.status;
  if (!definition.publishers.empty()) object["publishers"] = std::atoi(definition.publishers.c_str());
  if (!definition.subscribers.empty()) object["subscribers"] = std::atoi(definition.subscribers.c_str());
  object["queries"] = definition.queries;
  object["actions"] = definition.actions;
  object["description"] = definition.description;
  object["platform"] = definition.platform;
  return object;
}

void print_json(const Json &value) { print_line(value.dump(2, ' ', false, Json::error_handler_t::replace)); }

using Row = std::vector<std::string>;

// On a terminal a row that is too long ends in dots; elsewhere every row is whole.
void print_row(const Row &row, const std::vector<size_t> &widths, Style style) {
  std::string line;
  for (size_t i = 0; i < row.size(); ++i) {
    line += row[i];
    if (i + 1 < row.size()) line.append(widths[i] - row[i].size() + 2, ' ');
  }
  line.erase(line.find_last_not_of(' ') + 1);
  const size_t width = terminal_width(stdout);
  if (is_terminal(stdout) && line.size() > width) line = line.substr(0, width - 3) + "...";
  print_line(paint(stdout, style, line));
}

void print_table(const std::vector<Definition> &list) {
  std::vector<Row> rows = {{"NAME", "VERSION", "METHODS", "DESCRIPTION"}};
  for (const Definition &one : list) {
    std::vector<std::string> methods = one.queries;
    methods.insert(methods.end(), one.actions.begin(), one.actions.end());
    rows.push_back({printable(one.name), printable(one.version), printable(joined(methods)), printable(one.description)});
    for (std::string &cell : rows.back()) std::replace(cell.begin(), cell.end(), '\n', ' ');
  }
  std::vector<size_t> widths(rows[0].size());
  for (const Row &row : rows) {
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  for (size_t i = 0; i < rows.size(); ++i) print_row(rows[i], widths, i == 0 ? Style::strong : Style::plain);
}

void print_definition(const Definition &definition) {
  const auto field = [](const char *title, const std::string &text, Style style = Style::plain) {
    if (text.empty()) return;
    std::string padded = title;
    padded.resize(13, ' ');
    print_line(paint(stdout, Style::strong, padded) + paint(stdout, style, printable(text)));
  };
  field("name", definition.name);
  field("version", definition.version);
  field("status", definition.status, definition.status == "active" ? Style::good : Style::warning);
  field("publishers", definition.publishers);
  field("subscribers", definition.subscribers);
  field("queries", joined(definition.queries));
  field("actions", joined(definition.actions));
  field("description", definition.description);
  field("platform", definition.platform);
}

ExitCode run_capabilities(const Context &context, Stop &stop, bool as_json) {
  const Settings settings = complete_settings(context.connection, stop);
  Session session(settings, stop);
  session.join();
  const std::vector<Definition> list = look_up_all(session);
  if (as_json) {
    Json array = Json::array();
    for (const Definition &definition : list) array.push_back(json_of(definition));
    print_json(array);
  } else {
    print_table(list);
  }
  return ExitCode::done;
}

ExitCode run_status(const Context &context, Stop &stop, const std::string &name, const std::string &version, bool as_json) {
  const Settings settings = complete_settings(context.connection, stop);
  Session session(settings, stop);
  session.join();
  const Definition definition = look_up(session, name, version);
  as_json ? print_json(json_of(definition)) : print_definition(definition);
  return ExitCode::done;
}

}  // namespace

Definition look_up(Session &session, const std::string &name, const std::string &version) {
  session.begin_request();
  wb_dom_node *received = nullptr;
  const char *asked = version.empty() ? nullptr : version.c_str();
  const std::string what = "look up " + name;
  session.expect(quillon_connection_query_capability_status(session.connection(), name.c_str(), asked, &received), what);
  const Element response(received);
  if (!session.refusal().empty()) session.expect(QUILLON_STATUS_NOT_AUTHORIZED, what);
  return read_definition(response.get());
}

void add_capabilities_command(CommandLine &line, Context &context) {
  const auto as_json = std::make_shared<bool>(false);
  Command command = add_command(line, context, "capabilities", "Lists the capabilities that the grid knows",
                                "  qlk capabilities\n"
                                "  qlk capabilities --json | jq -r '.[].name'",
                                [&context, as_json](Stop &stop) { return run_capabilities(context, stop, *as_json); });
  command.flag("--json", *as_json, "Print a JSON array");
}

void add_status_command(CommandLine &line, Context &context) {
  struct Options {
    std::string name, version;
    bool as_json = false;
  };
  const auto options = std::make_shared<Options>();
  Command command = add_command(
      line, context, "status", "Tells about one capability: version, methods, publishers, subscribers",
      "  qlk status Weather\n"
      "  qlk status Weather --json",
      [&context, options](Stop &stop) { return run_status(context, stop, options->name, options->version, options->as_json); });
  command.argument("NAME", options->name, "The capability's name", Command::Need::required);
  command.option("--of-version", "VERSION", options->version, "The version to ask for (default: any)");
  command.flag("--json", options->as_json, "Print a JSON object");
}

}  // namespace tool

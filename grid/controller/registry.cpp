#include "registry.h"

#include <algorithm>
#include <set>

namespace controller {

namespace {

constexpr size_t kNameBytesMax = 256;
constexpr size_t kTextBytesMax = 65536;

Refusal malformed(const std::string &why) { return {"malformed", why}; }

}  // namespace

bool Registry::is_good_name(const std::string &name) {
  const auto is_control = [](char character) { return static_cast<unsigned char>(character) < ' ' || character == 127; };
  return !name.empty() && name.size() <= kNameBytesMax && std::none_of(name.begin(), name.end(), is_control);
}

std::optional<std::string> Registry::version(const std::string &name) const {
  return store_.value("SELECT version FROM capabilities WHERE name = ?", {name});
}

void Registry::note_published(const std::string &name) {
  store_.run("INSERT OR IGNORE INTO capabilities VALUES (?, '1.0', '', '', 0)", {name});
  if (store_.changes() > 0) announce_("add", name, "1.0");
}

std::optional<Refusal> Registry::read(const wb_dom_node *request, Definition &definition) {
  definition.name = child_text(request, kGridNs, "name");
  definition.version = child_text(request, kGridNs, "version");
  definition.description = child_text(request, kGridNs, "description");
  definition.vendor_platform = child_text(request, kGridNs, "vendorPlatform");
  if (!is_good_name(definition.name)) return malformed("the name is missing, too long, or holds control characters");
  if (!is_good_name(definition.version)) return malformed("the version is missing, too long, or holds control characters");
  if (definition.description.size() > kTextBytesMax) return malformed("the description is too long");
  if (definition.vendor_platform.size() > kTextBytesMax) return malformed("the vendor platform is too long");
  const wb_dom_node *methods = find_child(request, kGridNs, "queryMethods");
  if (methods == nullptr) return malformed("queryMethods is missing");
  std::set<std::string> names;
  for (const wb_dom_node *node = wb_dom_get_first_child(methods); node != nullptr; node = wb_dom_get_sibling(node)) {
    if (!is_named(node, kGridNs, "operation")) return malformed("queryMethods holds something else than operations");
    const Method method{child_text(node, kGridNs, "methodName"), child_text(node, kGridNs, "methodPermissions")};
    if (!is_good_name(method.name)) return malformed("an operation without a proper methodName");
    if (method.permissions != "readOnly" && method.permissions != "writeOnly") {
      return malformed("the methodPermissions of " + method.name + " are neither readOnly nor writeOnly");
    }
    if (!names.insert(method.name).second) return malformed("the operation " + method.name + " is there twice");
    definition.methods.push_back(method);
  }
  return std::nullopt;
}

void Registry::write(const Definition &definition) {
  Store::Transaction transaction(store_);
  store_.run("INSERT OR REPLACE INTO capabilities VALUES (?, ?, ?, ?, 1)",
             {definition.name, definition.version, definition.description, definition.vendor_platform});
  store_.run("DELETE FROM methods WHERE capability = ?", {definition.name});
  for (size_t i = 0; i < definition.methods.size(); ++i) {
    const Method &method = definition.methods[i];
    store_.run("INSERT INTO methods VALUES (?, ?, ?, ?)", {definition.name, std::to_string(i), method.name, method.permissions});
  }
  transaction.commit();
}

std::optional<Refusal> Registry::propose(const wb_dom_node *request) {
  Definition definition;
  if (auto refusal = read(request, definition)) return refusal;
  const auto defined = store_.value("SELECT is_defined FROM capabilities WHERE name = ?", {definition.name});
  if (defined == "1") return Refusal{"duplicate", "the capability " + definition.name + " is registered already"};
  write(definition);
  announce_(defined ? "update" : "add", definition.name, definition.version);
  return std::nullopt;
}

std::optional<Refusal> Registry::update(const wb_dom_node *request) {
  Definition definition;
  if (auto refusal = read(request, definition)) return refusal;
  if (!version(definition.name)) return Refusal{"unknown", "the capability " + definition.name + " is not registered"};
  write(definition);
  announce_("update", definition.name, definition.version);
  return std::nullopt;
}

void Registry::describe(const std::string &name, Element into) const {
  const auto rows = store_.rows("SELECT name, version, description, vendor_platform FROM capabilities WHERE name = ?", {name});
  if (rows.empty()) return;
  into.add("name", rows[0][0]);
  into.add("version", rows[0][1]);
  Element methods = into.add("queryMethods");
  for (const Store::Row &row :
       store_.rows("SELECT name, permissions FROM methods WHERE capability = ? ORDER BY position", {name})) {
    Element operation = methods.add("operation");
    operation.add("methodName", row[0]);
    operation.add("methodPermissions", row[1]);
  }
  into.add("description", rows[0][2]);
  into.add("vendorPlatform", rows[0][3]);
}

void Registry::describe_all(Element into) const {
  for (const Store::Row &row : store_.rows("SELECT name FROM capabilities ORDER BY name"))
    describe(row[0], into.add("capability"));
}

}  // namespace controller

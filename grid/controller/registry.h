// The registered capabilities and their definitions. One that is published without having been proposed is registered too, with a
// definition that is still open: the first proposal, or an update, fills it.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "store.h"
#include "xml.h"

namespace controller {

inline constexpr char kCoreCapability[] = "CoreCapability";
inline constexpr char kVersionSuffix[] = "-1.0";

// Why a request is refused, as it is answered.
struct Refusal {
  std::string code, description;
};

class Registry {
 public:
  // Told of each change: "add" or "update", name, version.
  using Announce = std::function<void(const std::string &change, const std::string &name, const std::string &version)>;

  Registry(Store &store, Announce announce) : store_(store), announce_(std::move(announce)) {}

  // Registers a capability that is published, unless it is known.
  void note_published(const std::string &name);
  // request is a proposeCapabilityRequest or an updateCapabilityRequest.
  std::optional<Refusal> propose(const wb_dom_node *request);
  std::optional<Refusal> update(const wb_dom_node *request);

  std::optional<std::string> version(const std::string &name) const;
  // Adds the definition of a capability, or of each, below the element.
  void describe(const std::string &name, Element into) const;
  void describe_all(Element into) const;

  static bool is_good_name(const std::string &name);

 private:
  struct Method {
    std::string name, permissions;
  };
  struct Definition {
    std::string name, version, description, vendor_platform;
    std::vector<Method> methods;
  };
  static std::optional<Refusal> read(const wb_dom_node *request, Definition &definition);
  void write(const Definition &definition);

  Store &store_;
  const Announce announce_;
};

}  // namespace controller

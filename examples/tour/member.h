// A member of the grid: configuration and connection of one user, as any application would set them up.
#pragma once

#include <quillon.h>

#include <string>

#include "grid.h"

namespace tour {

inline constexpr char kNamespace[] = "urn:tour:weather";
inline constexpr char kCapability[] = "Weather";

class Member {
 public:
  Member(const Grid &grid, const std::string &user);
  ~Member();
  Member(const Member &) = delete;
  Member &operator=(const Member &) = delete;

  quillon_config *config() const { return config_; }
  quillon_connection *connection() const { return connection_; }
  quillon_capability *capability() const { return capability_; }
  const std::string &user() const { return user_; }

  // Ends the program with the status's text when it is not OK.
  static void expect_ok(QUILLON_STATUS status, const std::string &what);

  // A payload <name xmlns="urn:tour:weather">text</name> in a context of its own.
  static wb_dom_node *payload(const char *name, const std::string &text);
  // The text of a payload that came from the wire.
  static std::string text_of(const wb_dom_node *payload);
  // Prints one step of the tour.
  static void say(const std::string &who, const std::string &what);

 private:
  const std::string user_;
  quillon_config *config_ = nullptr;
  quillon_connection *connection_ = nullptr;
  quillon_capability *capability_ = nullptr;
};

}  // namespace tour

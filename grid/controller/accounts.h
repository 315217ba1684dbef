// Who may use the grid. An account is pending, approved, denied or disabled; one that is unknown is made by its first connect
// request, or by an administrator before it.
#pragma once

#include <optional>
#include <string>

#include "store.h"

namespace controller {

class Accounts {
 public:
  Accounts(Store &store, bool approves_new) : store_(store), approves_new_(approves_new) {}

  // Notes the connect request of a user and returns the approval status to answer: "approved", "denied" or "pending".
  std::string admit(const std::string &user, const std::string &groups, const std::string &description);
  // Nothing for an unknown user.
  std::optional<std::string> state(const std::string &user) const;
  bool is_approved(const std::string &user) const { return state(user) == "approved"; }
  // Makes the account when it is unknown.
  void set_state(const std::string &user, const std::string &state);
  // Forgets the account with its rights and tokens.
  void remove(const std::string &user);

  // Whether an administrator granted the operation to the user, whose account must be approved.
  bool is_authorized(const std::string &user, const std::string &capability, const std::string &operation) const;
  // Whether an administrator took away what is open to every approved user.
  bool is_forbidden(const std::string &user, const std::string &capability, const std::string &operation) const;
  void set_right(const std::string &user, const std::string &capability, const std::string &operation, bool allowed);

  // A new random token for the user. Only its hash is kept.
  std::string make_token(const std::string &user);
  std::optional<std::string> token_owner(const std::string &token) const;

 private:
  std::optional<std::string> right(const std::string &user, const std::string &capability, const std::string &operation) const;

  Store &store_;
  const bool approves_new_;
};

}  // namespace controller

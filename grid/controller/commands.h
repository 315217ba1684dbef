// What the administrator's commands do.
#pragma once

#include "accounts.h"
#include "administration.h"
#include "directory.h"
#include "registry.h"

namespace controller {

class Commands {
 public:
  Commands(Store &store, Session &session, Accounts &accounts, Directory &directory)
      : store_(store), session_(session), accounts_(accounts), directory_(directory) {}

  // The controller answers for the grid once it is connected and the core capability's topic stands.
  void set_ready(bool ready) { is_ready_ = ready; }

  void run(const AdministrationSocket::Fields &fields, const AdministrationSocket::Reply &reply);

 private:
  using Fields = AdministrationSocket::Fields;
  using Reply = AdministrationSocket::Reply;
  using Handler = void (Commands::*)(const Fields &, const Reply &);
  struct Command {
    const char *name;
    size_t arguments;
    Handler handler;
  };
  static const Command kCommands[];

  void status(const Fields &fields, const Reply &reply);
  void list_accounts(const Fields &fields, const Reply &reply);
  void list_capabilities(const Fields &fields, const Reply &reply);
  void list_members(const Fields &fields, const Reply &reply);
  void approve(const Fields &fields, const Reply &reply);
  void deny(const Fields &fields, const Reply &reply);
  void disable(const Fields &fields, const Reply &reply);
  void remove(const Fields &fields, const Reply &reply);
  void reauthorize(const Fields &fields, const Reply &reply);
  void set_right(const Fields &fields, const Reply &reply);
  void token_owner(const Fields &fields, const Reply &reply);

  void tell(const std::string &user, const char *state);
  // Ends what the user has on the topics, and replies.
  void expel(const std::string &user, const std::string &capability, const Reply &reply);

  Store &store_;
  Session &session_;
  Accounts &accounts_;
  Directory &directory_;
  bool is_ready_ = false;
};

}  // namespace controller

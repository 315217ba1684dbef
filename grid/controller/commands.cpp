#include "commands.h"

#include "jid.h"
#include "notifications.h"

namespace controller {

namespace {

constexpr char kNoAccount[] = "there is no such account";

std::string user_in(const AdministrationSocket::Fields &fields) { return user_name_of(fields[1]); }

}  // namespace

const Commands::Command Commands::kCommands[] = {
    {"status", 0, &Commands::status},
    {"accounts", 0, &Commands::list_accounts},
    {"capabilities", 0, &Commands::list_capabilities},
    {"members", 0, &Commands::list_members},
    {"approve", 1, &Commands::approve},
    {"deny", 1, &Commands::deny},
    {"disable", 1, &Commands::disable},
    {"delete", 1, &Commands::remove},
    {"reauthorize", 1, &Commands::reauthorize},
    {"allow", 3, &Commands::set_right},
    {"forbid", 3, &Commands::set_right},
    {"token-owner", 1, &Commands::token_owner},
};

void Commands::run(const Fields &fields, const Reply &reply) {
  for (const Command &command : kCommands) {
    if (fields[0] != command.name) continue;
    bool complete = fields.size() == command.arguments + 1;
    for (const std::string &field : fields) complete = complete && !field.empty();
    if (!complete) {
      reply({"wrong arguments", {}});
      return;
    }
    try {
      (this->*command.handler)(fields, reply);
    } catch (const std::exception &error) {
      reply({error.what(), {}});
    }
    return;
  }
  reply({"unknown command", {}});
}

void Commands::tell(const std::string &user, const char *state) {
  for (const std::string &jid : directory_.sessions(user)) notify_account(session_, jid, state);
}

void Commands::expel(const std::string &user, const std::string &capability, const Reply &reply) {
  // Undone steps are no failure: they are done when the server is back.
  directory_.expel(user, capability, [reply](bool) { reply({}); });
}

void Commands::status(const Fields &, const Reply &reply) {
  const auto count = [this](const char *sql) { return store_.value(sql).value_or("0"); };
  size_t publishers = 0;
  for (const auto &[capability, jids] : directory_.all_publishers()) publishers += jids.size();
  reply({"",
         {{"state", is_ready_ ? "ready" : "connecting"},
          {"sessions", std::to_string(directory_.present().size())},
          {"accounts", count("SELECT count(*) FROM accounts")},
          {"pending", count("SELECT count(*) FROM accounts WHERE state = 'pending'")},
          {"capabilities", count("SELECT count(*) FROM capabilities")},
          {"publishers", std::to_string(publishers)}}});
}

void Commands::list_accounts(const Fields &, const Reply &reply) {
  AdministrationSocket::Answer answer;
  for (const Store::Row &row : store_.rows("SELECT user, state, groups, description FROM accounts ORDER BY user")) {
    answer.rows.push_back({row[0], row[1], std::to_string(directory_.sessions(row[0]).size()), row[2], row[3]});
  }
  reply(answer);
}

void Commands::list_capabilities(const Fields &, const Reply &reply) {
  AdministrationSocket::Answer answer;
  for (const Store::Row &row : store_.rows("SELECT name, version, description FROM capabilities ORDER BY name")) {
    answer.rows.push_back({row[0], row[1], std::to_string(directory_.publishers(row[0]).size()),
                           std::to_string(directory_.subscribers(row[0]).size()), row[2]});
  }
  reply(answer);
}

void Commands::list_members(const Fields &, const Reply &reply) {
  AdministrationSocket::Answer answer;
  for (const Store::Row &row : store_.rows("SELECT name FROM capabilities ORDER BY name")) {
    for (const std::string &jid : directory_.publishers(row[0])) answer.rows.push_back({row[0], "publishes", jid});
    for (const std::string &jid : directory_.subscribers(row[0])) answer.rows.push_back({row[0], "subscribes", jid});
  }
  reply(answer);
}

void Commands::approve(const Fields &fields, const Reply &reply) {
  const std::string user = user_in(fields);
  const bool was_approved = accounts_.is_approved(user);
  accounts_.set_state(user, "approved");
  if (!was_approved) tell(user, "enabled");
  reply({});
}

// A client that waits for approval knows no word for a denial: "disabled" ends its wait.
void Commands::deny(const Fields &fields, const Reply &reply) {
  const std::string user = user_in(fields);
  accounts_.set_state(user, "denied");
  tell(user, "disabled");
  expel(user, "", reply);
}

void Commands::disable(const Fields &fields, const Reply &reply) {
  const std::string user = user_in(fields);
  if (!accounts_.state(user)) {
    reply({kNoAccount, {}});
    return;
  }
  accounts_.set_state(user, "disabled");
  tell(user, "disabled");
  expel(user, "", reply);
}

void Commands::remove(const Fields &fields, const Reply &reply) {
  const std::string user = user_in(fields);
  if (!accounts_.state(user)) {
    reply({kNoAccount, {}});
    return;
  }
  accounts_.remove(user);
  tell(user, "deleted");
  expel(user, "", reply);
}

void Commands::reauthorize(const Fields &fields, const Reply &reply) {
  const std::string user = user_in(fields);
  if (accounts_.state(user)) tell(user, "authorizationChanged");
  reply({accounts_.state(user) ? "" : kNoAccount, {}});
}

void Commands::set_right(const Fields &fields, const Reply &reply) {
  const std::string user = user_in(fields), &capability = fields[2], &operation = fields[3];
  const bool allowed = fields[0] == "allow";
  accounts_.set_right(user, capability, operation, allowed);
  if (!allowed && (operation == "subscribe" || operation == "publish")) {
    expel(user, capability, reply);
  } else {
    reply({});
  }
}

void Commands::token_owner(const Fields &fields, const Reply &reply) {
  const auto owner = accounts_.token_owner(fields[1]);
  if (owner) {
    reply({"", {{*owner}}});
  } else {
    reply({"no such token was issued", {}});
  }
}

}  // namespace controller

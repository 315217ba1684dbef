#include "directory.h"

#include <algorithm>
#include <iterator>

#include "jid.h"
#include "notifications.h"
#include "registry.h"

namespace controller {

namespace {

constexpr unsigned kPingSeconds = 5;

}  // namespace

void Directory::arrive(const std::string &jid) {
  leave(jid);  // a session that ended unnoticed
  note_present(jid);
}

void Directory::note_present(const std::string &jid) {
  unsure_.erase(jid);
  if (present_.count(jid) != 0) return;
  store_.run("INSERT OR IGNORE INTO sessions VALUES (?)", {jid});
  present_.insert(jid);
}

void Directory::leave(const std::string &jid) {
  present_.erase(jid);
  unsure_.erase(jid);
  store_.run("DELETE FROM sessions WHERE jid = ?", {jid});
  const auto subscribers = store_.rows(
      "SELECT DISTINCT s.jid FROM subscriptions s JOIN publications p ON p.capability = s.capability WHERE p.jid = ?1 AND "
      "p.active = 1 "
      "AND s.active = 1 AND s.jid <> ?1",
      {jid});
  store_.run("UPDATE publications SET active = 0 WHERE jid = ? AND active = 1", {jid});
  store_.run("UPDATE subscriptions SET active = 0 WHERE jid = ? AND active = 1", {jid});
  for (const Store::Row &row : subscribers) {
    if (present_.count(row[0]) != 0) notify_publisher(session_, row[0], "delete", jid);
  }
}

void Directory::lose_sight() {
  present_.clear();
  unsure_.clear();
}

void Directory::recover() {
  for (const Store::Row &row :
       store_.rows("SELECT jid FROM publications WHERE active = 1 UNION SELECT jid FROM subscriptions WHERE active = 1 UNION "
                   "SELECT jid FROM sessions")) {
    const std::string jid = row[0];
    unsure_.insert(jid);
    Stanza ping = make_iq("get", jid);
    ping.root().add_in(kPingNs, "ping");
    session_.track(
        std::move(ping),
        [this, jid](const wb_dom_node *answer) {
          if (unsure_.erase(jid) == 0) return;
          const std::string type = attribute_of(answer, "type");
          if (type == "result") note_present(jid);
          if (type == "error") leave(jid);  // without an answer it is not counted as present until it is heard of
        },
        kPingSeconds);
  }
  for (const Store::Row &row : store_.rows(
           "SELECT DISTINCT user, capability FROM (SELECT user, capability FROM publications UNION SELECT user, capability "
           "FROM subscriptions)")) {
    if (is_put_out(row[0], row[1])) expel(row[0], row[1], [](bool) {});
  }
}

bool Directory::is_put_out(const std::string &user, const std::string &capability) const {
  return !accounts_.is_approved(user) || accounts_.is_forbidden(user, capability, "subscribe") ||
         accounts_.is_forbidden(user, capability, "publish");
}

bool Directory::was_dynamic(const Announcement &announcement) const {
  return store_
      .value(
          "SELECT 1 FROM (SELECT * FROM publications UNION SELECT * FROM subscriptions) WHERE jid = ? AND capability = ? AND "
          "dynamic = 1",
          {announcement.jid, announcement.capability})
      .has_value();
}

// Clients announce everything in the plain form when they connect again, also what they had announced in the dynamic one.
std::vector<std::string> Directory::topics_of(const Announcement &announcement) const {
  std::vector<std::string> topics;
  if (!announcement.is_dynamic) topics.push_back(announcement.capability + kVersionSuffix);
  if (announcement.is_dynamic || was_dynamic(announcement)) topics.push_back(announcement.capability);
  return topics;
}

void Directory::note(const Announcement &announcement, const char *table, bool active) {
  // excluded holds numbers, as the columns do: a text would always be the greater.
  const std::string sql = std::string("INSERT INTO ") + table +
                          " VALUES (?1, ?2, ?3, ?4, ?5) ON CONFLICT (jid, capability) DO UPDATE SET "
                          "dynamic = max(dynamic, excluded.dynamic), active = max(active, excluded.active)";
  store_.run(sql.c_str(), {announcement.jid, announcement.user, announcement.capability, announcement.is_dynamic ? "1" : "0",
                           active ? "1" : "0"});
}

void Directory::announce(const Announcement &announcement, const char *operation, const char *table,
                         const std::function<void(std::vector<std::string>, Done)> &admit, Done done) {
  const auto topics = topics_of(announcement);
  // Noted before the first step, so that putting the account out finds it.
  note(announcement, table, false);
  admit(topics, [this, announcement, operation, table, done = std::move(done)](bool admitted) {
    const bool stays = admitted && accounts_.is_approved(announcement.user) &&
                       !accounts_.is_forbidden(announcement.user, announcement.capability, operation);
    if (stays && present_.count(announcement.jid) != 0) note(announcement, table, true);
    done(stays);
  });
}

void Directory::subscribe(const Announcement &announcement, Done done) {
  announce(
      announcement, "subscribe", "subscriptions",
      [&](const std::vector<std::string> &topics, Done admitted) {
        const bool publishes_too = store_
                                       .value("SELECT 1 FROM publications WHERE user = ? AND capability = ?",
                                              {announcement.user, announcement.capability})
                                       .has_value();
        topics_.admit_subscriber(topics, announcement.jid, publishes_too, std::move(admitted));
      },
      std::move(done));
}

void Directory::publish(const Announcement &announcement, Done done) {
  const auto told = [this, announcement] {
    return store_
        .value("SELECT 1 FROM publications WHERE jid = ? AND capability = ? AND active = 1",
               {announcement.jid, announcement.capability})
        .has_value();
  };
  announce(
      announcement, "publish", "publications",
      [&](const std::vector<std::string> &topics, Done admitted) {
        topics_.admit_publisher(topics, announcement.jid, std::move(admitted));
      },
      [this, announcement, told_before = told(), told, done = std::move(done)](bool admitted) {
        if (admitted && !told_before && told()) {
          for (const Store::Row &row :
               store_.rows("SELECT jid FROM subscriptions WHERE capability = ? AND active = 1", {announcement.capability})) {
            if (present_.count(row[0]) != 0) notify_publisher(session_, row[0], "add", announcement.jid);
          }
        }
        done(admitted);
      });
}

void Directory::tell_of_the_gone(const Announcement &announcement) {
  for (const Store::Row &row : store_.rows("SELECT jid FROM publications WHERE capability = ?", {announcement.capability})) {
    if (present_.count(row[0]) == 0 && unsure_.count(row[0]) == 0) notify_publisher(session_, announcement.jid, "delete", row[0]);
  }
}

void Directory::expel(const std::string &user, const std::string &capability, const Done &done) {
  const std::vector<std::string> whom = {user, capability};
  const auto published =
      store_.rows("SELECT jid, capability FROM publications WHERE active = 1 AND user = ?1 AND ?2 IN ('', capability)", whom);
  for (const Store::Row &row : published) {
    for (const Store::Row &subscriber :
         store_.rows("SELECT jid FROM subscriptions WHERE capability = ? AND active = 1", {row[1]})) {
      if (present_.count(subscriber[0]) != 0 && subscriber[0] != row[0])
        notify_publisher(session_, subscriber[0], "delete", row[0]);
    }
  }
  store_.run("UPDATE publications SET active = 0 WHERE user = ?1 AND ?2 IN ('', capability)", whom);
  store_.run("UPDATE subscriptions SET active = 0 WHERE user = ?1 AND ?2 IN ('', capability)", whom);
  const auto remains = store_.rows(
      "SELECT jid, capability FROM publications WHERE user = ?1 AND ?2 IN ('', capability) UNION "
      "SELECT jid, capability FROM subscriptions WHERE user = ?1 AND ?2 IN ('', capability)",
      whom);
  // What cannot be done now, since the server is away, is done when the controller is connected again: the rows stay until then.
  auto left = std::make_shared<size_t>(remains.size());
  auto all_done = std::make_shared<bool>(true);
  if (remains.empty()) done(true);
  for (const Store::Row &row : remains) {
    topics_.expel({row[1] + kVersionSuffix, row[1]}, row[0], [this, row, left, all_done, done](bool expelled) {
      if (expelled) {
        for (const char *sql : {"DELETE FROM publications WHERE jid = ? AND capability = ? AND active = 0",
                                "DELETE FROM subscriptions WHERE jid = ? AND capability = ? AND active = 0"}) {
          store_.run(sql, row);
        }
      }
      *all_done = *all_done && expelled;
      if (--*left == 0) done(*all_done);
    });
  }
}

std::vector<std::string> Directory::those_present(const char *sql, const std::string &capability) const {
  std::vector<std::string> jids;
  for (const Store::Row &row : store_.rows(sql, {capability})) {
    if (present_.count(row[0]) != 0) jids.push_back(row[0]);
  }
  return jids;
}

std::vector<std::string> Directory::publishers(const std::string &capability) const {
  return those_present("SELECT jid FROM publications WHERE capability = ? AND active = 1 ORDER BY rowid", capability);
}

std::vector<std::string> Directory::subscribers(const std::string &capability) const {
  return those_present("SELECT jid FROM subscriptions WHERE capability = ? AND active = 1 ORDER BY rowid", capability);
}

std::map<std::string, std::vector<std::string>> Directory::all_publishers() const {
  std::map<std::string, std::vector<std::string>> all;
  for (const Store::Row &row : store_.rows("SELECT capability, jid FROM publications WHERE active = 1 ORDER BY rowid")) {
    if (present_.count(row[1]) != 0) all[row[0]].push_back(row[1]);
  }
  return all;
}

std::vector<std::string> Directory::sessions(const std::string &user) const {
  std::vector<std::string> jids;
  for (const auto *some : {&present_, &unsure_}) {
    std::copy_if(some->begin(), some->end(), std::back_inserter(jids),
                 [&](const std::string &jid) { return user_name_of(jid) == user; });
  }
  return jids;
}

}  // namespace controller

// Who publishes and who subscribes, and who is there at all.
//
// A client is present from its presence, or its first request, until the server reports it unavailable. What it announced is
// active for that time only; the inactive remains tell, when it announces itself again, in which form it once did, and
// subscribers, who of the publishers that they may know has gone.
#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "accounts.h"
#include "topics.h"

namespace controller {

// One request to subscribe to a capability or to publish it.
struct Announcement {
  std::string jid, user, capability;
  bool is_dynamic = false;
};

class Directory {
 public:
  using Done = std::function<void(bool)>;

  Directory(Store &store, Session &session, Topics &topics, Accounts &accounts)
      : store_(store), session_(session), topics_(topics), accounts_(accounts) {}

  // A client's session began, or ended.
  void arrive(const std::string &jid);
  void leave(const std::string &jid);
  // A request shows that the client is present.
  void note_present(const std::string &jid);
  // The controller's own session ended: nobody can be seen.
  void lose_sight();
  // After it began: asks every client that was there whether it still is, and puts out whom a
  // decision of the meantime concerns.
  void recover();

  // done learns whether the topics are set up; false also when the account was taken out, or the right taken away, meanwhile.
  void subscribe(const Announcement &announcement, Done done);
  void publish(const Announcement &announcement, Done done);
  // Tells a client that has just subscribed which former publishers are not there.
  void tell_of_the_gone(const Announcement &announcement);
  // Ends what the user has announced, on the topics too; of one capability, or of all where it is empty.
  void expel(const std::string &user, const std::string &capability, const Done &done);

  std::vector<std::string> publishers(const std::string &capability) const;
  std::map<std::string, std::vector<std::string>> all_publishers() const;  // by capability
  std::vector<std::string> subscribers(const std::string &capability) const;
  // Those too that were asked by recover and have not answered yet.
  std::vector<std::string> sessions(const std::string &user) const;
  const std::set<std::string> &present() const { return present_; }

 private:
  void announce(const Announcement &announcement, const char *operation, const char *table,
                const std::function<void(std::vector<std::string>, Done)> &admit, Done done);
  void note(const Announcement &announcement, const char *table, bool active);
  std::vector<std::string> topics_of(const Announcement &announcement) const;
  bool was_dynamic(const Announcement &announcement) const;
  std::vector<std::string> those_present(const char *sql, const std::string &capability) const;
  bool is_put_out(const std::string &user, const std::string &capability) const;

  Store &store_;
  Session &session_;
  Topics &topics_;
  Accounts &accounts_;
  std::set<std::string> present_;
  std::set<std::string> unsure_;  // asked by recover, and not heard of since
};

}  // namespace controller

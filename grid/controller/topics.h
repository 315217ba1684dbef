// The topics on the server's publish-subscribe service. Each is a whitelist on which only publishers publish; the controller
// creates it and lets clients in, one step after the other: a client is given its affiliation before its subscription, because
// the service refuses the other order.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "session.h"

namespace controller {

class Topics {
 public:
  // Told whether all steps succeeded.
  using Done = std::function<void(bool)>;

  Topics(Session &session, const Options &options) : session_(session), options_(options) {}

  // Forgets what this session has set up: the server may have lost it since.
  void forget();

  void create(const std::string &topic, Done done);
  // Delivers the topics' notifications to the full JID. An account that publishes there too keeps the right to.
  void admit_subscriber(const std::vector<std::string> &topics, const std::string &jid, bool publishes_too, Done done);
  // Lets the account of the full JID publish on the topics.
  void admit_publisher(const std::vector<std::string> &topics, const std::string &jid, Done done);
  // Takes subscription and affiliation away.
  void expel(const std::vector<std::string> &topics, const std::string &jid, Done done);
  // Publishes what fill puts into the envelope.
  void publish(const std::string &topic, const std::function<void(Element)> &fill);

 private:
  struct Step {
    Stanza request;
    std::vector<std::string> harmless;  // error conditions that mean that there was nothing to do
    std::function<void()> succeeded;    // may be empty
  };
  struct Operation {
    std::function<void(std::deque<Step> &)> plan;
    Done done;
  };

  void add_creation(std::deque<Step> &steps, const std::string &topic);
  void add_affiliation(std::deque<Step> &steps, const std::string &topic, const std::string &jid, const std::string &affiliation);
  void add_subscription(std::deque<Step> &steps, const std::string &topic, const std::string &jid, const std::string &state);
  void run(Operation operation);
  void start_waiting();
  void take_step();
  void finish(bool succeeded);

  Session &session_;
  const Options &options_;
  std::set<std::string> created_;
  // By topic and account: the affiliation that the account has there.
  std::map<std::pair<std::string, std::string>, std::string> affiliations_;
  // Operations run one after the other, so that letting a client in and putting it out never mix.
  std::deque<Operation> waiting_;
  bool is_busy_ = false, is_starting_ = false;
  std::deque<Step> steps_;  // of the operation that runs
  Done done_;
};

}  // namespace controller

#include "topics.h"

#include <algorithm>
#include <utility>

#include "jid.h"

namespace controller {

namespace {

constexpr char kMember[] = "member";
constexpr char kPublisher[] = "publisher";
constexpr char kNone[] = "none";

std::string condition_of(const wb_dom_node *answer) {
  const wb_dom_node *error = find_child(answer, kClientNs, "error");
  const wb_dom_node *condition = error != nullptr ? wb_dom_get_first_child(error) : nullptr;
  return condition != nullptr ? wb_dom_get_localname(condition) : "no answer";
}

void add_field(Element form, const char *name, const char *value) { form.add("field").set("var", name).add("value", value); }

Stanza make_creation(const std::string &service, const std::string &topic) {
  Stanza iq = make_iq("set", service);
  Element pubsub = iq.root().add_in(kPubsubNs, "pubsub");
  pubsub.add("create").set("node", topic);
  Element form = pubsub.add("configure").add_in(kDataNs, "x").set("type", "submit");
  form.add("field").set("var", "FORM_TYPE").set("type", "hidden").add("value", kPubsubConfigurationNs);
  add_field(form, "pubsub#access_model", "whitelist");
  add_field(form, "pubsub#publish_model", "publishers");
  add_field(form, "pubsub#persist_items", "0");
  return iq;
}

Element add_owner_request(const Stanza &iq, const char *name, const std::string &topic) {
  return iq.root().add_in(kPubsubOwnerNs, "pubsub").add(name).set("node", topic);
}

}  // namespace

void Topics::forget() {
  created_.clear();
  affiliations_.clear();
}

void Topics::run(Operation operation) {
  waiting_.push_back(std::move(operation));
  start_waiting();
}

// Operations may end while they are started, when nothing can be sent; the loop then goes on with the next.
void Topics::start_waiting() {
  if (is_starting_) return;
  is_starting_ = true;
  while (!is_busy_ && !waiting_.empty()) {
    const Operation operation = std::move(waiting_.front());
    waiting_.pop_front();
    is_busy_ = true;
    done_ = operation.done;
    steps_.clear();
    bool planned = false;
    contained("topic", [&] {
      operation.plan(steps_);
      planned = true;
    });
    planned ? take_step() : finish(false);
  }
  is_starting_ = false;
}

void Topics::take_step() {
  if (steps_.empty()) {
    finish(true);
    return;
  }
  session_.track(std::move(steps_.front().request), [this](const wb_dom_node *answer) {
    const Step step = std::move(steps_.front());
    steps_.pop_front();
    if (attribute_of(answer, "type") != "result") {
      const std::string condition = condition_of(answer);
      if (std::find(step.harmless.begin(), step.harmless.end(), condition) == step.harmless.end()) {
        wb_log(WB_LOG_WARN, "the publish-subscribe service refuses: %s", condition.c_str());
        finish(false);
        return;
      }
    }
    if (step.succeeded) step.succeeded();
    take_step();
  });
}

void Topics::finish(bool succeeded) {
  const Done done = std::exchange(done_, nullptr);
  is_busy_ = false;
  contained("topic", [&] { done(succeeded); });
  start_waiting();
}

void Topics::add_creation(std::deque<Step> &steps, const std::string &topic) {
  if (created_.count(topic) != 0) return;
  steps.push_back({make_creation(options_.pubsub_jid(), topic), {"conflict"}, [this, topic] { created_.insert(topic); }});
}

void Topics::add_affiliation(std::deque<Step> &steps, const std::string &topic, const std::string &jid,
                             const std::string &affiliation) {
  const std::pair key(topic, bare_of(jid));
  const auto known = affiliations_.find(key);
  if (known != affiliations_.end() && known->second == affiliation) return;
  Stanza iq = make_iq("set", options_.pubsub_jid());
  Element list = add_owner_request(iq, "affiliations", topic);
  list.add("affiliation").set("jid", key.second).set("affiliation", affiliation);
  std::vector<std::string> harmless;
  if (affiliation == kNone) harmless.emplace_back("item-not-found");
  steps.push_back({std::move(iq), std::move(harmless), [this, key, affiliation] { affiliations_[key] = affiliation; }});
}

void Topics::add_subscription(std::deque<Step> &steps, const std::string &topic, const std::string &jid,
                              const std::string &state) {
  Stanza iq = make_iq("set", options_.pubsub_jid());
  add_owner_request(iq, "subscriptions", topic).add("subscription").set("jid", jid).set("subscription", state);
  std::vector<std::string> harmless;
  if (state == kNone) harmless = {"item-not-found", "unexpected-request"};
  steps.push_back({std::move(iq), std::move(harmless), nullptr});
}

void Topics::create(const std::string &topic, Done done) {
  run({[this, topic](std::deque<Step> &steps) { add_creation(steps, topic); }, std::move(done)});
}

void Topics::admit_subscriber(const std::vector<std::string> &topics, const std::string &jid, bool publishes_too, Done done) {
  run({[=, this](std::deque<Step> &steps) {
         for (const std::string &topic : topics) {
           add_creation(steps, topic);
           add_affiliation(steps, topic, jid, publishes_too ? kPublisher : kMember);
           add_subscription(steps, topic, jid, "subscribed");
         }
       },
       std::move(done)});
}

void Topics::admit_publisher(const std::vector<std::string> &topics, const std::string &jid, Done done) {
  run({[=, this](std::deque<Step> &steps) {
         for (const std::string &topic : topics) {
           add_creation(steps, topic);
           add_affiliation(steps, topic, jid, kPublisher);
         }
       },
       std::move(done)});
}

void Topics::expel(const std::vector<std::string> &topics, const std::string &jid, Done done) {
  run({[=, this](std::deque<Step> &steps) {
         for (const std::string &topic : topics) {
           add_subscription(steps, topic, jid, kNone);
           add_affiliation(steps, topic, jid, kNone);
         }
       },
       std::move(done)});
}

void Topics::publish(const std::string &topic, const std::function<void(Element)> &fill) {
  Stanza iq = make_iq("set", options_.pubsub_jid());
  Element item = iq.root().add_in(kPubsubNs, "pubsub").add("publish").set("node", topic).add("item");
  fill(item.add_in(kEnvelopeNs, "grid").set("type", "notification"));
  session_.track(std::move(iq), [topic](const wb_dom_node *answer) {
    if (attribute_of(answer, "type") != "result") {
      wb_log(WB_LOG_WARN, "nothing could be published on %s: %s", topic.c_str(), condition_of(answer).c_str());
    }
  });
}

}  // namespace controller

// A Warbler client with all that it needs: an event base on a thread of its own, a work queue, a configuration, SASL mechanisms.
// What happens to it is recorded.
#pragma once

#include <warbler/warbler.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <qlk/testpeer/certificates.hpp>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

struct event_base;

namespace test_support {

// An event base that a thread of its own dispatches, and a queue to it.
class LoopThread {
 public:
  LoopThread();
  ~LoopThread();
  LoopThread(const LoopThread &) = delete;
  LoopThread &operator=(const LoopThread &) = delete;

  event_base *base() const { return base_; }
  wb_workq *queue() const { return queue_; }
  // Runs the function on the loop and waits for its end. Not from the loop.
  void run(const std::function<void()> &function);

 private:
  event_base *base_;
  wb_workq *queue_ = nullptr;
  std::thread thread_;
};

struct ClientSettings {
  std::string domain = "grid.test";
  std::string user_jid = "user@grid.test/qlk";
  testpeer::Credentials certificate;                       // of the client
  std::string authority;                                   // a file: whom it trusts; "": it does not verify
  std::function<void(wb_tls_session *session)> on_accept;  // asked about a server that was not verified; empty: accepts it
  std::vector<std::string> mechanisms = {"EXTERNAL"};
  const wb_sasl_mech_functions *mechanism = nullptr;  // what they do; nullptr: name the user
  bool records = true;                                // false: the events are for functions that the test binds
  std::map<std::string, std::string> table;           // further entries of the configuration
};

class TestClient {
 public:
  // Runs on the loop when the record is written, before anybody else sees it.
  using Hook = std::function<void(const std::string &record, wb_event_data *event)>;

  explicit TestClient(ClientSettings settings);
  ~TestClient();
  TestClient(const TestClient &) = delete;
  TestClient &operator=(const TestClient &) = delete;

  // Before the client connects.
  void set_hook(Hook hook) { hook_ = std::move(hook); }
  bool connect(const std::string &host, wb_err *err = nullptr);
  void disconnect();  // waits until the loop has begun with it
  void destroy();     // once, from any thread, a hook or an IQ's callback; no more is done with it then

  // Take XML of one element in jabber:client. Any thread.
  bool send(const std::string &xml, wb_err *err = nullptr);
  // The answer is recorded as "NAME: result", "NAME: error" or "NAME: none", with the attribute n of the answer behind it if it
  // has one.
  bool track(const std::string &xml, const std::string &name, unsigned timeout_seconds, wb_err *err = nullptr);

  wb_client *client() const { return client_; }
  LoopThread &loop() { return loop_; }

  // What happened: "connected JID", "disconnected", "disconnected CONDITION", "reconnect STATUS SECONDS", "message ID", "presence
  // ID", "iq ID", "destroyed", and the answers.
  std::vector<std::string> records() const;
  size_t count(std::string_view beginning) const;
  // False when so many records with that beginning do not come in time.
  bool wait_for(std::string_view beginning, size_t times = 1, std::chrono::milliseconds at_most = std::chrono::seconds(20)) const;
  std::string all() const;

 private:
  struct Tracked;
  static void on_event(wb_event_data *event, void *arg);
  static void on_answer(wb_dom_node *result, void *arg);
  static void prepare_tls(void *tls_context, void *arg);
  static void accept_tls(wb_tls_session *session, void *arg);
  void record(const std::string &text, wb_event_data *event);

  const ClientSettings settings_;
  LoopThread loop_;
  std::string host_;
  wb_htable *table_ = nullptr;
  wb_sasl_factory *factory_ = nullptr;
  wb_tls_connect_func connect_hook_ = prepare_tls;
  wb_tls_accept_func accept_hook_ = accept_tls;
  std::atomic<wb_client *> client_ = nullptr;
  Hook hook_;

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<std::string> records_;
};

// A stanza of its own context from XML; throws when it is none.
wb_dom_node *parse_stanza(const std::string &xml);

}  // namespace test_support

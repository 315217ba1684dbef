// A user's session with the grid, joined with a report of each step on the way.
#pragma once

#include <quillon.h>

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "certificates.h"
#include "descriptor.h"
#include "options.h"
#include "records.h"
#include "stop.h"

namespace tool {

enum class Step { host, address, tls, peer, authority, sasl, session, account };

// Called for each step that succeeded, on several threads but never on two at once.
using Report = std::function<void(Step, const std::string &)>;

using Config = std::unique_ptr<quillon_config, Ended<quillon_config_destroy>>;

// The library's configuration out of the settings.
Config make_config(const Settings &settings);

class Session {
 public:
  Session(const Settings &settings, Stop &stop, Report report = nullptr);
  ~Session();
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;

  // Joins the grid, trying each host in turn. While the account waits for an administrator, so does this. Throws Failure or
  // Stopped.
  void join();
  // After the session was lost: joins again until that succeeds, and begins again what the session is for. Throws Failure at once
  // when it is not to reconnect, and when another session of the user has taken the place of this one.
  void join_again(const Reconnecting &reconnecting, const std::function<void()> &begin);
  // That the session is lost, for a command that ends then; advice is the hint where nothing better is known.
  Failure loss(const std::string &advice) const;

  quillon_connection *connection() const { return connection_.get(); }
  const std::string &user() const { return user_; }

  // The session ended without our doing: readable from then on, for poll, and why.
  int lost_descriptor() const { return lost_.get(); }
  bool is_lost() const;
  std::string lost_reason() const;

  // Forgets what was refused before the next request.
  void begin_request();
  // Throws for a status that is not OK: "cannot WHAT: why", in the grid's own words where it gave some.
  void expect(QUILLON_STATUS status, const std::string &what) const;
  // The grid's own words for the last refusal; empty when there was none.
  std::string refusal() const;

  // Is called for every stanza that arrives, on the event loop; it must be set before joining.
  void set_stanza_watcher(std::function<void(const wb_dom_node *)> watcher) { watcher_ = std::move(watcher); }

 private:
  static void on_tls_context(quillon_connection *connection, void *context, void *self);
  static void on_tls_info(const SSL *ssl, int where, int result);
  static void on_account(quillon_connection *connection, QUILLON_STATUS status, void *self);
  static void on_disconnected(quillon_connection *connection, QUILLON_STATUS status, void *self);

  void begin_attempt(const std::string &host);
  void hear_address(const std::string &address);
  void hear_stanza(const wb_dom_node *stanza);
  void hear_iq(const wb_dom_node *iq);
  void hear_session_end(const std::string &stage, const std::string &reason);
  void hear_tls(const SSL *ssl);
  void report_locked(Step step, const std::string &text) const;
  Failure explain(QUILLON_STATUS status) const;
  bool has_conflict() const;

  Stop &stop_;
  const Report report_;
  const std::string user_;
  const std::vector<std::string> hosts_;
  const bool races_hosts_;
  std::function<void(const wb_dom_node *)> watcher_;
  RecordListener listener_;
  Descriptor lost_;
  Config config_;
  std::unique_ptr<quillon_connection, Ended<quillon_connection_destroy>> connection_;

  mutable std::mutex mutex_;  // guards what follows
  std::string host_, end_reason_, refusal_, refusal_code_, lost_reason_;
  bool has_session_ = false, has_tls_ = false, has_joined_ = false;
  std::string condition_;  // of the last stanza error
  std::optional<QUILLON_STATUS> account_;
};

// A capability of the session's user.
class Capability {
 public:
  Capability(const std::string &name, const std::string &ns, bool is_dynamic);

  quillon_capability *get() const { return capability_.get(); }
  const std::string &name() const { return name_; }
  // The publish-subscribe node of its notifications.
  std::string topic() const { return is_dynamic_ ? name_ : name_ + "-1.0"; }

  void subscribe(Session &session) const;
  void publish(Session &session) const;

 private:
  const std::string name_;
  const bool is_dynamic_;
  std::unique_ptr<quillon_capability, Ended<quillon_capability_destroy>> capability_;
};

// The texts for a config setter that takes a list.
std::vector<const char *> pointers_to(const std::vector<std::string> &texts);

}  // namespace tool

// A grid of a test's own: a real XMPP server and the controller, in a temporary folder and on a port that was free.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace test_support {

// Comes up with the constructor and goes down with the destructor, and also with the process, however that ends. What fails
// throws std::runtime_error with what the command said; a controller that ended badly, by a sanitizer's finding too, fails the
// test. Several may be up at once. Any thread, one at a time.
class LocalGrid {
 public:
  enum class Approval { automatic, manual };  // of new accounts
  struct Credentials {
    std::string certificate, key;  // PEM files
  };

  explicit LocalGrid(Approval approval = Approval::automatic);
  // One whose server is a cluster of ejabberd nodes.
  explicit LocalGrid(unsigned nodes);
  ~LocalGrid();
  LocalGrid(const LocalGrid &) = delete;
  LocalGrid &operator=(const LocalGrid &) = delete;

  std::string host() const;  // 127.0.0.1:port
  unsigned port() const { return ports_.front(); }
  std::vector<std::string> hosts() const;  // of all nodes of the server
  // The server wants the bare JID as SASL's initial response, and not the plain user name.
  bool wants_bare_jid() const { return wants_bare_jid_; }
  std::string domain() const;
  std::string ca_path() const { return folder_ + "/certificates/ca.pem"; }
  std::string controller_log() const;
  // With the server stopped: makes it forget all topics and subscriptions, as one that comes back on another machine.
  void server_forget();

  // The user's certificate and key, made when there are none. Options such as "--days", "-1" make them anew.
  Credentials enroll(const std::string &user, const std::vector<std::string> &options = {});

  void approve(const std::string &user);
  void deny(const std::string &user);
  void disable(const std::string &user);
  void remove(const std::string &user);
  void reauthorize(const std::string &user);
  void allow(const std::string &user, const std::string &capability, const std::string &operation);
  void forbid(const std::string &user, const std::string &capability, const std::string &operation);
  std::string token_owner(const std::string &token);  // "" for a token that was not issued

  // The XMPP server alone; the controller stays. server_start returns when the controller has come back, unless it need not.
  void server_stop();
  void server_start(bool wait_for_controller = true);
  // One node, counted from 1, as when its machine fails.
  void kill_node(unsigned node);
  // Makes the server's certificate anew, for its next start: below 0 days it has expired; a name replaces the names that it
  // should bear.
  void server_certificate(int days, const std::string &name = "");

  // Runs quillon-grid on this grid and returns what it printed. Throws when it fails.
  std::string run(const std::vector<std::string> &arguments);

 private:
  struct Outcome {
    int exit_code;
    std::string output;
  };
  Outcome attempt(const std::vector<std::string> &arguments) const;
  void bring_up(const std::vector<std::string> &options);
  void read_environment();
  int take_down();

  std::string folder_;
  std::vector<unsigned> ports_;  // of each node
  bool wants_bare_jid_ = false;
  pid_t process_ = -1;
  int lifeline_ = -1;  // the grid ends when this does
};

}  // namespace test_support

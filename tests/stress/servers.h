// The servers of the stress, which fail at random: at every stage, at every request, and in the midst of a session or a transfer.
#pragma once

#include <qlk/testpeer.hpp>

#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

namespace stress {

using Random = std::mt19937;

// A number below count.
inline unsigned pick(Random &random, unsigned count) { return std::uniform_int_distribution<unsigned>(0, count - 1)(random); }
inline bool once_in(Random &random, unsigned count) { return pick(random, count) == 0; }

// Made once.
struct Identities {
  testpeer::CertificateAuthority authority{"The Authority"};
  testpeer::Credentials server, service, client, next_client;

  static Identities &get();

 private:
  Identities();
};

class Servers {
 public:
  // How many items a whole document of the bulk services has: numbers from 1 on.
  static constexpr size_t kItems = 1500;

  explicit Servers(unsigned seed);

  // Of a server that does all right until it is harmed.
  const std::string &good_host() const { return peers_[0]->host(); }
  // Of all servers there are now.
  std::vector<std::string> hosts() const;
  // Something befalls a session that is up, or a server is replaced by another, on another port.
  void harm(Random &random);
  // The good server sends each of its sessions a notification, a word on the account, and a query.
  void speak() const;

  std::string good_document() const { return services_[0]->url("/whole"); }
  // A document that may fail; a silent one never comes.
  std::string random_document(Random &random, bool is_silent) const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<testpeer::ScriptedPeer>> peers_;  // under mutex_, but for the first
  std::vector<std::unique_ptr<testpeer::HttpsPeer>> services_;  // the first is good
};

}  // namespace stress

// Stands in for the XMPP session below libqlk: what would be sent is kept, and a function of the test answers, at once and on the
// thread that asks. The program must be linked with --wrap for the functions that are replaced; without a fake they do what they
// always do.
#pragma once

#include <warbler/warbler.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace test_support {

// One at a time in a process; it may be used by any threads.
class ClientFake {
 public:
  // The reply to an IQ as XML; empty: no reply comes.
  using Responder = std::function<std::string(const wb_dom_node *iq)>;

  ClientFake();
  ~ClientFake();
  ClientFake(const ClientFake &) = delete;
  ClientFake &operator=(const ClientFake &) = delete;

  void respond(Responder responder);

  std::vector<std::string> asked() const;  // IQs that were tracked, as XML
  std::vector<std::string> sent() const;   // other stanzas
  void clear();

  // What the replaced functions do.
  void track(wb_dom_node *iq, wb_client_iq_callback callback, void *arg);
  void send(wb_dom_node *stanza);

 private:
  mutable std::mutex mutex_;
  Responder responder_;
  std::vector<std::string> asked_, sent_;
};

// A grid reply with that payload, as an IQ.
inline std::string grid_reply(const std::string &payload) {
  return "<iq xmlns='jabber:client' type='result'><grid xmlns='quillon' type='response'>" + payload + "</grid></iq>";
}

}  // namespace test_support

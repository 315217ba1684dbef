// The clients' requests and their answers.
//
// A request is an IQ of type get whose grid child holds the payload; the answer is a result whose payload bears the request's
// name with "Response" for "Request". A refusal is such an answer too: its payload holds <error><description/><code/></error>,
// and a description that begins with "not authorized" is one of rights. What is no request of the grid is answered with an XMPP
// error. Who asks is told by the address that the server put on the stanza, and by nothing in it.
#pragma once

#include <functional>
#include <map>
#include <string>

#include "accounts.h"
#include "directory.h"
#include "registry.h"
#include "session.h"

namespace controller {

class Requests {
 public:
  Requests(const Options &options, Session &session, Accounts &accounts, Registry &registry, Directory &directory);

  void receive_presence(const wb_dom_node *presence);
  void receive_iq(const wb_dom_node *iq);

 private:
  struct Request {
    std::string jid, user, id;
    std::string response_ns, response_name;
    const wb_dom_node *payload;  // until the handler returns
  };
  using Handler = void (Requests::*)(const Request &);

  void answer(const Request &request, const std::function<void(Element)> &fill);
  void refuse(const Request &request, const Refusal &refusal);
  void answer_with_error(const wb_dom_node *iq, const char *type, const char *condition);
  // True, and the request refused, when the user may not.
  bool is_refused(const Request &request, const std::string &capability, const char *operation);
  bool read_announcement(const Request &request, const char *operation, Announcement &announcement);

  void connect(const Request &request);
  void subscribe(const Request &request);
  void publish(const Request &request);
  void list_publishers(const Request &request);
  void list_capabilities(const Request &request);
  void tell_status(const Request &request);
  void propose(const Request &request);
  void update(const Request &request);
  void tell_authorization(const Request &request);
  void issue_token(const Request &request);

  const Options &options_;
  Session &session_;
  Accounts &accounts_;
  Registry &registry_;
  Directory &directory_;
  const std::map<std::string, Handler> handlers_;
};

}  // namespace controller

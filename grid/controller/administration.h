// The administrator's commands, over a Unix socket that only the owner of the folder may use.
//
// A command is a line of fields between tabs. The answer is a line for each row, its fields between tabs too, and at the end
// "ok", or "error" with the reason; the connection then ends.
#pragma once

#include <event2/event.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "contained.h"

struct evconnlistener;
extern "C" void evconnlistener_free(evconnlistener *);

namespace controller {

class AdministrationSocket {
 public:
  using Fields = std::vector<std::string>;
  struct Answer {
    std::string error;  // empty when the command succeeded
    std::vector<Fields> rows;
  };
  using Reply = std::function<void(const Answer &)>;
  // Called with a command; calls the reply once, at once or later.
  using Handler = std::function<void(const Fields &, const Reply &)>;

  // Listens at the path; what an earlier run left there is removed. Throws std::runtime_error.
  AdministrationSocket(event_base *base, const std::string &path, Handler handler);
  ~AdministrationSocket();
  AdministrationSocket(const AdministrationSocket &) = delete;
  AdministrationSocket &operator=(const AdministrationSocket &) = delete;

 private:
  class Connection;
  static void on_connection(evconnlistener *listener, evutil_socket_t socket, struct sockaddr *, int, void *self);

  const std::string path_;
  const Handler handler_;
  std::map<const Connection *, std::shared_ptr<Connection>> connections_;
  Owner<evconnlistener, evconnlistener_free> listener_;
};

}  // namespace controller

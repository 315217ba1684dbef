// The HTTPS side of the bulk service: who may ask, and answers that are written as fast as they are read.
#pragma once

#include <event2/event.h>
#include <event2/http.h>
#include <openssl/ssl.h>

#include <memory>
#include <string>

namespace bulk {

struct Options {
  unsigned port = 0;
  std::string domain, ca, certificate, key;  // PEM files but the domain
};

template <auto end>
struct Ended {
  template <typename Object>
  void operator()(Object *object) const {
    end(object);
  }
};
template <typename Object, auto end>
using Owner = std::unique_ptr<Object, Ended<end>>;

// A client must have a certificate of the grid's authority, and call itself by the address in it.
class Service {
 public:
  // Listens on 127.0.0.1. Throws std::runtime_error when that, or a certificate, fails.
  Service(event_base *base, const Options &options);

 private:
  static bufferevent *make_connection(event_base *base, void *service);
  static void on_request(evhttp_request *request, void *service);
  void answer(evhttp_request *request) const;

  event_base *const base_;
  const std::string domain_;
  Owner<SSL_CTX, SSL_CTX_free> tls_;
  Owner<evhttp, evhttp_free> http_;
};

}  // namespace bulk

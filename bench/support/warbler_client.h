// A client of the XMPP layer alone, as a program that needs no grid would use it: its loop runs on the caller's thread.
#pragma once

#include <event2/event.h>
#include <quillon.h>

#include <memory>

#include "raw_client.h"

namespace bench {

class WarblerClient {
 public:
  // What the loop calls back; on the loop's thread.
  struct Events {
    virtual ~Events() = default;
    virtual void on_up() {}
    virtual void on_down() { fail_down(); }

   private:
    static void fail_down();
  };

  // Ends the program with a message when something cannot be made.
  WarblerClient(const Target &target, Events &events);
  ~WarblerClient();
  WarblerClient(const WarblerClient &) = delete;
  WarblerClient &operator=(const WarblerClient &) = delete;

  // Starts to connect; the outcome comes as an event.
  void connect();
  // On the loop; ends with on_down.
  void disconnect() { wb_client_disconnect(client_, WB_ERR_NONE); }
  // Runs the loop until stop.
  void run() { event_base_dispatch(base_); }
  void stop() { event_base_loopbreak(base_); }
  wb_client *client() { return client_; }

 private:
  void put(const char *key, const void *value);

  Events &events_;
  const std::string host_, domain_, jid_, user_;
  quillon_config *config_ = nullptr;
  event_base *base_ = nullptr;
  wb_htable *table_ = nullptr;
  wb_workq *queue_ = nullptr;
  wb_sasl_factory *factory_ = nullptr;
  wb_client *client_ = nullptr;
  wb_tls_connect_func fill_tls_ = nullptr;
};

// The request that all contenders ask with, in a context of its own: an IQ to the echo server's address.
class RequestMaker {
 public:
  RequestMaker(std::string to, size_t payload_bytes);
  ~RequestMaker();
  RequestMaker(const RequestMaker &) = delete;
  RequestMaker &operator=(const RequestMaker &) = delete;
  // The content alone, and the whole IQ.
  wb_dom_node *make_payload() const;
  wb_dom_node *make_iq() const;

 private:
  wb_dom_node *make_payload(wb_dom_ctx *context) const;
  const std::string to_;
  wb_dom_node *large_ = nullptr;  // a payload of a size of its own, which is copied
};

}  // namespace bench

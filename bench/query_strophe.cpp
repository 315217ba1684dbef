// The work of query_async done with libstrophe: the same options and figures.
#include <algorithm>

#include "support/measure.h"
#include "support/stanzas.h"
#include "support/strophe_client.h"

namespace {

class Asker {
 public:
  Asker(const bench::Arguments &arguments, const bench::Target &target)
      : client_(target),
        to_(target.peer_jid()),
        payload_bytes_(static_cast<size_t>(arguments.number("payload", 0))),
        requests_(arguments.number("requests", 20000)),
        in_flight_(std::min(requests_, arguments.number("in-flight", 1))),
        trips_(requests_, in_flight_) {
    if (payload_bytes_ > 0) {
      large_ = xmpp_stanza_new_from_string(client_.context(), bench::make_request_payload(payload_bytes_).c_str());
    }
  }
  ~Asker() {
    if (large_ != nullptr) xmpp_stanza_release(large_);
  }
  Asker(const Asker &) = delete;
  Asker &operator=(const Asker &) = delete;

  void run() {
    client_.run([this] {
      span_ = bench::Span();
      while (sent_ < in_flight_) ask();
    });
    bench::print_requests(span_, requests_, trips_.microseconds());
  }

 private:
  xmpp_stanza_t *add(xmpp_stanza_t *parent, const char *name, const char *uri, const char *text = nullptr) {
    xmpp_stanza_t *const element = xmpp_stanza_new(client_.context());
    xmpp_stanza_set_name(element, name);
    if (uri != nullptr) xmpp_stanza_set_ns(element, uri);
    if (text != nullptr) {
      xmpp_stanza_t *const node = xmpp_stanza_new(client_.context());
      xmpp_stanza_set_text(node, text);
      xmpp_stanza_add_child_ex(element, node, 0);
    }
    xmpp_stanza_add_child_ex(parent, element, 0);
    return element;
  }

  xmpp_stanza_t *make_iq(const std::string &id) {
    xmpp_stanza_t *const iq = xmpp_iq_new(client_.context(), "get", id.c_str());
    xmpp_stanza_set_to(iq, to_.c_str());
    xmpp_stanza_t *const grid = add(iq, "grid", "quillon");
    xmpp_stanza_set_type(grid, "request");
    if (large_ != nullptr) {
      xmpp_stanza_add_child_ex(grid, xmpp_stanza_copy(large_), 0);
      return iq;
    }
    xmpp_stanza_t *const payload = add(grid, "readValues", "urn:example:sensor");
    add(payload, "name", nullptr, "boiler-3");
    add(payload, "count", nullptr, "25");
    add(payload, "unit", nullptr, "celsius");
    return iq;
  }

  void ask() {
    ++sent_;
    trips_.begin();
    char id[40];
    std::snprintf(id, sizeof id, "7f3a91c2b04d4e5f8a6b%012lx", sent_);
    const auto on_answer = [](xmpp_conn_t *, xmpp_stanza_t *, void *self) {
      static_cast<Asker *>(self)->go_on();
      return 0;
    };
    xmpp_id_handler_add(client_.connection(), on_answer, id, this);
    xmpp_stanza_t *const iq = make_iq(id);
    xmpp_send(client_.connection(), iq);
    xmpp_stanza_release(iq);
  }

  void go_on() {
    ++answered_;
    trips_.end();
    if (sent_ < requests_) return ask();
    if (answered_ == requests_) client_.stop();
  }

  bench::StropheClient client_;
  const std::string to_;
  const size_t payload_bytes_;
  const long requests_, in_flight_;
  xmpp_stanza_t *large_ = nullptr;
  long sent_ = 0, answered_ = 0;
  bench::RoundTrips trips_;
  bench::Span span_;
};

}  // namespace

int main(int argc, char **argv) {
  const bench::Arguments arguments(argc, argv);
  const bench::Target target(arguments);
  Asker(arguments, target).run();
}

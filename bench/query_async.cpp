// Tracks IQs with the XMPP layer; each answer comes on the loop's thread, which then asks again:
//
//   query_async --port PORT --ca FILE --certificate FILE --key FILE [--in-flight COUNT] [--payload BYTES] [--requests COUNT]
//
// With one in flight it prints percentiles of the round trips too.
#include <algorithm>

#include "support/measure.h"
#include "support/warbler_client.h"

namespace {

constexpr unsigned kTimeoutSeconds = 60;

class Asker : public bench::WarblerClient::Events {
 public:
  Asker(const bench::Arguments &arguments, const bench::Target &target)
      : client_(target, *this),
        maker_(target.peer_jid(), static_cast<size_t>(arguments.number("payload", 0))),
        requests_(arguments.number("requests", 20000)),
        in_flight_(std::min(requests_, arguments.number("in-flight", 1))),
        trips_(requests_, in_flight_) {
    client_.connect();
  }

  void run() {
    client_.run();
    if (answered_ != requests_) bench::fail("an answer is missing");
  }

  void on_up() override {
    span_ = bench::Span();
    while (sent_ < in_flight_) ask();
  }

 private:
  void ask() {
    ++sent_;
    trips_.begin();
    if (!wb_client_track_iq(client_.client(), maker_.make_iq(), on_answer, this, kTimeoutSeconds, nullptr))
      bench::fail("the IQ was refused");
  }

  static void on_answer(wb_dom_node *answer, void *arg) {
    if (answer == nullptr) bench::fail("no answer came in time");
    static_cast<Asker *>(arg)->go_on();
  }

  void go_on() {
    ++answered_;
    trips_.end();
    if (sent_ < requests_) return ask();
    if (answered_ < requests_) return;
    bench::print_requests(span_, requests_, trips_.microseconds());
    client_.stop();
  }

  bench::WarblerClient client_;
  const bench::RequestMaker maker_;
  const long requests_, in_flight_;
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

// Asks a publisher of a capability without waiting; each answer comes on the connection's completion thread, which then asks
// again:
//
//   query_pending --port PORT --ca FILE --certificate FILE --key FILE [--in-flight COUNT] [--requests COUNT]
//
// With one in flight it prints percentiles of the round trips too.
#include <algorithm>
#include <future>

#include "support/grid_client.h"
#include "support/measure.h"
#include "support/warbler_client.h"

namespace {

constexpr uint32_t kTimeoutMilliseconds = 60000;

class Asker {
 public:
  Asker(const bench::Arguments &arguments, const bench::Target &target)
      : client_(target),
        maker_(target.peer_jid(), 0),
        requests_(arguments.number("requests", 20000)),
        in_flight_(std::min(requests_, arguments.number("in-flight", 1))),
        trips_(requests_, in_flight_) {
    client_.connect();
    client_.subscribe();
    client_.ask(maker_.make_payload());
  }

  void run() {
    span_ = bench::Span();
    for (long i = 0; i < in_flight_; ++i) ask();
    done_.get_future().wait();
    client_.disconnect();
  }

 private:
  void ask() {
    trips_.begin();
    if (quillon_connection_query_async(client_.connection(), client_.capability(), maker_.make_payload(), kTimeoutMilliseconds,
                                       on_done, this, nullptr) != QUILLON_STATUS_OK) {
      bench::fail("the query was refused");
    }
  }

  static void on_done(const quillon_query_result *result, void *self) {
    if (result->outcome != QUILLON_QUERY_OUTCOME_ANSWERED) bench::fail("a query was not answered");
    static_cast<Asker *>(self)->go_on();
  }

  void go_on() {
    trips_.end();
    ++answered_;  // on this thread alone, while the first ones are still being begun on the other
    if (answered_ + in_flight_ <= requests_) return ask();
    if (answered_ < requests_) return;
    bench::print_requests(span_, requests_, trips_.microseconds());
    done_.set_value();
  }

  std::promise<void> done_;  // outlives the client, whose destruction waits for the callback that keeps it
  bench::GridClient client_;
  const bench::RequestMaker maker_;
  const long requests_, in_flight_;
  long answered_ = 0;
  bench::RoundTrips trips_;
  bench::Span span_;
};

}  // namespace

int main(int argc, char **argv) {
  const bench::Arguments arguments(argc, argv);
  const bench::Target target(arguments);
  Asker(arguments, target).run();
}

// What grows with the number of something, against the echo server:
//
//   growth --what WHAT --count COUNT --port PORT --ca FILE --certificate FILE --key FILE
//
// WHAT is "publishers" (the server was told as many: what subscribing costs, and a query afterwards), "connections" (that many in
// this process, all up at once: what connecting costs and what each holds), "reconnects" (one connection that goes down and up
// that often: what stays behind) or "losses" (one that loses its link that often, and which a reconnection brings up again).
#include <condition_variable>
#include <memory>
#include <mutex>

#include "support/grid_client.h"
#include "support/measure.h"
#include "support/warbler_client.h"

namespace {

void measure_publishers(const bench::Target &target, long count) {
  constexpr long kQueries = 1000;
  const bench::RequestMaker maker(target.peer_jid(), 0);
  bench::GridClient client(target);
  client.connect();
  const long before = bench::resident_kib();
  const bench::Span subscribing;
  client.subscribe();
  const double seconds = subscribing.seconds(), cpu = subscribing.cpu();
  quillon_array *const publishers = quillon_capability_copy_jids(client.capability());
  if (quillon_array_size(publishers) != count) bench::fail("publishers are missing");
  quillon_array_destroy(publishers);
  const long after = bench::resident_kib();
  const bench::Span asking;
  for (long i = 0; i < kQueries; ++i) client.ask(maker.make_payload());
  bench::Result()
      .add("seconds", seconds)
      .add("cpu_ms", cpu * 1e3)
      .add("grown_kib", static_cast<double>(after - before))
      .add("query_us", asking.seconds() / kQueries * 1e6)
      .add("query_cpu_us", asking.cpu() / kQueries * 1e6)
      .print();
  client.disconnect();
}

void measure_connections(const bench::Target &target, long count) {
  const long memory = bench::resident_kib(), threads = bench::count_threads(), descriptors = bench::count_descriptors();
  std::vector<std::unique_ptr<bench::GridClient>> clients;
  long of_first = 0;
  const bench::Span span;
  for (long i = 0; i < count; ++i) {
    clients.push_back(std::make_unique<bench::GridClient>(target));
    clients.back()->connect();
    if (i == 0) of_first = bench::resident_kib() - memory;
  }
  const double seconds = span.seconds(), cpu = span.cpu();
  const long of_all = bench::resident_kib() - memory;
  bench::Result result;
  // The first one also pays for what is used for the first time.
  if (count > 1) result.add("memory_each_kib", static_cast<double>(of_all - of_first) / static_cast<double>(count - 1));
  result.add("seconds", seconds)
      .add("cpu_ms", cpu * 1e3)
      .add("memory_kib", static_cast<double>(of_all))
      .add("threads", static_cast<double>(bench::count_threads() - threads))
      .add("descriptors", static_cast<double>(bench::count_descriptors() - descriptors))
      .print();
  for (const auto &client : clients) client->disconnect();
}

// What the process holds, for what stays behind to be told.
class Held {
 public:
  void print_rest(const bench::Span &span) const {
    const double seconds = span.seconds(), cpu = span.cpu();
    bench::Result()
        .add("seconds", seconds)
        .add("cpu_ms", cpu * 1e3)
        .add("memory_kib", static_cast<double>(bench::resident_kib() - memory_))
        .add("threads", static_cast<double>(bench::count_threads() - threads_))
        .add("descriptors", static_cast<double>(bench::count_descriptors() - descriptors_))
        .print();
  }

 private:
  const long memory_ = bench::resident_kib(), threads_ = bench::count_threads(), descriptors_ = bench::count_descriptors();
};

void measure_reconnects(const bench::Target &target, long count) {
  bench::GridClient client(target);
  client.connect();
  client.subscribe();
  const Held before;
  const bench::Span span;
  for (long i = 0; i < count; ++i) {
    client.disconnect();
    client.connect();
  }
  before.print_rest(span);
  client.disconnect();
}

class Ups {
 public:
  static void on_report(const quillon_reconnection_report *report, void *self) {
    if (report->state == QUILLON_RECONNECTION_STATE_UP) static_cast<Ups *>(self)->add();
  }

  // Until the connection has come up so often.
  void wait_for(long count) {
    std::unique_lock lock(mutex_);
    more_.wait(lock, [&] { return count_ >= count; });
  }

 private:
  void add() {
    const std::lock_guard lock(mutex_);
    ++count_;
    more_.notify_one();
  }

  std::mutex mutex_;
  std::condition_variable more_;
  long count_ = 0;
};

void lose_link(bench::GridClient &client) {
  wb_dom_node *order = nullptr, *response = nullptr;
  constexpr std::string_view kOrder = "<hangup xmlns='urn:example:sensor'/>";
  if (!wb_dom_parse(kOrder.data(), kOrder.size(), &order, nullptr)) bench::fail("wb_dom_parse failed");
  if (quillon_connection_query(client.connection(), client.capability(), order, &response) == QUILLON_STATUS_OK)
    bench::fail("the link was not lost");
}

void measure_losses(const bench::Target &target, long count) {
  const bench::RequestMaker maker(target.peer_jid(), 0);
  bench::GridClient client(target);
  Ups ups;
  quillon_reconnection *reconnection = nullptr;
  if (quillon_reconnection_create(&reconnection, client.connection()) != QUILLON_STATUS_OK ||
      quillon_reconnection_set_delays(reconnection, 1, 100, 1) != QUILLON_STATUS_OK ||
      quillon_reconnection_set_report_cb(reconnection, Ups::on_report, &ups) != QUILLON_STATUS_OK ||
      quillon_reconnection_start(reconnection) != QUILLON_STATUS_OK) {
    bench::fail("the reconnection cannot be started");
  }
  ups.wait_for(1);
  client.subscribe();
  client.ask(maker.make_payload());
  const Held before;
  const bench::Span span;
  for (long lost = 1; lost <= count; ++lost) {
    lose_link(client);
    ups.wait_for(lost + 1);
    client.ask(maker.make_payload());
  }
  before.print_rest(span);
  quillon_reconnection_destroy(reconnection);
}

}  // namespace

int main(int argc, char **argv) {
  const bench::Arguments arguments(argc, argv);
  const bench::Target target(arguments);
  const std::string what = arguments.required("what");
  const long count = arguments.number("count", 1);
  if (what == "publishers") {
    measure_publishers(target, count);
  } else if (what == "connections") {
    measure_connections(target, count);
  } else if (what == "reconnects") {
    measure_reconnects(target, count);
  } else if (what == "losses") {
    measure_losses(target, count);
  } else {
    bench::fail("nothing is called " + what);
  }
}

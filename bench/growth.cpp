// What grows with the number of something, against the echo server:
//
//   growth --what WHAT --count COUNT --port PORT --ca FILE --certificate FILE --key FILE
//
// WHAT is "publishers" (the server was told as many: what subscribing costs, and a query afterwards), "connections" (that many in
// this process, all up at once: what connecting costs and what each holds) or "reconnects" (one connection that goes down and up
// that often: what stays behind).
#include <memory>

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

void measure_reconnects(const bench::Target &target, long count) {
  bench::GridClient client(target);
  client.connect();
  client.subscribe();
  const long memory = bench::resident_kib(), threads = bench::count_threads(), descriptors = bench::count_descriptors();
  const bench::Span span;
  for (long i = 0; i < count; ++i) {
    client.disconnect();
    client.connect();
  }
  bench::Result()
      .add("seconds", span.seconds())
      .add("cpu_ms", span.cpu() * 1e3)
      .add("memory_kib", static_cast<double>(bench::resident_kib() - memory))
      .add("threads", static_cast<double>(bench::count_threads() - threads))
      .add("descriptors", static_cast<double>(bench::count_descriptors() - descriptors))
      .print();
  client.disconnect();
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
  } else {
    bench::fail("nothing is called " + what);
  }
}

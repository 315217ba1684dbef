// Asks a publisher of a capability and waits for the answer, from one thread or from several through one connection:
//
//   query_sync --port PORT --ca FILE --certificate FILE --key FILE [--threads COUNT] [--payload BYTES] [--requests COUNT]
//
// It prints percentiles of the calls' times too.
#include <mutex>
#include <thread>

#include "support/grid_client.h"
#include "support/measure.h"
#include "support/warbler_client.h"

int main(int argc, char **argv) {
  const bench::Arguments arguments(argc, argv);
  const bench::Target target(arguments);
  const bench::RequestMaker maker(target.peer_jid(), static_cast<size_t>(arguments.number("payload", 0)));
  const long thread_count = arguments.number("threads", 1);
  const long requests_each = arguments.number("requests", 20000) / thread_count;
  bench::GridClient client(target);
  client.connect();
  client.subscribe();
  client.ask(maker.make_payload());

  std::mutex mutex;
  std::vector<double> times;
  const auto ask_all = [&] {
    std::vector<double> mine;
    mine.reserve(static_cast<size_t>(requests_each));
    for (long i = 0; i < requests_each; ++i) {
      const auto begun = bench::Clock::now();
      client.ask(maker.make_payload());
      mine.push_back(bench::seconds_since(begun) * 1e6);
    }
    const std::lock_guard lock(mutex);
    times.insert(times.end(), mine.begin(), mine.end());
  };
  const bench::Span span;
  std::vector<std::thread> threads;
  for (long i = 0; i < thread_count; ++i) threads.emplace_back(ask_all);
  for (std::thread &thread : threads) thread.join();
  bench::print_requests(span, requests_each * thread_count, times);
  client.disconnect();
}

// Receives notifications as fast as the echo server can send them, with a handler that counts them:
//
//   notifications --port PORT --ca FILE --certificate FILE --key FILE [--notifications COUNT] [--batches COUNT]
//
// They come in batches of COUNT, one after the other. It prints how many were dispatched a second, how far the resident set grew
// after the first batch until the end, and how far it grew at its peak over what it was before all of them.
#include <condition_variable>
#include <mutex>

#include "support/grid_client.h"
#include "support/measure.h"

namespace {

class Counter {
 public:
  static void on_notification(wb_dom_node *notification, void *arg) {
    if (wb_dom_get_first_child(notification) == nullptr) bench::fail("a notification is empty");
    static_cast<Counter *>(arg)->add();
  }

  void wait_for(long count) {
    std::unique_lock lock(mutex_);
    awaited_ = count;
    reached_.wait(lock, [&] { return count_ >= awaited_; });
  }

 private:
  void add() {
    const std::lock_guard lock(mutex_);
    if (++count_ == awaited_) reached_.notify_one();
  }

  std::mutex mutex_;
  std::condition_variable reached_;
  long count_ = 0, awaited_ = 0;
};

wb_dom_node *make_order(long count) {
  const std::string xml = "<push xmlns='urn:example:sensor' count='" + std::to_string(count) + "'/>";
  wb_dom_node *order = nullptr;
  if (!wb_dom_parse(xml.data(), xml.size(), &order, nullptr)) bench::fail("wb_dom_parse failed");
  return order;
}

}  // namespace

int main(int argc, char **argv) {
  const bench::Arguments arguments(argc, argv);
  const bench::Target target(arguments);
  const long in_batch = arguments.number("notifications", 100000), batches = arguments.number("batches", 5);
  bench::GridClient client(target);
  Counter counter;
  if (quillon_connection_register_notification_handler(client.connection(), "urn:example:sensor", "valueChanged",
                                                       Counter::on_notification, &counter) != QUILLON_STATUS_OK) {
    bench::fail("the handler was refused");
  }
  client.connect();
  client.subscribe();
  const long before = bench::resident_kib();
  long after_first = 0;
  const bench::Span span;
  for (long batch = 1; batch <= batches; ++batch) {
    client.ask(make_order(in_batch));
    counter.wait_for(batch * in_batch);
    if (batch == 1) after_first = bench::resident_kib();
  }
  const double count = static_cast<double>(in_batch * batches);
  bench::Result()
      .add("notifications", count)
      .add("per_second", count / span.seconds())
      .add("cpu_us", span.cpu() / count * 1e6)
      .add("grown_kib", static_cast<double>(bench::resident_kib() - after_first))
      .add("peak_kib", static_cast<double>(bench::peak_resident_kib() - before))
      .print();
  client.disconnect();
}

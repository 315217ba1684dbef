// Comes to a bound session and leaves it, again and again, against any server:
//
//   connect --who WHO --port PORT --ca FILE --certificate FILE --key FILE [--domain NAME] [--user NAME] [--count COUNT]
//
// WHO is "raw" (prebuilt bytes: the limit), "warbler" (the XMPP layer), "libstrophe", "gloox", or "libqlk" (which goes on until
// the controller has approved). It prints percentiles of the times from the call to the session. With a COUNT of 0 it connects
// once and ends without another byte, for whoever counts the round trips.
#include <unistd.h>

#include <functional>

#include "support/gloox_client.h"
#include "support/grid_client.h"
#include "support/measure.h"
#include "support/strophe_client.h"
#include "support/warbler_client.h"

namespace {

// Called when the session is there; the caller then leaves it.
using Bound = std::function<void()>;
// Connects once more.
using Connect = std::function<void(const Bound &)>;

void connect_raw(bench::RawClient &client, const Bound &bound) {
  client.connect();
  bound();
  client.send("</stream:stream>");
  client.disconnect();
}

class Warbler : public bench::WarblerClient::Events {
 public:
  explicit Warbler(const bench::Target &target) : client_(target, *this) {}

  void connect(const Bound &bound) {
    bound_ = &bound;
    client_.connect();
    client_.run();
    if (bound_ != nullptr) bench::fail("there was no session");
  }

  void on_up() override {
    (*bound_)();
    bound_ = nullptr;
    client_.disconnect();
  }
  void on_down() override { client_.stop(); }

 private:
  bench::WarblerClient client_;
  const Bound *bound_ = nullptr;
};

void connect_libqlk(bench::GridClient &client, const Bound &bound) {
  client.connect();
  bound();
  client.disconnect();
}

template <typename Client>
void connect_peer(const bench::Target &target, const Bound &bound) {
  Client client(target);
  client.run([&] {
    bound();
    client.stop();
  });
}

void connect_all(const std::string &who, const bench::Target &target, const std::function<void(const Connect &)> &repeat) {
  if (who == "raw") {
    bench::RawClient client(target);
    repeat([&](const Bound &bound) { connect_raw(client, bound); });
  } else if (who == "warbler") {
    Warbler client(target);
    repeat([&](const Bound &bound) { client.connect(bound); });
  } else if (who == "libqlk") {
    bench::GridClient client(target);
    repeat([&](const Bound &bound) { connect_libqlk(client, bound); });
  } else if (who == "libstrophe") {
    repeat([&](const Bound &bound) { connect_peer<bench::StropheClient>(target, bound); });
  } else if (who == "gloox") {
    repeat([&](const Bound &bound) { connect_peer<bench::GlooxClient>(target, bound); });
  } else {
    bench::fail("nobody is called " + who);
  }
}

}  // namespace

int main(int argc, char **argv) {
  const bench::Arguments arguments(argc, argv);
  const bench::Target target(arguments);
  const long count = arguments.number("count", 20);
  std::vector<double> times;
  connect_all(arguments.required("who"), target, [&](const Connect &connect) {
    if (count == 0) connect([] { _exit(0); });
    for (long i = 0; i < count; ++i) {
      const auto begun = bench::Clock::now();
      connect([&] { times.push_back(bench::seconds_since(begun) * 1e3); });
    }
  });
  bench::Result()
      .add("connects", static_cast<double>(count))
      .add("p50_ms", bench::percentile(times, 0.5))
      .add("highest_ms", bench::percentile(times, 1))
      .print();
}

// Comes to a bound session and leaves it, again and again, against any server:
//
//   connect --who WHO --port PORT --ca FILE --certificate FILE --key FILE [--domain NAME] [--user NAME] [--count COUNT]
//
// WHO is "raw" (prebuilt bytes: the limit), "warbler" (the XMPP layer), "libstrophe", "gloox", or "libqlk" (which goes on until
// the controller has approved). It prints percentiles of the times from the call to the session; a session is left in order, and
// the next client made, before the clock starts again. With a COUNT of 0 it connects once and ends without another byte, for
// whoever counts the round trips.
#include <unistd.h>

#include <functional>
#include <memory>

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
  client.leave();
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

// A peer's client serves for one session. The next is made when the one before has ended, so that no connect has to wait for it.
template <typename Client>
class Peer {
 public:
  explicit Peer(const bench::Target &target) : target_(target), client_(std::make_unique<Client>(target)) {}

  void connect(const Bound &bound) {
    client_->run([&] {
      bound();
      client_->leave();
    });
    client_.reset();
    client_ = std::make_unique<Client>(target_);
  }

 private:
  const bench::Target &target_;
  std::unique_ptr<Client> client_;
};

using Repeat = std::function<void(const Connect &)>;

// For a client whose connect leaves again.
template <typename Client>
void repeat_with(const bench::Target &target, const Repeat &repeat) {
  Client client(target);
  repeat([&](const Bound &bound) { client.connect(bound); });
}

void connect_all(const std::string &who, const bench::Target &target, const Repeat &repeat) {
  if (who == "raw") {
    bench::RawClient client(target);
    repeat([&](const Bound &bound) { connect_raw(client, bound); });
  } else if (who == "warbler") {
    repeat_with<Warbler>(target, repeat);
  } else if (who == "libqlk") {
    bench::GridClient client(target);
    repeat([&](const Bound &bound) { connect_libqlk(client, bound); });
  } else if (who == "libstrophe") {
    repeat_with<Peer<bench::StropheClient>>(target, repeat);
  } else if (who == "gloox") {
    repeat_with<Peer<bench::GlooxClient>>(target, repeat);
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

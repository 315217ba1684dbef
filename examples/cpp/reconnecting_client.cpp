// Stays in the grid until Ctrl-C: looks every minute whether the session was lost, and connects again. What was subscribed or
// published is announced again each time.
//
//   reconnecting_client bob     and elsewhere: quillon-grid server-stop; quillon-grid server-start
#include "settings.hpp"

int main(int argc, char **argv) try {
  if (argc != 2) return examples::usage(argv, "USER");
  const auto config = examples::make_config(argv);
  auto connection = quillon::connection::create(config).value();

  connection.on_connect([] { std::cout << "connected" << std::endl; }).value();
  // On the event loop: nothing here may wait for the connection.
  const auto tell = [](QUILLON_STATUS why) { std::cout << "disconnected: " << quillon::text_of(why) << std::endl; };
  connection.on_disconnect(tell).value();
  const examples::ctrl_c ctrl_c;
  auto reconnection = quillon::reconnection::create(connection).value();  // after its connection, which has to outlive it
  reconnection.start().value();                                           // it connects from a thread of its own
  ctrl_c.wait();

  reconnection.stop().value();  // it disconnects, too
  return 0;
} catch (const std::exception &failure) {
  return examples::failed(failure);
}

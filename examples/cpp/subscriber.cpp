// Prints the readings that publishers send, until Ctrl-C:
//
//   subscriber bob
#include "settings.hpp"

int main(int argc, char **argv) try {
  if (argc != 2) return examples::usage(argv, "USER");
  const auto config = examples::make_config(argv);
  const auto weather = quillon::capability::create("urn:example:weather", "Weather").value();
  auto connection = quillon::connection::create(config).value();

  // On a thread of the library, one notification at a time.
  const auto print = [](quillon::xml::view reading) { std::cout << "reading: " << reading.text() << std::endl; };
  connection.on_notification("{urn:example:weather}reading", print).value();
  connection.connect().value();
  weather.subscribe(connection).value();
  const examples::ctrl_c ctrl_c;
  std::cout << "subscribed" << std::endl;
  ctrl_c.wait();

  connection.disconnect().value();
  return 0;
} catch (const std::exception &failure) {
  return examples::failed(failure);
}

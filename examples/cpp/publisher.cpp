// Publishes a reading every second, until Ctrl-C:
//
//   publisher alice
#include "settings.hpp"

int main(int argc, char **argv) try {
  if (argc != 2) return examples::usage(argv, "USER");
  const auto config = examples::make_config(argv);
  const auto weather = quillon::capability::create("urn:example:weather", "Weather").value();
  auto connection = quillon::connection::create(config).value();

  connection.connect().value();
  weather.publish(connection).value();
  const examples::ctrl_c ctrl_c;
  std::cout << "publishing" << std::endl;
  for (int count = 1; !ctrl_c.came_within(std::chrono::seconds(1)); ++count) {
    const std::string text = std::to_string(20 + count % 10) + " degrees";
    connection.notify(weather, quillon::xml::element("{urn:example:weather}reading", text)).value();
  }

  connection.disconnect().value();
  return 0;
} catch (const std::exception &failure) {
  return examples::failed(failure);
}

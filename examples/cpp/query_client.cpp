// Asks a publisher for the weather of a day, and prints its answer:
//
//   query_client bob Monday
#include "settings.hpp"

int main(int argc, char **argv) try {
  if (argc != 3) return examples::usage(argv, "USER DAY");
  const auto config = examples::make_config(argv);
  const auto weather = quillon::capability::create("urn:example:weather", "Weather").value();
  auto connection = quillon::connection::create(config).value();

  connection.connect().value();
  weather.subscribe(connection).value();  // learns who publishes it
  const auto forecast = connection.query(weather, quillon::xml::element("{urn:example:weather}day", argv[2])).value();
  std::cout << forecast.text() << '\n';

  connection.disconnect().value();
  return 0;
} catch (const std::exception &failure) {
  return examples::failed(failure);
}

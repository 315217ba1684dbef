// Answers queries for the weather of a day, until Ctrl-C:
//
//   query_server alice
#include "settings.hpp"

int main(int argc, char **argv) try {
  if (argc != 2) return examples::usage(argv, "USER");
  const auto config = examples::make_config(argv);
  const auto weather = quillon::capability::create("urn:example:weather", "Weather").value();
  auto connection = quillon::connection::create(config).value();

  // <day>Monday</day> is answered with <forecast>sunny on Monday</forecast>. On a thread of the library, one query at a time.
  const auto answer = [](quillon::xml::view day) {
    return quillon::xml::element("{urn:example:weather}forecast", "sunny on " + std::string(day.text()));
  };
  connection.on_query("{urn:example:weather}day", answer).value();
  connection.connect().value();
  weather.publish(connection).value();
  const examples::ctrl_c ctrl_c;
  std::cout << "ready" << std::endl;
  ctrl_c.wait();

  connection.disconnect().value();
  return 0;
} catch (const std::exception &failure) {
  return examples::failed(failure);
}

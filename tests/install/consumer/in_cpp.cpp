// Uses the layer for C++ without a network: a configuration, XML that is built and read, a call that fails.
#include <cstdlib>
#include <iostream>
#include <quillon.hpp>
#include <string>

int main() try {
  quillon_log_set_level(QUILLON_LOG_NONE);
  const auto config = quillon::config::create({.user = "alice"}).value();
  const auto greeting = quillon::xml::element("{urn:example}greeting").child("to", "bob");
  const auto read = quillon::xml::element::parse(greeting.to_string().value()).value();
  if (read.find("to").text() != "bob") throw std::runtime_error("read otherwise: " + read.to_string().value());
  auto connection = quillon::connection::create(config).value();
  const auto outcome = connection.connect();  // there is no host
  if (outcome.status() != QUILLON_STATUS_INVALID_ARGS) throw std::runtime_error("connected: " + std::string(outcome.text()));
  return EXIT_SUCCESS;
} catch (const std::exception &failure) {
  std::cerr << "consumer: " << failure.what() << '\n';
  return EXIT_FAILURE;
}

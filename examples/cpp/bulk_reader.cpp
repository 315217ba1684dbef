// Downloads so many readings from the bulk service, and counts them:
//
//   bulk_reader bob 100000
#include "settings.hpp"

int main(int argc, char **argv) try {
  if (argc != 3) return examples::usage(argv, "USER RECORDS");
  const auto config = examples::make_config(argv);
  auto download = quillon::bulk_download::create(config).value();
  download.set_url(examples::grid_variable("QUILLON_GRID_BULK_URL")).value();
  // As the local grid's service has it.
  const auto request = quillon::xml::element("{http://quillon.internal/quillon}bulkRequest")
                           .attribute("resultSet", "readings")
                           .attribute("records", argv[2]);
  download.set_request(request).value();

  download.open().value();
  long count = 0;
  for ([[maybe_unused]] const auto &reading : download) ++count;
  std::cout << count << " readings\n";
  if (download.outcome().status() == QUILLON_STATUS_REST_ERROR) std::cerr << download.error_details().value() << '\n';
  download.outcome().value();

  download.close().value();
  return 0;
} catch (const std::exception &failure) {
  return examples::failed(failure);
}

#include "grid_download.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>

namespace grid_test {

using test_support::Node;

Download::Download(test_support::LocalGrid &grid, const std::string &user, const std::string &certified_user) {
  const test_support::LocalGrid::Credentials credentials = grid.enroll(certified_user);
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_config_create(&config_));
  quillon_log_set_level(QUILLON_LOG_NONE);
  quillon_config_set_user_name(config_, user.c_str());
  quillon_config_set_bulk_server_cert_chain_filename(config_, grid.ca_path().c_str());
  quillon_config_set_client_cert_chain_filename(config_, credentials.certificate.c_str());
  quillon_config_set_client_cert_key_filename(config_, credentials.key.c_str());
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_bulkdownload_create(&bulk, config_));
  std::istringstream environment(grid.run({"env"}));
  const std::string name = "QUILLON_GRID_BULK_URL=";
  for (std::string line; std::getline(environment, line);) {
    if (line.starts_with(name)) url_ = line.substr(name.size());
  }
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_bulkdownload_set_url(bulk, url_.c_str()));
}

Download::~Download() {
  quillon_bulkdownload_destroy(&bulk);
  quillon_config_destroy(config_);
}

void Download::open(const std::string &attributes) {
  const Node request = test_support::parse("<bulkRequest xmlns='http://quillon.internal/quillon' " + attributes + "/>");
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_bulkdownload_set_request(bulk, request.get()));
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_bulkdownload_open(bulk));
}

Node Download::next() {
  wb_dom_node *node = nullptr;
  status = quillon_bulkdownload_next(bulk, &node);
  return Node(node);
}

size_t Download::read_numbered(size_t first) {
  size_t items = 0;
  for (Node item = next(); item != nullptr; item = next(), ++items) {
    const char *const id = wb_dom_get_attribute(item.get(), "id");
    EXPECT_EQ(first + items, id != nullptr ? std::stoul(id) : SIZE_MAX);
  }
  return items;
}

}  // namespace grid_test

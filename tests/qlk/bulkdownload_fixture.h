// A bulk download of an HTTPS service inside the test's process.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <qlk/testpeer/https_peer.hpp>

#include "grid_objects.h"
#include "quillon_bulkdownload.h"
#include "quillon_log_capture.h"

namespace bulk_test {

using test_support::Node;
using test_support::QuillonLogCapture;
using testpeer::HttpFraming;
using testpeer::HttpsOptions;
using testpeer::HttpsPeer;
using Exchange = testpeer::HttpExchange;

constexpr char kDomain[] = QLK_GRID_DOMAIN;

struct ConfigDestroy {
  void operator()(quillon_config *config) const { quillon_config_destroy(config); }
};
using Config = std::unique_ptr<quillon_config, ConfigDestroy>;

struct BulkDestroy {
  void operator()(quillon_bulkdownload *bulkdownload) const { quillon_bulkdownload_destroy(&bulkdownload); }
};
using Bulk = std::unique_ptr<quillon_bulkdownload, BulkDestroy>;

// What one call of next returned; the item as XML, nothing when there was none.
struct Step {
  QUILLON_STATUS status;
  std::optional<std::string> item = std::nullopt;
  bool operator==(const Step &) const = default;
};
using Steps = std::vector<Step>;

inline void PrintTo(const Step &step, std::ostream *out) { *out << step.status << " " << step.item.value_or("(no item)"); }

inline Step next(const Bulk &bulk) {
  wb_dom_node *node = nullptr;
  const QUILLON_STATUS status = quillon_bulkdownload_next(bulk.get(), &node);
  if (node == nullptr) return {status};
  const Node item(node);
  return {status, test_support::serialize(node)};
}

// Until the end of the data: OK without an item, or a failed transfer without one.
inline Steps read_all(const Bulk &bulk) {
  Steps steps;
  do {
    steps.push_back(next(bulk));
  } while (steps.back().item.has_value() || steps.back().status == QUILLON_STATUS_XML_ERROR);
  return steps;
}

inline std::string error_details(const Bulk &bulk) {
  char text[256];
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_bulkdownload_get_error_details(bulk.get(), text, sizeof text));
  return text;
}

// Certificates for all, and downloads that are ready to be opened.
class BulkTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { authority_ = std::make_unique<testpeer::CertificateAuthority>(); }
  static void TearDownTestSuite() { authority_.reset(); }

  HttpsOptions peer_options() {
    return {.certificate = authority_->server({.addresses = {"127.0.0.1"}}),
            .client_authority = authority_->certificate(),
            .needs_client_certificate = true};
  }

  std::unique_ptr<HttpsPeer> make_peer(std::function<void(Exchange &)> answer) {
    HttpsOptions options = peer_options();
    options.on_request = [answer = std::move(answer)](Exchange &exchange) {
      answer(exchange);
      return true;
    };
    return std::make_unique<HttpsPeer>(std::move(options));
  }

  // Serves the document, each piece in a TLS record of its own if it is no longer than one may be. chunk_size: at most so many
  // bytes in one.
  std::unique_ptr<HttpsPeer> make_peer(std::vector<std::string> pieces, size_t chunk_size = 0) {
    HttpsOptions options = peer_options();
    options.answer = {.pieces = std::move(pieces), .framing = HttpFraming::until_close};
    options.chunk_size = chunk_size;
    return std::make_unique<HttpsPeer>(std::move(options));
  }

  Config make_config() {
    quillon_config *config = nullptr;
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_config_create(&config));
    const testpeer::Credentials client = authority_->client("bob", kDomain);
    quillon_config_set_user_name(config, "Bob");
    quillon_config_set_bulk_server_cert_chain_filename(config, authority_->certificate().c_str());
    quillon_config_set_client_cert_chain_filename(config, client.certificate.c_str());
    quillon_config_set_client_cert_key_filename(config, client.key.c_str());
    return Config(config);
  }

  // With a request; without a URL when that is empty.
  Bulk make_bulk(const std::string &url) {
    quillon_bulkdownload *bulkdownload = nullptr;
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_bulkdownload_create(&bulkdownload, config_.get()));
    EXPECT_TRUE(url.empty() || quillon_bulkdownload_set_url(bulkdownload, url.c_str()) == QUILLON_STATUS_OK);
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_bulkdownload_set_request(bulkdownload, test_support::parse("<give/>").get()));
    return Bulk(bulkdownload);
  }

  Bulk open_bulk(const std::string &url) {
    Bulk bulk = make_bulk(url);
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_bulkdownload_open(bulk.get()));
    return bulk;
  }

  inline static std::unique_ptr<testpeer::CertificateAuthority> authority_;
  const Config config_ = make_config();
  const QuillonLogCapture log_{WB_LOG_INFO};
};

}  // namespace bulk_test

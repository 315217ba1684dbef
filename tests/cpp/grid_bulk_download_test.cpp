// Downloads of the C++ layer from the grid's own service.
#include <gtest/gtest.h>

#include <iterator>
#include <memory>
#include <optional>
#include <quillon.hpp>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>

#include "grid_member.h"

namespace {

using quillon::bulk_download;
using quillon::xml::element;
using test_support::config_of;
using test_support::LocalGrid;

static_assert(std::input_iterator<bulk_download::iterator>);
static_assert(std::sentinel_for<std::default_sentinel_t, bulk_download::iterator>);

std::string bulk_url(LocalGrid &grid) {
  std::istringstream environment(grid.run({"env"}));
  const std::string name = "QUILLON_GRID_BULK_URL=";
  for (std::string line; std::getline(environment, line);) {
    if (line.starts_with(name)) return line.substr(name.size());
  }
  throw std::runtime_error("the grid has no bulk service");
}

element request_for(const std::string &records) {
  return element("{http://quillon.internal/quillon}bulkRequest").attribute("records", records);
}

class CppGridBulk : public testing::Test {
 protected:
  size_t count_items() {
    size_t items = 0;
    for (const element &item : download_) {
      EXPECT_EQ(items, std::stoul(std::string(item.attribute("id").value_or("none"))));
      ++items;
    }
    return items;
  }

  LocalGrid grid_;
  bulk_download download_ = [this] {
    bulk_download made = bulk_download::create(config_of(grid_, "reader")).value();
    made.set_url(bulk_url(grid_)).value();
    return made;
  }();
};

TEST_F(CppGridBulk, ItemsAreARange) {
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, download_.open().status()) << "there is no request yet";
  EXPECT_EQ(QUILLON_STATUS_WB_ERROR, download_.set_request(element()).status());
  ASSERT_TRUE(download_.set_request(request_for("1000")));
  EXPECT_EQ(0U, count_items()) << "it is not open";
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, download_.outcome().status());
  ASSERT_TRUE(download_.open());
  EXPECT_EQ(1000U, count_items());
  EXPECT_TRUE(download_.outcome());
  EXPECT_TRUE(download_.next().ok());
  EXPECT_TRUE(download_.close());
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, download_.close().status());

  element kept;
  ASSERT_TRUE(download_.open());
  for (element &item : download_) {
    kept = std::move(item);
    break;
  }
  bulk_download moved = std::move(download_);
  EXPECT_EQ("000000000001", moved.next().value().attribute("id"));
  EXPECT_EQ("000000000000", kept.attribute("id"));
  EXPECT_EQ("{urn:quillon:results}reading", kept.name());
  EXPECT_EQ("boiler-3", kept.find("sensor").text());
  // NOLINTBEGIN(bugprone-use-after-move): that is what it is about
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, download_.next().status());
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, download_.open().status());
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, download_.outcome().status());
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, download_.error_details().status());
  // NOLINTEND(bugprone-use-after-move)
}

// Every item that was whole comes before the failure is told.
TEST_F(CppGridBulk, AFailureComesAfterTheItems) {
  for (const auto &[failure, status] :
       {std::pair("malformed", QUILLON_STATUS_XML_ERROR), std::pair("reset", QUILLON_STATUS_REST_ERROR)}) {
    SCOPED_TRACE(failure);
    element request = request_for("1000");
    request.attribute("delayMilliseconds", "20").attribute("failureAfter", "500").attribute("failure", failure);
    ASSERT_TRUE(download_.set_request(request));
    ASSERT_TRUE(download_.open());
    const size_t items = count_items();
    EXPECT_EQ(status, download_.outcome().status());
    EXPECT_EQ(status, download_.next().status()) << "it stays that way";
    if (status == QUILLON_STATUS_XML_ERROR) {
      EXPECT_EQ(500U, items);
    } else {
      EXPECT_GE(500U, items);
      EXPECT_FALSE(download_.error_details().value().empty());
    }
    ASSERT_TRUE(download_.close());
  }
  ASSERT_TRUE(download_.set_request(request_for("10")));
  ASSERT_TRUE(download_.open());
  EXPECT_TRUE(download_.outcome()) << "a new download has a new outcome";
  EXPECT_EQ(10U, count_items());
}

TEST_F(CppGridBulk, AFunctionMayFillTheTlsContext) {
  const quillon::config config = config_of(grid_, "reader");
  int calls = 0;
  const auto read = [&](std::function<void(void *)> fill) {
    EXPECT_TRUE(download_.on_tls_context([&, fill](void *ssl_ctx) {
      ++calls;
      fill(ssl_ctx);
    }));
    EXPECT_TRUE(download_.set_request(request_for("10")));
    EXPECT_TRUE(download_.open());
    const size_t items = count_items();
    EXPECT_TRUE(download_.close());
    return items;
  };
  EXPECT_EQ(10U, read([&](void *ssl_ctx) { config.fill_tls_context(ssl_ctx, true); }));
  EXPECT_EQ(10U, read([](void *) { throw std::runtime_error("no key in the safe"); })) << "the configuration has stepped in";
  EXPECT_EQ(0U, read([](void *) {})) << "without a certificate the service gives nothing";
  EXPECT_EQ(3, calls);
}

}  // namespace

// Bulk downloads from the grid's own service.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "footprint.h"
#include "grid_download.h"
#include "oom.h"
#include "wait_for.h"

namespace {

using grid_test::Download;
using test_support::footprint;
using test_support::Node;
using test_support::wait_for;
using Clock = std::chrono::steady_clock;

constexpr QUILLON_STATUS kOk = QUILLON_STATUS_OK;
constexpr char kReading[] = "{urn:quillon:results}reading";

class GridBulkTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { grid_ = std::make_unique<test_support::LocalGrid>(); }
  static void TearDownTestSuite() { grid_.reset(); }
  static std::unique_ptr<test_support::LocalGrid> grid_;
};
std::unique_ptr<test_support::LocalGrid> GridBulkTest::grid_;

TEST_F(GridBulkTest, Records) {
  Download download(*grid_, "reader", "reader");
  download.open("records='5000'");
  Node first = download.next();
  ASSERT_TRUE(first);
  EXPECT_STREQ(kReading, wb_dom_get_ename(first.get()));
  EXPECT_STREQ("000000000000", wb_dom_get_attribute(first.get(), "id"));
  EXPECT_STREQ("boiler-3", wb_dom_get_first_text(wb_dom_get_first_element(first.get(), "{urn:quillon:results}sensor")));
  EXPECT_EQ(4999u, download.read_numbered(1));
  EXPECT_EQ(kOk, download.status);
  EXPECT_EQ(kOk, quillon_bulkdownload_close(download.bulk));
  EXPECT_STREQ(kReading, wb_dom_get_ename(first.get()));
}

TEST_F(GridBulkTest, IndentedRecords) {
  Download download(*grid_, "reader", "reader");
  download.open("resultSet='reports' records='1000' recordSize='900'");
  const Node first = download.next();
  ASSERT_TRUE(first);
  const wb_dom_node *const title = wb_dom_get_first_child(first.get());
  EXPECT_STREQ("\n  Shift report", wb_dom_get_first_text(title));
  EXPECT_STREQ("\n  A. Miller", wb_dom_get_first_text(wb_dom_get_first_child(wb_dom_get_sibling(title))));
  EXPECT_STREQ("\n", wb_dom_get_first_text(first.get()));
  EXPECT_EQ(999u, download.read_numbered(1));
  EXPECT_EQ(kOk, download.status);
}

TEST_F(GridBulkTest, FailuresAsTheyAreAskedFor) {
  Download download(*grid_, "reader", "reader");
  const struct {
    const char *failure;
    QUILLON_STATUS status;
  } cases[] = {{"reset", QUILLON_STATUS_REST_ERROR}, {"truncate", kOk}, {"malformed", QUILLON_STATUS_XML_ERROR}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.failure);
    download.open(std::string("records='1000' delayMilliseconds='20' failureAfter='500' failure='") + c.failure + "'");
    const size_t items = download.read_numbered();
    EXPECT_EQ(c.status, download.status);
    if (c.status == QUILLON_STATUS_XML_ERROR) {
      // Those that the last piece brought before the fault come after it.
      EXPECT_EQ(500u, items + download.read_numbered(items));
      EXPECT_EQ(kOk, download.status);
    } else {
      EXPECT_TRUE(items == 500 || (items < 500 && c.status == QUILLON_STATUS_REST_ERROR)) << items;
    }
    EXPECT_EQ(kOk, quillon_bulkdownload_close(download.bulk));
  }
  download.open("records='1000' failureAfter='500' failure='silent'");
  for (int i = 0; i < 500; ++i) ASSERT_TRUE(download.next()) << i;
  const auto begun = Clock::now();
  EXPECT_EQ(kOk, quillon_bulkdownload_close(download.bulk));
  EXPECT_LT(Clock::now() - begun, std::chrono::seconds(8));
}

// A refusal is a page without items.
TEST_F(GridBulkTest, ANameThatIsNotTheCertificatesIsRefused) {
  Download download(*grid_, "somebody", "reader");
  download.open("records='10'");
  EXPECT_EQ(0u, download.read_numbered());
  EXPECT_EQ(kOk, download.status);
}

TEST_F(GridBulkTest, ALongDownloadInLittleMemory) {
#if QLK_TELLS_MEMORY
  constexpr size_t kRecords = 300000, kGrowthKib = 32u << 10;
#else
  constexpr size_t kRecords = 20000, kGrowthKib = SIZE_MAX / 2;
#endif
  Download download(*grid_, "reader", "reader");
  const size_t before = footprint().resident_kib;
  size_t most = 0, items = 0;
  download.open("recordSize='600' records='" + std::to_string(kRecords) + "'");
  for (; download.next(); ++items) {
    if (items % 1000 == 0) most = std::max(most, footprint().resident_kib);
  }
  EXPECT_EQ(kOk, download.status);
  EXPECT_EQ(kRecords, items);
  EXPECT_LT(most, before + kGrowthKib);
}

TEST_F(GridBulkTest, BrokenOffFiftyTimesTheServiceGoesOn) {
  Download download(*grid_, "reader", "reader");
  std::mt19937 random(20260102);
  const auto cycle = [&] {
    download.open(random() % 4 == 0 ? "records='1' delayMilliseconds='600000'" : "records='1000000000'");
    if (random() % 2 == 0) std::this_thread::sleep_for(std::chrono::microseconds(random() % 30000));  // Delay: any moment will do
    ASSERT_EQ(kOk, quillon_bulkdownload_close(download.bulk));
  };
  for (int i = 0; i < 5; ++i) ASSERT_NO_FATAL_FAILURE(cycle());
  const auto before = footprint();
  for (int i = 0; i < 25; ++i) ASSERT_NO_FATAL_FAILURE(cycle());
  for (int i = 0; i < 25; ++i) {
    download.open("records='1000000000'");
    for (auto left = random() % 3000; left > 0; --left) ASSERT_TRUE(download.next());
    ASSERT_EQ(kOk, quillon_bulkdownload_close(download.bulk));
  }
  EXPECT_TRUE(wait_for([&] { return footprint().threads <= before.threads; }));
  EXPECT_LE(footprint().descriptors, before.descriptors);
#if QLK_TELLS_MEMORY
  EXPECT_LE(footprint().resident_kib, before.resident_kib + 4096);
#endif
  download.open("records='1000'");
  EXPECT_EQ(1000u, download.read_numbered());
  EXPECT_EQ(kOk, download.status);
}

}  // namespace

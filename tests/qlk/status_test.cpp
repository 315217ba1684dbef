#include "quillon_status.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

#include "oom.h"
#include "owners.h"
#include "quillon_log_capture.h"

namespace {

using test_support::QuillonLogCapture;

// Sets the table of texts aside, so that a test can see it built.
class NoTable {
 public:
  NoTable() : kept_(qlk::map_of_status_to_message) { qlk::map_of_status_to_message = nullptr; }
  ~NoTable() {
    wb_htable_destroy(qlk::map_of_status_to_message);
    qlk::map_of_status_to_message = kept_;
  }

 private:
  wb_htable *kept_;
};

TEST(StatusMessage, EveryStatusHasItsText) {
  const char *const texts[] = {"OK",
                               "Malloc error",
                               "XML error",
                               "Warbler error",
                               "Libevent error",
                               "XMPP error",
                               "REST error",
                               "Quillon error",
                               "Pthread error",
                               "Connection error",
                               "Connection timeout",
                               "Connection denied",
                               "Account pending",
                               "Account enabled",
                               "Account disabled",
                               "Account deleted",
                               "Account authorization changed",
                               "Send error",
                               "Send timeout",
                               "Capability not found",
                               "Not authorized",
                               "Not supported",
                               "Unknown",
                               "incoming object is not valid",
                               "rest connection initialization failed",
                               "Host issue",
                               "Incorrect client credentials",
                               "Incorrect server credentials",
                               "Registration not authorized",
                               "Remote connection failure",
                               "Not authorized for connection",
                               "Unknown XMPP error during connection",
                               "Propose capability error",
                               "Modify capability error",
                               nullptr,
                               nullptr,
                               nullptr};
  for (size_t value = 0; value < std::size(texts); ++value) {
    EXPECT_STREQ(texts[value], quillon_status_get_message(static_cast<QUILLON_STATUS>(value))) << value;
  }
}

TEST(StatusMessage, ThreadsThatAskFirstShareOneTable) {
  const NoTable none;
  std::vector<const char *> texts(8);
  std::vector<std::thread> threads;
  for (const char *&text : texts) threads.emplace_back([&text] { text = quillon_status_get_message(QUILLON_STATUS_UNKNOWN); });
  for (std::thread &thread : threads) thread.join();
  for (const char *text : texts) EXPECT_STREQ("Unknown", text);
  EXPECT_EQ(34u, wb_htable_get_count(qlk::map_of_status_to_message));
}

#if QLK_HAS_OOM
TEST(StatusMessage, FailedBuildKeepsWhatWasInserted) {
  const NoTable none;
  const QuillonLogCapture log;
  const char *text = "";
  {
    const oom::FailNth failing(6);  // two for the table, then one an entry
    text = quillon_status_get_message(QUILLON_STATUS_MODIFY_CAPABILITY_ERROR);
  }
  EXPECT_EQ(nullptr, text);
  EXPECT_EQ(1u, log.count("quillon_status_init")) << log.all();
  EXPECT_STREQ("OK", quillon_status_get_message(QUILLON_STATUS_OK));
  EXPECT_EQ(nullptr, quillon_status_get_message(QUILLON_STATUS_UNKNOWN));
}
#endif

struct ErrorCase {
  const char *name, *xml;
  QUILLON_STATUS status;
};
const ErrorCase kErrorCases[] = {
    {"Exact", "<error><text>not authorized</text></error>", QUILLON_STATUS_NOT_AUTHORIZED},
    {"GoesOn", "<error><text>not authorized to connect</text></error>", QUILLON_STATUS_NOT_AUTHORIZED},
    {"SecondChild", "<error><a>no</a><text>not authorized</text></error>", QUILLON_STATUS_QUILLON_ERROR},
    {"OtherCase", "<error><text>Not authorized</text></error>", QUILLON_STATUS_QUILLON_ERROR},
    {"CutShort", "<error><text>not authorize</text></error>", QUILLON_STATUS_QUILLON_ERROR},
    {"NoText", "<error><text/></error>", QUILLON_STATUS_QUILLON_ERROR},
    {"NoChild", "<error>not authorized</error>", QUILLON_STATUS_QUILLON_ERROR},
};
class StatusFromError : public testing::TestWithParam<ErrorCase> {};

TEST_P(StatusFromError, FirstChildsTextDecides) {
  wb_dom_node *error = nullptr;
  ASSERT_TRUE(wb_dom_parse(GetParam().xml, strlen(GetParam().xml), &error, nullptr));
  const qlk::DomContextPtr context(wb_dom_get_context(error));
  EXPECT_EQ(GetParam().status, quillon_status_get_from_error(error));
}
INSTANTIATE_TEST_SUITE_P(Texts, StatusFromError, testing::ValuesIn(kErrorCases),
                         [](const auto &c) { return std::string(c.param.name); });

TEST(StatusFromError, NullIsAQuillonError) { EXPECT_EQ(QUILLON_STATUS_QUILLON_ERROR, quillon_status_get_from_error(nullptr)); }

}  // namespace

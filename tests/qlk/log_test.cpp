#include "quillon_log.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "owners.h"
#include "quillon_log_capture.h"

namespace {

using test_support::QuillonLogCapture;

std::atomic<int> records_seen{0};

int count_record(const char *format, va_list args) __attribute__((format(printf, 1, 0)));
int count_record(const char *format, va_list args) {
  ++records_seen;
  char text[64];
  return vsnprintf(text, sizeof text, format, args);
}

int pass_on(const char *format, ...) __attribute__((format(printf, 1, 2)));
int pass_on(const char *format, ...) {
  va_list args;
  va_start(args, format);
  const int result = quillon_log_callback(nullptr, format, args);
  va_end(args);
  return result;
}

struct LevelCase {
  int given;
  wb_log_level warbler;
};
const LevelCase kLevelCases[] = {{0, WB_LOG_NONE},    {1, WB_LOG_ERROR}, {2, WB_LOG_WARN}, {3, WB_LOG_INFO},
                                 {4, WB_LOG_VERBOSE}, {5, WB_LOG_DEBUG}, {6, WB_LOG_INFO}, {7, WB_LOG_INFO}};

TEST(LogLevel, IsStoredAsGivenAndMappedToWarblers) {
  const QuillonLogCapture log;
  for (const LevelCase &c : kLevelCases) {
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_log_set_level(static_cast<QUILLON_LOG_LEVEL>(c.given)));
    EXPECT_EQ(c.given, static_cast<int>(qlnlog.loglevel));
    EXPECT_EQ(c.warbler, wb_log_get_level()) << c.given;
    wb_log_set_level(WB_LOG_NONE);
    quillon_log_initialize();  // applies the stored level again
    EXPECT_EQ(c.warbler, wb_log_get_level()) << c.given;
  }
}

TEST(LogCallback, GetsFormatAndArgumentsAndItsResultIsPassedOn) {
  const QuillonLogCapture log;
  records_seen = 0;
  quillon_log_initialize();
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_log_set_callback(count_record));
  wb_log(WB_LOG_ERROR, "%s", "one");
  EXPECT_EQ(1, records_seen);
  EXPECT_EQ(6, pass_on("a %d", 1234));
  EXPECT_EQ(2, records_seen);
}

TEST(LogCallback, NullRestoresStandardError) {
  const QuillonLogCapture log;
  quillon_log_initialize();
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_log_set_callback(nullptr));
  EXPECT_EQ(qlk::_default_log_cb, qlnlog.log_cb);
  testing::internal::CaptureStderr();
  wb_log(WB_LOG_ERROR, "bare %d", 7);
  qlnlog.log_cb = nullptr;  // the record is public: an application may do this
  wb_log(WB_LOG_ERROR, ";");
  EXPECT_EQ("bare 7;", testing::internal::GetCapturedStderr());
}

TEST(LogCallback, MayChangeWhileOthersLog) {
  const QuillonLogCapture log;
  quillon_log_initialize();
  std::atomic<bool> stop{false};
  std::thread logging([&] {
    while (!stop) wb_log(WB_LOG_ERROR, "record");
  });
  for (int i = 0; i < 1000; ++i) {
    quillon_log_set_callback(count_record);
    quillon_log_set_level(QUILLON_LOG_DEBUG);
  }
  stop = true;
  logging.join();
}

TEST(LogDom, WritesCaptionAddressesAndXml) {
  const QuillonLogCapture log;
  wb_dom_node *node = nullptr;
  ASSERT_TRUE(wb_dom_parse("<a>%s</a>", 9, &node, nullptr));
  const qlk::DomContextPtr context(wb_dom_get_context(node));
  char expected[128];
  snprintf(expected, sizeof expected, "caption(context: %p, ref: %p) <a>%%s</a>", static_cast<void *>(context.get()),
           static_cast<void *>(node));
  quillon_log_wb_dom(WB_LOG_DEBUG, node, "caption");
  quillon_log_wb_dom(WB_LOG_DEBUG, nullptr, nullptr);
  EXPECT_EQ(1u, log.count_exact(expected)) << log.all();
  EXPECT_EQ(1u, log.count_exact("(context: (nil), ref: (nil))")) << log.all();
}

TEST(LogDom, HidesSecrets) {
  const QuillonLogCapture log(WB_LOG_DEBUG);
  const std::pair<const char *, const char *> cases[] = {
      {"<a><token>s3cret</token>open</a>", "<a><token>******</token>open</a>"},
      {"<token xmlns='urn:x' a='&gt;>'>s3cret</token>", ">******</token>"},
      {"<a xmlns='urn:x'><b:password xmlns:b='urn:b'>s3cret</b:password></a>", ">******</"},
      {"<token xmlns='urn:x' v='s3cret'><b xmlns:c='urn:c' c:k='s3cret'/></token>", "<b xmlns:c=\"urn:c\" c:k=\"******\"/>"},
      {"<a><token/>open<tokens>open</tokens></a>", "<token/>open<tokens>open</tokens>"},
  };
  for (const auto &[xml, expected] : cases) {
    wb_dom_node *node = nullptr;
    ASSERT_TRUE(wb_dom_parse(xml, std::strlen(xml), &node, nullptr));
    quillon_log_wb_dom(WB_LOG_DEBUG, node, "");
    wb_dom_context_destroy(wb_dom_get_context(node));
    EXPECT_TRUE(log.contains(expected)) << log.all();
  }
  EXPECT_FALSE(log.contains("s3cret")) << log.all();
}

TEST(LogTrace, NamesEachArgumentOfStringOperations) {
  const QuillonLogCapture log(WB_LOG_TRACE);
  quillon_string string = {};
  char expected[160];
  snprintf(expected, sizeof expected, "->: quillon_string_set_buffer_len; args=(qln_string='%p', buffer_len='7' \n)",
           static_cast<void *>(&string));
  quillon_string_set_buffer_len(&string, 7);
  EXPECT_EQ(1u, log.count_exact(expected)) << log.all();
}

}  // namespace

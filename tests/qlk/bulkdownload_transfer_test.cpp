// The transfer thread and its ring: what curl is told, back-pressure, and a close at any moment.
#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <mutex>
#include <random>
#include <string>
#include <thread>

#include "bulkdownload_fixture.h"
#include "footprint.h"
#include "oom.h"
#include "pthread_lock.h"
#include "wait_for.h"

namespace {

using bulk_test::Bulk;
using bulk_test::BulkTest;
using bulk_test::Exchange;
using bulk_test::HttpsOptions;
using bulk_test::HttpsPeer;
using bulk_test::next;
using bulk_test::read_all;
using bulk_test::Step;
using test_support::footprint;
using test_support::wait_for;
using Clock = std::chrono::steady_clock;

constexpr QUILLON_STATUS kOk = QUILLON_STATUS_OK;
// A close waits for curl's next look at it, which comes about once a second.
constexpr std::chrono::seconds kPrompt{8};

std::mutex options_mutex;
std::vector<CURLoption> options_set;

}  // namespace

// The option is an int here, as it is where the arguments are read: an enumeration may be promoted on the way.
extern "C" {

CURLcode __real_curl_easy_setopt(CURL *handle, int option, ...);

CURLcode __wrap_curl_easy_setopt(CURL *handle, int option, ...);

CURLcode __wrap_curl_easy_setopt(CURL *handle, int option, ...) {
  {
    const std::lock_guard lock(options_mutex);
    options_set.push_back(static_cast<CURLoption>(option));
  }
  va_list args;
  va_start(args, option);
  const bool is_number = option < CURLOPTTYPE_OBJECTPOINT;
  const CURLcode code = is_number ? __real_curl_easy_setopt(handle, option, va_arg(args, long))
                                  : __real_curl_easy_setopt(handle, option, va_arg(args, void *));
  va_end(args);
  return code;
}

}  // extern "C"

namespace {

std::vector<CURLoption> options_of(const Bulk &bulk) {
  {
    const std::lock_guard lock(options_mutex);
    options_set.clear();
  }
  EXPECT_EQ(kOk, quillon_bulkdownload_open(bulk.get()));
  read_all(bulk);
  EXPECT_EQ(kOk, quillon_bulkdownload_close(bulk.get()));
  const std::lock_guard lock(options_mutex);
  return options_set;
}

TEST_F(BulkTest, TheOrderOfTheOptions) {
  const auto peer = make_peer({"<r/>"});
  const std::vector<CURLoption> expected = {
      CURLOPT_ERRORBUFFER, CURLOPT_DEBUGFUNCTION,    CURLOPT_VERBOSE,     CURLOPT_URL,           CURLOPT_HTTPHEADER,
      CURLOPT_HTTPAUTH,    CURLOPT_SSL_VERIFYPEER,   CURLOPT_POSTFIELDS,  CURLOPT_POSTFIELDSIZE, CURLOPT_WRITEFUNCTION,
      CURLOPT_WRITEDATA,   CURLOPT_SSL_CTX_FUNCTION, CURLOPT_SSL_CTX_DATA};
  const Bulk bulk = make_bulk(peer->url());
  std::vector<CURLoption> set = options_of(bulk);
  ASSERT_LE(expected.size(), set.size());
  set.resize(expected.size());
  EXPECT_EQ(expected, set);

  quillon_bulkdownload_set_ssl_ctx_cb(bulk.get(), nullptr);
  set = options_of(bulk);
  EXPECT_EQ(0, std::count(set.begin(), set.end(), CURLOPT_SSL_CTX_FUNCTION));
  EXPECT_EQ(0, std::count(set.begin(), set.end(), CURLOPT_SSL_CTX_DATA));
}

// ---- The ring

size_t waiting_chunks(const Bulk &bulk) {
  const qlk::PthreadLock lock(bulk->iter->thrdsSharedData.mutex);
  return bulk->iter->thrdsSharedData.count;
}

class BulkRing : public BulkTest {
 protected:
  static constexpr int kPieces = 130;

  // One item a piece, and more pieces than the ring has slots.
  std::unique_ptr<HttpsPeer> make_long_peer() {
    return make_peer([](Exchange &exchange) {
      exchange.begin();
      exchange.send("<r><c>");
      for (int i = 0; i < kPieces; ++i) exchange.send("<i>" + std::to_string(i) + "</i>");
      exchange.send("</c></r>");
    });
  }
};

TEST_F(BulkRing, IsFullWhileNobodyReads) {
  const auto peer = make_long_peer();
  const Bulk bulk = open_bulk(peer->url());
  ASSERT_TRUE(wait_for([&] { return waiting_chunks(bulk) == qlk::kChunksMax; }));
  qlk::ThrdsSharedData &ring = bulk->iter->thrdsSharedData;
  EXPECT_FALSE(ring.curlThrdFinished);
  EXPECT_EQ(0u, ring.tail);
  EXPECT_EQ(0u, ring.head);
  EXPECT_STREQ("<r><c>", ring.chunkArr[0]);
  EXPECT_STREQ("<i>48</i>", ring.chunkArr[49]);

  EXPECT_EQ((Step{kOk, "<i>0</i>"}), next(bulk));
  // Two chunks were taken, so two more fit.
  ASSERT_TRUE(wait_for([&] { return waiting_chunks(bulk) == qlk::kChunksMax; }));
  for (int i = 1; i < kPieces; ++i) EXPECT_EQ((Step{kOk, "<i>" + std::to_string(i) + "</i>"}), next(bulk));
  EXPECT_EQ((Step{kOk}), next(bulk));
  EXPECT_EQ(kOk, quillon_bulkdownload_close(bulk.get()));
}

TEST_F(BulkRing, AFullOneDoesNotHoldAClose) {
  const auto peer = make_long_peer();
  const Bulk bulk = open_bulk(peer->url());
  ASSERT_TRUE(wait_for([&] { return waiting_chunks(bulk) == qlk::kChunksMax; }));
  EXPECT_EQ(kOk, quillon_bulkdownload_close(bulk.get()));
  EXPECT_EQ(CURLE_WRITE_ERROR, bulk->curlErrorCode);
  EXPECT_EQ(QUILLON_STATUS_REST_ERROR, bulk->status);
}

TEST(BulkChunks, WhatTheWriteCallbackKeeps) {
  char bytes[] = "abcdef";
  EXPECT_EQ(0u, qlk::write(bytes, 1, 6, nullptr));
  qlk::ThrdsSharedData ring{};
  qlk::initThrdsSharedData(&ring);
  EXPECT_EQ(6u, qlk::write(bytes, 2, 3, &ring));
  EXPECT_EQ(0u, qlk::write(bytes, 1, 0, &ring));
  EXPECT_EQ(2u, ring.count);
  EXPECT_EQ(2u, ring.head);
  EXPECT_STREQ("abcdef", ring.chunkArr[0]);
  EXPECT_STREQ("", ring.chunkArr[1]);
#if QLK_HAS_OOM
  {
    const oom::FailNth failing(1);
    EXPECT_EQ(0u, qlk::write(bytes, 1, 6, &ring));
  }
  EXPECT_EQ(3u, ring.count);
  EXPECT_EQ(2u, ring.head);
  EXPECT_EQ(nullptr, ring.chunkArr[2]);
#endif
  ring.stopWrite = true;
  EXPECT_EQ(0u, qlk::write(bytes, 1, 6, &ring));
  qlk::freeThrdsSharedData(&ring);
  EXPECT_EQ(nullptr, ring.chunkArr[0]);
  qlk::initThrdsSharedData(nullptr);
}

#if QLK_HAS_OOM
// Whatever allocation fails: the items are all there, or the chunk has failed.
TEST(BulkChunks, WithoutMemoryNoItemIsLostInSilence) {
  const std::string text = "<r><c><i/><i/></c></r>";
  for (long nth = 0; nth <= 40; ++nth) {
    quillon_bulkdownload_iter iter = {};
    qlk::initParseData(&iter.parseData);
    EXPECT_EQ(qlk::eERR_SUCC, qlk::xmlParserCreate(&iter));
    size_t length = text.size(), capacity = length + 1;
    char *chunk = strdup(text.c_str());
    qlk::setChunk(&iter.parseData, chunk, length, capacity);
    oom::fail_nth(nth);
    const bool parsed = qlk::xmlParse(&iter) == qlk::eERR_SUCC;
    oom::fail_nth(0);
    EXPECT_TRUE(!parsed || iter.parseData.arrLen == 2) << nth << ": " << iter.parseData.arrLen;
    EXPECT_TRUE(parsed || nth > 0);
    qlk::cleanParseData(&iter.parseData);
    qlk::xmlParserFree(&iter);
  }
}
#endif

TEST(BulkChunks, NoIterator) {
  EXPECT_EQ(qlk::eERR_FAILED, qlk::curlInvoke(nullptr));
  EXPECT_EQ(qlk::eERR_FAILED, qlk::curlEnd(nullptr));
  EXPECT_EQ(qlk::eERR_FAILED, qlk::xmlParserCreate(nullptr));
  EXPECT_EQ(qlk::eERR_FAILED, qlk::xmlParse(nullptr));
  EXPECT_EQ(nullptr, qlk::getNextItemNode(nullptr));
  EXPECT_EQ(nullptr, qlk::curlThrdFunc(nullptr));
  EXPECT_EQ(CURLE_GOT_NOTHING, qlk::_ssl_ctx_cb(nullptr, nullptr, nullptr));
}

TEST(BulkChunks, CurlsTextGoesToTheLog) {
  const test_support::QuillonLogCapture log(WB_LOG_DEBUG);
  std::string text(100000, 'x');
  EXPECT_EQ(0, qlk::curl_logtrace(nullptr, CURLINFO_TEXT, text.data(), 5, nullptr));
  EXPECT_EQ(0, qlk::curl_logtrace(nullptr, CURLINFO_DATA_IN, text.data(), 5, nullptr));
  EXPECT_EQ(0, qlk::curl_logtrace(nullptr, CURLINFO_TEXT, text.data(), text.size(), nullptr));
  EXPECT_EQ(2u, log.count("CURL Info: "));
  EXPECT_EQ(1u, log.count_exact("CURL Info: xxxxx"));
}

// ---- A close at any moment

TEST_F(BulkTest, ASilentServerDoesNotHoldAClose) {
  enum class Moment { in_tls, before_the_answer, in_the_document, between_items };
  for (const Moment moment : {Moment::in_tls, Moment::before_the_answer, Moment::in_the_document, Moment::between_items}) {
    SCOPED_TRACE(static_cast<int>(moment));
    HttpsOptions options = peer_options();
    if (moment == Moment::in_tls) options.faults.emplace(testpeer::HttpsStage::accept, testpeer::Fault::silent());
    std::atomic<bool> has_answered = false;
    options.on_request = [&](Exchange &exchange) {
      if (moment != Moment::before_the_answer) {
        exchange.begin();
        exchange.send(moment == Moment::in_the_document ? "<r><c><i>" : "<r><c><i/>");
        has_answered = true;
      }
      exchange.stay_silent();
      return true;
    };
    const HttpsPeer peer(options);
    const Bulk bulk = open_bulk(peer.url());
    ASSERT_TRUE(wait_for([&] {
      if (moment == Moment::in_tls) return peer.connections() == 1;
      return moment == Moment::before_the_answer ? !peer.requests().empty() : has_answered.load();
    }));
    if (moment == Moment::between_items) {
      EXPECT_EQ((Step{kOk, "<i/>"}), next(bulk));
    }
    const auto begun = Clock::now();
    EXPECT_EQ(kOk, quillon_bulkdownload_close(bulk.get()));
    EXPECT_LT(Clock::now() - begun, kPrompt);
    EXPECT_EQ(QUILLON_STATUS_REST_ERROR, bulk->status);
    EXPECT_TRUE(wait_for([&] { return peer.ended() == 1; }));
  }
}

TEST_F(BulkTest, AtOnceAndAfterTheEnd) {
  const auto peer = make_peer({"<r><c><i/></c></r>"});
  Bulk bulk = open_bulk(peer->url());
  EXPECT_EQ(kOk, quillon_bulkdownload_close(bulk.get()));
  ASSERT_EQ(kOk, quillon_bulkdownload_open(bulk.get()));
  EXPECT_EQ(2u, read_all(bulk).size());
  const auto begun = Clock::now();
  EXPECT_EQ(kOk, quillon_bulkdownload_close(bulk.get()));
  EXPECT_LT(Clock::now() - begun, kPrompt);
}

TEST_F(BulkTest, BrokenOffFiftyTimesNothingStays) {
  const auto peer = make_peer([turn = std::make_shared<std::atomic<unsigned>>(0)](Exchange &exchange) {
    const unsigned kind = (*turn)++ % 5;
    if (kind == 0) return exchange.stay_silent();
    exchange.begin();
    std::string items = "<r><c>";
    for (int i = 0; i < 100; ++i) items += "<i>" + std::string(100, 'x') + "</i>";
    for (int i = 0; i < 100 && exchange.send(items); ++i) items.erase(0, items.find("<i>"));
    if (kind == 1) exchange.reset();
    if (kind == 2) exchange.send("</wrong>");
    if (kind == 3) exchange.stay_silent();
  });
  const Bulk bulk = make_bulk(peer->url());
  std::mt19937 random(20260101);
  const auto cycle = [&] {
    ASSERT_EQ(kOk, quillon_bulkdownload_open(bulk.get()));
    const auto how = random() % 3;
    const auto time = std::chrono::microseconds(random() % 20000);
    if (how == 0) std::this_thread::sleep_for(time);  // Delay: any moment will do
    if (how == 1) {
      const size_t connections = peer->connections();
      wait_for([&] { return peer->connections() > connections; }, std::chrono::milliseconds(100));
    }
    if (how == 2) {
      // Each piece has items in it, so that next does not wait for a server that has fallen silent.
      const auto until = Clock::now() + time;
      while (Clock::now() < until && waiting_chunks(bulk) > 1) next(bulk);
    }
    ASSERT_EQ(kOk, quillon_bulkdownload_close(bulk.get()));
  };
  for (int i = 0; i < 10; ++i) ASSERT_NO_FATAL_FAILURE(cycle());
  ASSERT_TRUE(wait_for([&] { return peer->ended() == peer->connections(); }));
  const auto before = footprint();
  for (int i = 0; i < 50; ++i) ASSERT_NO_FATAL_FAILURE(cycle());
  EXPECT_TRUE(wait_for([&] { return peer->ended() == peer->connections() && footprint().threads <= before.threads; }));
  EXPECT_LE(footprint().descriptors, before.descriptors);
#if QLK_TELLS_MEMORY
  EXPECT_LE(footprint().resident_kib, before.resident_kib + 4096);
#endif
}

// ---- Beside others

TEST_F(BulkTest, SettingsMayChangeWhileADownloadIsOpen) {
  const auto peer = make_peer({"<r><c><i/></c></r>"});
  const Bulk bulk = make_bulk(peer->url());
  const auto request = test_support::parse("<another/>");
  for (int i = 0; i < 30; ++i) {
    ASSERT_EQ(kOk, quillon_bulkdownload_open(bulk.get()));
    EXPECT_EQ(kOk, quillon_bulkdownload_set_url(bulk.get(), peer->url().c_str()));
    EXPECT_EQ(kOk, quillon_bulkdownload_set_request(bulk.get(), request.get()));
    quillon_bulkdownload_set_ssl_ctx_cb(bulk.get(), qlk::_default_ssl_ctx_cb);
    quillon_bulkdownload_set_ssl_ctx_cb_user_data(bulk.get(), &i);
    EXPECT_EQ(2u, read_all(bulk).size());
    EXPECT_EQ(kOk, quillon_bulkdownload_close(bulk.get()));
  }
}

TEST_F(BulkTest, OtherUsersOfCurlAreNotDisturbed) {
  const auto peer = make_peer({"<r><c><i/></c></r>"});
  std::atomic<bool> is_done = false;
  std::thread other([&] {
    do {
      ASSERT_EQ(CURLE_OK, curl_global_init(CURL_GLOBAL_DEFAULT));
      CURL *const handle = curl_easy_init();
      curl_easy_setopt(handle, CURLOPT_URL, "file:///dev/null");
      EXPECT_EQ(CURLE_OK, curl_easy_perform(handle));
      curl_easy_cleanup(handle);
      curl_global_cleanup();
    } while (!is_done);
  });
  for (int i = 0; i < 20; ++i) EXPECT_EQ(2u, read_all(open_bulk(peer->url())).size());
  is_done = true;
  other.join();
}

TEST_F(BulkTest, SeveralAtOnce) {
  const auto peer = make_peer({"<r><c>", "<i>1</i><i>2</i>", "<i>3</i>", "</c></r>"});
  std::thread threads[4];
  for (std::thread &thread : threads) {
    thread = std::thread([&] {
      for (int i = 0; i < 5; ++i) EXPECT_EQ(4u, read_all(open_bulk(peer->url())).size());
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(20u, peer->requests().size());
}

}  // namespace

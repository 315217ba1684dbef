// The object, what the application reads, and how failures are told.
#include <algorithm>
#include <chrono>
#include <qlk/testpeer/deaf_port.hpp>
#include <string>

#include "bulkdownload_fixture.h"
#include "oom.h"

namespace {

using bulk_test::Bulk;
using bulk_test::BulkTest;
using bulk_test::error_details;
using bulk_test::Exchange;
using bulk_test::HttpsOptions;
using bulk_test::HttpsPeer;
using bulk_test::next;
using bulk_test::Node;
using bulk_test::read_all;
using bulk_test::Step;
using bulk_test::Steps;
using test_support::parse;
using testpeer::DeafPort;

constexpr QUILLON_STATUS kOk = QUILLON_STATUS_OK;
constexpr QUILLON_STATUS kXml = QUILLON_STATUS_XML_ERROR;
constexpr QUILLON_STATUS kRest = QUILLON_STATUS_REST_ERROR;
constexpr QUILLON_STATUS kInvalid = QUILLON_STATUS_INVALID_ARGS;

// ---- The object

TEST_F(BulkTest, Arguments) {
  quillon_bulkdownload *bulkdownload = nullptr;
  wb_dom_node *node = nullptr;
  char text[8];
  EXPECT_EQ(kInvalid, quillon_bulkdownload_default_create(nullptr));
  EXPECT_EQ(kInvalid, quillon_bulkdownload_create(nullptr, config_.get()));
  EXPECT_EQ(kInvalid, quillon_bulkdownload_create(&bulkdownload, nullptr));
  EXPECT_EQ(1u, log_.count(" null object at "));
  EXPECT_EQ(kInvalid, quillon_bulkdownload_destroy(nullptr));
  EXPECT_EQ(kInvalid, quillon_bulkdownload_destroy(&bulkdownload));
  EXPECT_EQ(kInvalid, quillon_bulkdownload_set_url(nullptr, "https://127.0.0.1"));
  EXPECT_EQ(kInvalid, quillon_bulkdownload_set_request(nullptr, nullptr));
  quillon_bulkdownload_set_ssl_ctx_cb(nullptr, nullptr);
  quillon_bulkdownload_set_ssl_ctx_cb_user_data(nullptr, nullptr);
  EXPECT_EQ(kInvalid, quillon_bulkdownload_open(nullptr));
  EXPECT_EQ(kInvalid, quillon_bulkdownload_next(nullptr, &node));
  EXPECT_EQ(kInvalid, quillon_bulkdownload_iter_next(nullptr, &node));
  EXPECT_EQ(kInvalid, quillon_bulkdownload_close(nullptr));
  EXPECT_EQ(kInvalid, quillon_bulkdownload_get_error_details(nullptr, text, sizeof text));
  quillon_bulkdownload_iter_free(nullptr);

  const Bulk bulk = make_bulk("");
  EXPECT_EQ(kInvalid, quillon_bulkdownload_set_url(bulk.get(), nullptr));
  EXPECT_EQ(kInvalid, quillon_bulkdownload_set_url(bulk.get(), ""));
  EXPECT_EQ(kInvalid, quillon_bulkdownload_set_url(bulk.get(), std::string(65537, 'u').c_str()));
  EXPECT_EQ(kOk, quillon_bulkdownload_set_url(bulk.get(), std::string(65536, 'u').c_str()));
  EXPECT_EQ(kInvalid, quillon_bulkdownload_get_error_details(bulk.get(), nullptr, 5));
  EXPECT_EQ(kInvalid, quillon_bulkdownload_get_error_details(bulk.get(), text, 0));
}

TEST_F(BulkTest, AConfigurationWithoutUserNameIsRefused) {
  quillon_config *config = nullptr;
  ASSERT_EQ(kOk, quillon_config_create(&config));
  const bulk_test::Config owner(config);
  quillon_bulkdownload *bulkdownload = nullptr;
  EXPECT_EQ(kInvalid, quillon_bulkdownload_create(&bulkdownload, config));
  EXPECT_EQ(nullptr, bulkdownload);
}

TEST_F(BulkTest, ADefaultObjectHasNothingSet) {
  quillon_bulkdownload *bulkdownload = nullptr;
  ASSERT_EQ(kOk, quillon_bulkdownload_default_create(&bulkdownload));
  const Bulk bulk(bulkdownload);
  EXPECT_EQ(nullptr, bulk->config);
  EXPECT_EQ(nullptr, bulk->ssl_ctx_cb);
  EXPECT_EQ(nullptr, bulk->iter);
  EXPECT_EQ(nullptr, bulk->user_name);
  EXPECT_EQ(nullptr, bulk->zebUrl);
  EXPECT_EQ(nullptr, bulk->request);
  EXPECT_EQ(kInvalid, quillon_bulkdownload_open(bulk.get()));
}

// An element whose XML has the given length.
Node request_of(size_t length) { return parse("<a>" + std::string(length - 7, 'x') + "</a>"); }

TEST_F(BulkTest, ARequestHasALimit) {
  const Bulk bulk = make_bulk("");
  EXPECT_EQ(kOk, quillon_bulkdownload_set_request(bulk.get(), request_of(65536).get()));
  EXPECT_EQ(65536u, quillon_string_length(bulk->request));
  EXPECT_EQ(kInvalid, quillon_bulkdownload_set_request(bulk.get(), request_of(65537).get()));
  EXPECT_EQ(nullptr, bulk->request);
  EXPECT_EQ(kOk, quillon_bulkdownload_set_request(bulk.get(), request_of(100).get()));
  EXPECT_EQ(QUILLON_STATUS_WB_ERROR, quillon_bulkdownload_set_request(bulk.get(), nullptr));
  EXPECT_EQ(1u, log_.count_exact("error serialize"));
  EXPECT_EQ(nullptr, bulk->request);
  EXPECT_EQ(kInvalid, quillon_bulkdownload_open(bulk.get()));
}

TEST_F(BulkTest, WhatIsNotOpenIsRefused) {
  const auto peer = make_peer({"<r><c><i/></c></r>"});
  const Bulk bulk = make_bulk(peer->url());
  for (unsigned round = 0; round < 2; ++round) {
    EXPECT_EQ((Step{kInvalid}), next(bulk));
    EXPECT_EQ(kInvalid, quillon_bulkdownload_close(bulk.get()));
    EXPECT_EQ(3u * round + 2u, log_.count("Invalid object "));
    ASSERT_EQ(kOk, quillon_bulkdownload_open(bulk.get()));
    EXPECT_EQ(kInvalid, quillon_bulkdownload_open(bulk.get()));
    EXPECT_EQ(kInvalid, quillon_bulkdownload_next(bulk.get(), nullptr));
    EXPECT_EQ((Steps{{kOk, "<i/>"}, {kOk}}), read_all(bulk));
    EXPECT_EQ(kOk, quillon_bulkdownload_close(bulk.get()));
  }
  EXPECT_EQ(2u, peer->connections());
}

TEST_F(BulkTest, DestroyClosesWhatIsOpen) {
  const auto peer = make_peer([](Exchange &exchange) { exchange.stay_silent(); });
  quillon_bulkdownload *bulkdownload = open_bulk(peer->url()).release();
  EXPECT_EQ(kOk, quillon_bulkdownload_destroy(&bulkdownload));
  EXPECT_EQ(nullptr, bulkdownload);
}

// ---- The request

TEST_F(BulkTest, TheRequestAsItIsSent) {
  const auto peer = make_peer({"<r/>"});
  const Bulk bulk = make_bulk(peer->url());
  ASSERT_EQ(kOk, quillon_bulkdownload_set_request(bulk.get(), request_of(100).get()));
  ASSERT_EQ(kOk, quillon_bulkdownload_open(bulk.get()));
  EXPECT_EQ((Steps{{kOk}}), read_all(bulk));
  ASSERT_EQ(1u, peer->requests().size());
  const testpeer::HttpRequest request = peer->requests()[0];
  EXPECT_EQ(0u, request.head.find("POST /bulk HTTP/1.1\r\n")) << request.head;
  const std::string lines[] = {"Content-Type: application/xml", "Content-Length: 156",
                               std::string("user:bob@") + bulk_test::kDomain};
  for (const std::string &line : lines) {
    EXPECT_NE(std::string::npos, request.head.find("\r\n" + line + "\r\n")) << line << "\n" << request.head;
  }
  EXPECT_EQ("<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?> <a>" + std::string(93, 'x') + "</a>", request.body);
  EXPECT_TRUE(log_.contains("curl_easy_setopt() for CURLOPT_URL: '" + peer->url() + "'"));
  EXPECT_EQ("No error", error_details(bulk));
}

TEST_F(BulkTest, TheContentWithoutARequestIsTheDeclaration) {
  quillon_bulkdownload *bulkdownload = nullptr;
  ASSERT_EQ(kOk, quillon_bulkdownload_default_create(&bulkdownload));
  const Bulk bulk(bulkdownload);
  quillon_string *content = qlk::createRequestContent(bulk.get());
  EXPECT_EQ(56u, quillon_string_length(content));
  EXPECT_TRUE(log_.contains("quillon_string_insert_cstr() failed at file "));
  quillon_string_destroy(&content);
  EXPECT_EQ(nullptr, qlk::createRequestContent(nullptr));
}

#if QLK_HAS_OOM
TEST_F(BulkTest, WithoutMemoryThereIsNoHalfARequest) {
  const Bulk bulk = make_bulk("");
  for (long nth = 1; nth <= 10; ++nth) {
    const oom::FailNth failing(nth);
    quillon_string *content = qlk::createRequestContent(bulk.get());
    EXPECT_TRUE(content == nullptr || quillon_string_length(content) == 56 + 7) << nth;
    EXPECT_TRUE(content != nullptr || nth < 10);
    quillon_string_destroy(&content);
  }
}
#endif

// ---- The TLS context

struct TlsCalls {
  quillon_bulkdownload *bulkdownload = nullptr;
  int count = 0;
};

TEST_F(BulkTest, TheApplicationMayFillTheTlsContext) {
  const auto peer = make_peer({"<r/>"});
  const Bulk bulk = make_bulk(peer->url());
  TlsCalls calls;
  quillon_bulkdownload_set_ssl_ctx_cb_user_data(bulk.get(), &calls);
  quillon_bulkdownload_set_ssl_ctx_cb(bulk.get(), [](quillon_bulkdownload *bulkdownload, void *ssl_ctx, void *user_data) {
    auto &seen = *static_cast<TlsCalls *>(user_data);
    seen.bulkdownload = bulkdownload;
    ++seen.count;
    quillon_config_fill_ssl_ctx(bulkdownload->config, ssl_ctx, true);
  });
  ASSERT_EQ(kOk, quillon_bulkdownload_open(bulk.get()));
  EXPECT_EQ((Steps{{kOk}}), read_all(bulk));
  EXPECT_EQ(bulk.get(), calls.bulkdownload);
  EXPECT_EQ(1, calls.count);
}

// ---- Items

TEST_F(BulkTest, ItemsAreNodesOfTheirOwn) {
  const auto peer = make_peer({"<r xmlns='urn:n' xmlns:p='urn:p'><c><rec p:a='1' b='2'><x xmlns=''/></rec><rec/></c></r>"});
  const Bulk bulk = open_bulk(peer->url());
  wb_dom_node *first = nullptr, *second = nullptr;
  ASSERT_EQ(kOk, quillon_bulkdownload_next(bulk.get(), &first));
  ASSERT_EQ(kOk, quillon_bulkdownload_next(bulk.get(), &second));
  const Node first_owner(first), second_owner(second);
  ASSERT_TRUE(first != nullptr && second != nullptr);
  EXPECT_NE(wb_dom_get_context(first), wb_dom_get_context(second));
  EXPECT_EQ(nullptr, wb_dom_get_parent(first));
  EXPECT_EQ(kOk, quillon_bulkdownload_close(bulk.get()));

  EXPECT_STREQ("{urn:n}rec", wb_dom_get_ename(first));
  EXPECT_STREQ("{}x", wb_dom_get_ename(wb_dom_get_first_child(first)));
  EXPECT_STREQ("2", wb_dom_get_attribute(first, "b"));
  EXPECT_STREQ("1", wb_dom_get_attribute(first, "urn:p|a"));
  EXPECT_STREQ("1", wb_dom_get_attribute(first, "{urn:p}a"));
}

struct DocumentCase {
  const char *name;
  std::vector<std::string> pieces;
  Steps steps;
  // As many pieces as it has bytes give the same items; where a piece fails the steps depend on the cut.
  bool may_be_cut = true;
};

void PrintTo(const DocumentCase &c, std::ostream *out) { *out << c.name; }

class BulkDocument : public BulkTest, public testing::WithParamInterface<DocumentCase> {};

TEST_P(BulkDocument, Steps) {
  const auto peer = make_peer(GetParam().pieces);
  const Bulk bulk = open_bulk(peer->url());
  EXPECT_EQ(GetParam().steps, read_all(bulk));
  EXPECT_EQ((Step{kOk}), next(bulk));
  EXPECT_EQ(kOk, quillon_bulkdownload_close(bulk.get()));
}

TEST_P(BulkDocument, ByteByByte) {
  if (!GetParam().may_be_cut) return;
  const auto peer = make_peer(GetParam().pieces, 1);
  EXPECT_EQ(GetParam().steps, read_all(open_bulk(peer->url())));
}

const auto case_name = [](const auto &info) { return std::string(info.param.name); };

INSTANTIATE_TEST_SUITE_P(
    Quirks, BulkDocument,
    testing::Values(
        DocumentCase{"no_items", {"<r>text<c>text</c><c/></r>"}, {{kOk}}}, DocumentCase{"empty", {""}, {{kOk}}},
        DocumentCase{
            "records",
            {"<r xmlns='u'><c><rec>1</rec><rec>2</rec></c><c><rec>3</rec></c></r>"},
            {{kOk, "<rec xmlns=\"u\">1</rec>"}, {kOk, "<rec xmlns=\"u\">2</rec>"}, {kOk, "<rec xmlns=\"u\">3</rec>"}, {kOk}}},
        DocumentCase{"indentation_begins_the_next_childs_text",
                     {"<r>\n <c>\n  <rec>\n   <name>x</name>\n   <b/>\n  </rec>\n </c>\n</r>\n"},
                     {{kOk, "<rec><name>\n   x</name><b>\n   </b>\n  </rec>"}, {kOk}}},
        DocumentCase{"across_pieces", {"<r><c><re", "c>te", "xt</", "rec", "></c></r>"}, {{kOk, "<rec>text</rec>"}, {kOk}}},
        DocumentCase{"broken_off_in_an_item", {"<r><c><rec>1</rec><rec>2"}, {{kOk, "<rec>1</rec>"}, {kOk}}},
        DocumentCase{"a_fault_hands_out_what_was_complete",
                     {"<r><c><rec>1</rec><rec>2</rec><rec>3</wrong></rec>"},
                     {{kXml}, {kOk, "<rec>1</rec>"}, {kOk, "<rec>2</rec>"}, {kOk}},
                     false},
        DocumentCase{"every_piece_after_a_fault_fails",
                     {"<r><c><rec>1</rec></wrong>", "<rec>2</rec>", "</c>"},
                     {{kXml}, {kOk, "<rec>1</rec>"}, {kXml}, {kXml}, {kOk}},
                     false},
        DocumentCase{"a_zero_byte",
                     {std::string("<r><c><rec>1</rec><rec>\0</rec></c></r>", 38)},
                     {{kXml}, {kOk, "<rec>1</rec>"}, {kOk}},
                     false},
        DocumentCase{"no_utf_8", {"<r><c><rec>1</rec><rec>\xC3(</rec></c></r>"}, {{kXml}, {kOk, "<rec>1</rec>"}, {kOk}}, false},
        DocumentCase{"no_xml", {"Service unavailable"}, {{kXml}, {kOk}}, false}),
    case_name);

TEST_F(BulkTest, WhatIsLoggedAboutText) {
  const auto peer = make_peer({"<r><c><rec>\n <a/>\n <b/>\n</rec></c></r>"});
  EXPECT_EQ(2u, read_all(open_bulk(peer->url())).size());
  EXPECT_EQ(2u, log_.count("startElementHandler - text should have been NULL at file ")) << log_.all();
}

TEST_F(BulkTest, WhatIsLoggedAboutAFault) {
  const auto peer = make_peer({"<r><c></r>"});
  EXPECT_EQ((Steps{{kXml}, {kOk}}), read_all(open_bulk(peer->url())));
  EXPECT_EQ(1u, log_.count("XML_Parse() failed at file ")) << log_.all();
  EXPECT_EQ(1u, log_.count("next() failed at file ")) << log_.all();
}

// ---- Documents that would take all memory

struct FloodCase {
  const char *name;
  std::string head, piece;
  size_t times;
};

TEST_F(BulkTest, AFloodIsAFault) {
  std::string laughs = "<!DOCTYPE r [<!ENTITY a 'ha'>";
  for (char c = 'b'; c <= 'z'; ++c) {
    laughs += std::string("<!ENTITY ") + c + " '";
    for (int i = 0; i < 10; ++i) laughs += std::string("&") + static_cast<char>(c - 1) + ";";
    laughs += "'>";
  }
  const FloodCase cases[] = {
      {"billion laughs", laughs + "]><r><c><i>&z;</i></c></r>", "", 0},
      {"a million nested elements", "<r><c>", "<a><a><a><a><a><a><a><a><a><a>", 100000},
      {"a text of 100 MiB", "<r><c><i>", std::string(1u << 20, 'x'), 100},
      {"a tag of 100 MiB", "<r><c><i a='", std::string(1u << 20, 'x'), 100},
  };
  for (const FloodCase &c : cases) {
    SCOPED_TRACE(c.name);
    const auto peer = make_peer([&c](Exchange &exchange) {
      exchange.begin();
      exchange.send(c.head);
      for (size_t i = 0; i < c.times && exchange.send(c.piece); ++i) {
      }
    });
    const Bulk bulk = open_bulk(peer->url());
    EXPECT_EQ((Step{kXml}), next(bulk));
    EXPECT_EQ(kOk, quillon_bulkdownload_close(bulk.get()));
  }
}

// ---- Failures of the transfer

class BulkFailure : public BulkTest {
 protected:
  // The download fails; returns the items that came before.
  std::vector<std::string> fail(const Bulk &bulk) {
    const Steps steps = read_all(bulk);
    EXPECT_EQ((Step{kRest}), steps.back());
    EXPECT_EQ((Step{kRest}), next(bulk));
    EXPECT_NE(CURLE_OK, bulk->curlErrorCode);
    EXPECT_EQ(curl_easy_strerror(bulk->curlErrorCode), error_details(bulk));
    EXPECT_TRUE(log_.contains("curl_easy_perform() failed: (" + std::to_string(bulk->curlErrorCode) + ") ")) << log_.all();
    EXPECT_EQ(kOk, quillon_bulkdownload_close(bulk.get()));
    EXPECT_EQ(curl_easy_strerror(bulk->curlErrorCode), error_details(bulk));
    std::vector<std::string> items;
    for (const Step &step : steps) {
      if (step.item.has_value()) items.push_back(*step.item);
    }
    return items;
  }
  std::vector<std::string> fail(const std::string &url) { return fail(open_bulk(url)); }
};

const std::vector<std::string> kNoItems;

TEST_F(BulkFailure, NobodyListens) {
  const DeafPort port;
  EXPECT_EQ(kNoItems, fail(port.url()));
}

TEST_F(BulkFailure, NoUrl) {
  const Bulk bulk = open_bulk("");
  EXPECT_EQ(kNoItems, fail(bulk));
  EXPECT_EQ(CURLE_URL_MALFORMAT, bulk->curlErrorCode);
  EXPECT_TRUE(log_.contains("curl_easy_setopt() for CURLOPT_URL: '(null)'")) << log_.all();
  char text[5] = "xxxx";
  EXPECT_EQ(kOk, quillon_bulkdownload_get_error_details(bulk.get(), text, sizeof text));
  EXPECT_EQ(std::string(curl_easy_strerror(CURLE_URL_MALFORMAT)).substr(0, 4), text);
}

TEST_F(BulkFailure, TheServersCertificate) {
  testpeer::CertificateAuthority other("Another Authority");
  const struct {
    const char *name;
    testpeer::Credentials certificate;
  } cases[] = {{"of another authority", other.server({.addresses = {"127.0.0.1"}})},
               {"for another name", authority_->server("localhost")},
               {"expired", authority_->server({.addresses = {"127.0.0.1"}, .validity = testpeer::Validity::expired})}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    HttpsOptions options = peer_options();
    options.certificate = c.certificate;
    const HttpsPeer peer(options);
    EXPECT_EQ(kNoItems, fail(peer.url()));
    EXPECT_TRUE(peer.requests().empty());
  }
}

TEST_F(BulkFailure, WithoutAClientCertificate) {
  const auto peer = make_peer({"<r/>"});
  for (const bool has_callback : {true, false}) {
    const Bulk bulk = make_bulk(peer->url());
    quillon_bulkdownload_set_ssl_ctx_cb(
        bulk.get(), has_callback ? [](quillon_bulkdownload *, void *, void *) {} : quillon_bulkdownload_ssl_ctx_cb{});
    ASSERT_EQ(kOk, quillon_bulkdownload_open(bulk.get()));
    EXPECT_EQ(kNoItems, fail(bulk));
  }
  EXPECT_TRUE(peer->requests().empty());
}

TEST_F(BulkFailure, TheConnectionBreaks) {
  const auto reset = make_peer([](Exchange &exchange) {
    exchange.begin();
    exchange.send("<r><c><i>1</i>");
    exchange.reset();
  });
  EXPECT_GE(1u, fail(reset->url()).size());  // a reset throws away what has not been read
}

TEST_F(BulkFailure, LessThanWasAnnounced) {
  const auto peer = make_peer([](Exchange &exchange) {
    exchange.begin({.announced_length = 100});
    exchange.send("<r><c><i>1</i>");
  });
  EXPECT_EQ(std::vector<std::string>{"<i>1</i>"}, fail(peer->url()));
}

TEST_F(BulkFailure, NoHttp) {
  const auto peer = make_peer([](Exchange &exchange) { exchange.send("<r><c><i>1</i></c></r>"); });
  EXPECT_EQ(kNoItems, fail(peer->url()));
}

// A status tells nothing: the page is a document like any other.
TEST_F(BulkTest, HttpStatusesAreNotLookedAt) {
  for (const int status : {403, 404, 500, 503}) {
    const auto peer = make_peer([status](Exchange &exchange) {
      exchange.begin(status);
      exchange.send("<error><reason><i>no</i></reason></error>");
    });
    EXPECT_EQ((Steps{{kOk, "<i>no</i>"}, {kOk}}), read_all(open_bulk(peer->url()))) << status;
  }
}

TEST_F(BulkTest, AFailureIsForgottenByTheNextOpen) {
  const DeafPort port;
  const auto peer = make_peer({"<r><c><i/></c></r>"});
  const Bulk bulk = open_bulk(port.url());
  EXPECT_EQ((Steps{{kRest}}), read_all(bulk));
  EXPECT_EQ(kOk, quillon_bulkdownload_close(bulk.get()));
  ASSERT_EQ(kOk, quillon_bulkdownload_set_url(bulk.get(), peer->url().c_str()));
  ASSERT_EQ(kOk, quillon_bulkdownload_open(bulk.get()));
  EXPECT_EQ((Steps{{kOk, "<i/>"}, {kOk}}), read_all(bulk));
  EXPECT_EQ("No error", error_details(bulk));
}

}  // namespace

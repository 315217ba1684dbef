// Faults of the HTTPS service while a bulk download is open: in TLS, in the head of the answer, in its body.
#include <openssl/ssl.h>

#include <cstdlib>
#include <fstream>

#include "application.h"
#include "quillon_bulkdownload.h"

namespace faults {
namespace {

using testpeer::HttpFraming;
using testpeer::HttpsOptions;
using testpeer::HttpsPeer;
using testpeer::HttpsStage;
using testpeer::ServerIdentity;
using testpeer::TlsNoise;
using testpeer::TlsVersion;
using testpeer::Usage;
using testpeer::Validity;

constexpr char kBegun[] = "<r><c><i>1</i>", kRest[] = "<i>2</i></c></r>";

struct Row {
  std::string name;
  std::function<void(HttpsOptions &)> change;
  QUILLON_STATUS status = QUILLON_STATUS_REST_ERROR;  // the worst that the calls return
  size_t items = 0;                                   // that come all the same
  bool may_lose_items = false;
  bool is_silent = false;  // until the application closes the download
  bool is_asked = false;   // the request came that far
  std::function<void(quillon_config *, quillon_bulkdownload *)> prepare = {};

  friend void PrintTo(const Row &row, std::ostream *out) { *out << row.name; }
};

HttpsOptions correct_service() {
  static const testpeer::Credentials certificate = Identities::get().authority.server(ServerIdentity{.addresses = {"127.0.0.1"}});
  return {.certificate = certificate,
          .client_authority = Identities::get().authority.certificate(),
          .needs_client_certificate = true,
          .answer = {.pieces = {kBegun, kRest}, .framing = HttpFraming::until_close}};
}

class Bulk : public testing::Test {
 protected:
  Bulk() {
    quillon_config *const config = application_.config();
    quillon_config_set_bulk_server_cert_chain_filename(config, Identities::get().authority.certificate().c_str());
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_bulkdownload_create(&bulk_, config));
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_bulkdownload_set_request(bulk_, test_support::parse("<give/>").get()));
  }
  ~Bulk() override { quillon_bulkdownload_destroy(&bulk_); }

  void open(const HttpsPeer &peer) {
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_bulkdownload_set_url(bulk_, peer.url().c_str()));
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_bulkdownload_open(bulk_));
  }
  void close() { EXPECT_EQ(QUILLON_STATUS_OK, quillon_bulkdownload_close(bulk_)); }

  // Whether there may be more. Keeps the status unless it is OK.
  bool read_on(size_t &items, QUILLON_STATUS &worst) {
    wb_dom_node *node = nullptr;
    const QUILLON_STATUS status = quillon_bulkdownload_next(bulk_, &node);
    const test_support::Node item(node);
    if (item != nullptr) ++items;
    if (status != QUILLON_STATUS_OK) worst = status;
    return item != nullptr || status == QUILLON_STATUS_XML_ERROR;
  }

  // Downloads the whole document of a good service.
  void expect_download() {
    const HttpsPeer peer(correct_service());
    open(peer);
    size_t items = 0;
    QUILLON_STATUS worst = QUILLON_STATUS_OK;
    while (read_on(items, worst)) {
    }
    EXPECT_EQ(2U, items) << application_.log();
    EXPECT_EQ(QUILLON_STATUS_OK, worst);
    close();
  }

  Application application_;
  quillon_bulkdownload *bulk_ = nullptr;
};

class BulkFault : public Bulk, public testing::WithParamInterface<Row> {};

TEST_P(BulkFault, EndsAsItShould) {
  const Row &row = GetParam();
  expect_download();
  const Resources before = Resources::now();

  HttpsOptions options = correct_service();
  row.change(options);
  auto peer = std::make_unique<HttpsPeer>(options);
  if (row.prepare) row.prepare(application_.config(), bulk_);
  const Stopwatch stopwatch;
  open(*peer);
  size_t items = 0;
  QUILLON_STATUS worst = QUILLON_STATUS_OK;
  if (row.is_silent) {
    while (items < row.items && read_on(items, worst)) {
    }
    EXPECT_TRUE(row.is_asked ? peer->wait_requests(1, kSoon) : peer->wait_connections(1, kSoon));
  } else {
    while (read_on(items, worst)) {
    }
  }
  close();
  EXPECT_LT(stopwatch.passed(), kSoon);
  EXPECT_EQ(row.status, row.is_silent ? bulk_->status.load() : worst) << application_.log();
  EXPECT_EQ(row.status == QUILLON_STATUS_REST_ERROR, bulk_->curlErrorCode != CURLE_OK);
  EXPECT_TRUE(row.may_lose_items ? items <= row.items : items == row.items) << items;
  EXPECT_EQ(row.is_asked, !peer->requests().empty());

  peer.reset();
  expect_download();
  // A thread of the first peer may still have been leaving when it was joined.
  EXPECT_TRUE(testpeer::eventually(kSoon, [&] { return !Resources::now().exceed(before); }));
}

// ---- Each stage

Row changed(const std::string &name, const std::function<void(HttpsOptions &)> &change) {
  return {.name = name, .change = change};
}

Row at(HttpsStage stage, const std::string &name, const Fault &fault) {
  Row row = changed(name, [stage, fault](HttpsOptions &options) { options.faults.emplace(stage, fault); });
  row.is_asked = stage > HttpsStage::tls_handshake;
  return row;
}

Row in_tls(const std::string &name, const Fault &fault) { return at(HttpsStage::accept, "Tls_" + name, fault); }

Row in_head(const std::string &name, const Fault &fault) { return at(HttpsStage::head, "Head_" + name, fault); }

Row with_one_item(Row row, QUILLON_STATUS status = QUILLON_STATUS_REST_ERROR) {
  row.items = 1;
  row.status = status;
  return row;
}

// Once the first item was sent.
Row in_body(const std::string &name, const Fault &fault, QUILLON_STATUS status = QUILLON_STATUS_REST_ERROR) {
  const Fault begun = Fault::cut(std::string_view(kBegun).size());
  return with_one_item(at(HttpsStage::body, "Body_" + name, begun.then(fault)), status);
}

Row answering(const std::string &name, const testpeer::HttpAnswer &answer) {
  Row row = changed(name, [answer](HttpsOptions &options) { options.answer = answer; });
  row.is_asked = true;
  return row;
}

Row silent(Row row) {
  row.is_silent = true;
  return row;
}

Row survived(Row row) {
  row.status = QUILLON_STATUS_OK;
  row.items = 2;
  row.is_asked = true;
  return row;
}

Row asked(Row row) {
  row.is_asked = true;
  return row;
}

Row losing(Row row) {
  row.may_lose_items = true;
  return row;
}

void send_headers_without_end(HttpsOptions &options) {
  options.on_request = [](testpeer::HttpExchange &exchange) {
    exchange.send("HTTP/1.1 200 OK\r\n");
    const std::string line = "More: " + std::string(10'000, 'x') + "\r\n";
    while (exchange.send(line)) {
    }
    return true;
  };
}

std::vector<Row> rows_of_stages() {
  const Fault close = Fault::close(), late = Fault::delay(50ms);
  Row endless = changed("Head_NeverEnds", send_headers_without_end);
  endless.is_asked = true;
  Row broken_chunks = in_body("ClosesBetweenChunks", close);
  broken_chunks.change = [](HttpsOptions &options) {
    options.answer.framing = HttpFraming::chunked;
    options.faults.emplace(HttpsStage::body, Fault::cut(std::string_view(kBegun).size() + 5).then(Fault::close()));
  };
  return {
      silent(in_tls("Silent", Fault::silent())),
      survived(in_tls("Late", late)),
      in_tls("Closes", close),
      in_tls("Resets", Fault::reset()),
      in_tls("IsCut", Fault::replace({"\x16\x03\x03\x00\x7a\x02\x00", 7}).then(close)),
      in_tls("Babbles", Fault::replace("HTTP/1.1 400 Bad Request\r\n\r\n").then(close)),

      silent(in_head("Silent", Fault::silent())),
      survived(in_head("Late", late)),
      in_head("Closes", close),
      in_head("Truncates", Fault::truncate()),
      in_head("Resets", Fault::reset()),
      in_head("IsCut", Fault::cut(11).then(close)),
      in_head("Babbles", Fault::replace(std::string(kBegun) + kRest).then(close)),
      endless,

      silent(in_body("Silent", Fault::silent())),
      in_body("ClosesItsHalf", Fault::half_close(), QUILLON_STATUS_OK),
      survived(in_body("Late", late.then(Fault::replace(kRest)))),
      // A document that breaks off ends where it does, as the header says; only an announced length tells, or a last chunk.
      in_body("Closes", close, QUILLON_STATUS_OK),
      in_body("Truncates", Fault::truncate(), QUILLON_STATUS_OK),
      with_one_item(answering("Body_PromisesMore", {.pieces = {kBegun}, .announced_length = 1000})),
      survived(answering("Body_InChunks", {.pieces = {kBegun, kRest}, .framing = HttpFraming::chunked})),
      broken_chunks,
      losing(in_body("Resets", Fault::reset())),
      in_body("Babbles", Fault::replace("</never-opened>"), QUILLON_STATUS_XML_ERROR),
      in_body("HasADocumentType", Fault::replace("<!DOCTYPE r>"), QUILLON_STATUS_XML_ERROR),
  };
}

INSTANTIATE_TEST_SUITE_P(Stages, BulkFault, testing::ValuesIn(rows_of_stages()), kNameOfRow);

// ---- HTTP as it should not be

constexpr char kStatusLine[] = "HTTP/1.1 200 OK\r\n", kChunked[] = "Transfer-Encoding: chunked\r\n";

// What follows the request, and then the end; or again and again until the client is gone.
Row saying(const std::string &name, const std::string &bytes, const std::string &endlessly = {}) {
  Row row = changed(name, [=](HttpsOptions &options) {
    options.on_request = [=](testpeer::HttpExchange &exchange) {
      bool is_heard = exchange.send(bytes);
      while (is_heard && !endlessly.empty()) is_heard = exchange.send(endlessly);
      return true;
    };
  });
  row.is_asked = true;
  return row;
}

std::string chunk(const std::string &size, const std::string &bytes) { return size + "\r\n" + bytes + "\r\n"; }

// Behind a first chunk with the first item.
Row in_chunks(const std::string &name, const std::string &rest, const std::string &endlessly = {}) {
  return with_one_item(saying("Chunks_" + name, kStatusLine + (kChunked + ("\r\n" + chunk("e", kBegun))) + rest, endlessly));
}

std::string with_length(const std::string &body, const std::string &more = {}) {
  return kStatusLine + ("Content-Length: " + std::to_string(body.size()) + "\r\n") + more + "\r\n" + body;
}

std::string repeated(const std::string &text, size_t count) {
  std::string all;
  for (size_t i = 0; i < count; ++i) all += text;
  return all;
}

Row with_items(Row row, size_t items, QUILLON_STATUS status = QUILLON_STATUS_OK) {
  row.items = items;
  row.status = status;
  return row;
}

// Whatever the number says, the body is the document.
std::vector<Row> rows_of_statuses() {
  std::vector<Row> rows;
  for (const int status : {204, 304, 401, 404, 500}) {
    const std::string name = "Status" + std::to_string(status);
    const bool has_body = status != 204 && status != 304;
    rows.push_back(with_items(answering(name + "WithBody", {.status = status, .pieces = {kBegun, kRest}}), has_body ? 2 : 0));
    rows.push_back(with_items(answering(name + "WithoutBody", {.status = status}), 0));
  }
  return rows;
}

std::vector<Row> rows_of_http() {
  const std::string document = std::string(kBegun) + kRest, end = chunk("0", "");
  const std::string zipped("\x1f\x8b\x08\0\0\0\0\0\0\x03\xb3\x29\xd2\xb7\x03\0", 17);
  std::vector<Row> rows = rows_of_statuses();
  const std::vector<Row> more = {
      in_chunks("SizeIsNoNumber", "zz\r\n" + document),
      in_chunks("SizeIsNegative", "-1\r\n" + document),
      in_chunks("SizeOverflows", "fffffffffffffffff\r\n" + document),
      in_chunks("SizeOf64Bits", "ffffffffffffffff\r\n" + document),
      with_items(in_chunks("SizeOf63Bits", std::string("7fffffffffffffff\r\n") + kRest), 2, QUILLON_STATUS_REST_ERROR),
      in_chunks("WithoutALineEnd", "3\r\n<i>2" + end),
      survived(in_chunks("WithTrailers", chunk("10", kRest) + "0\r\nMore: 1\r\n\r\n")),
      silent(in_chunks("TrailersWithoutEnd", "0\r\n", repeated("More: 1\r\n", 1000))),
      silent(in_chunks("AnExtensionWithoutEnd", "1;", std::string(10'000, 'x'))),
      with_items(saying("GzipThatNobodyAskedFor", with_length(zipped, "Content-Encoding: gzip\r\n")), 0,
                 QUILLON_STATUS_XML_ERROR),
      survived(saying("ContinueThreeTimes", repeated("HTTP/1.1 100 Continue\r\n\r\n", 3) + with_length(document))),
      saying("ContinueWithoutEnd", "", repeated("HTTP/1.1 100 Continue\r\n\r\n", 1000)),
      saying("HintsWithoutEnd", "", repeated("HTTP/1.1 103 Early Hints\r\nLink: <x>\r\n\r\n", 1000)),
      // The last one holds.
      survived(saying("TwoLengths", kStatusLine + std::string("Content-Length: 5\r\n") + with_length(document).substr(17))),
      saying("ALengthThatIsNoNumber", kStatusLine + ("Content-Length: -1\r\n\r\n" + document)),
      survived(saying("LengthAndChunks",
                      kStatusLine + ("Content-Length: 3\r\n" + (kChunked + ("\r\n" + chunk("1e", document))) + end))),
      survived(saying("TrailingBytes", with_length(document) + "<more/>")),
      saying("Http09", document),
      with_items(saying("Http2Unasked",
                        "HTTP/1.1 101 Switching Protocols\r\nUpgrade: h2c\r\nConnection: Upgrade\r\n\r\n" + std::string(9, '\0')),
                 0, QUILLON_STATUS_XML_ERROR),
      saying("Http3", "HTTP/3.7 200 OK\r\n\r\n" + document),
  };
  rows.insert(rows.end(), more.begin(), more.end());
  return rows;
}

INSTANTIATE_TEST_SUITE_P(Http, BulkFault, testing::ValuesIn(rows_of_http()), kNameOfRow);

// A redirection is an answer like any other: neither the request nor the certificate goes anywhere else.
TEST_F(Bulk, NoRedirectionIsFollowed) {
  const HttpsPeer other(correct_service());
  for (const int status : {301, 302, 307, 308}) {
    for (const std::string &location : {other.url(), "http://" + other.host() + "/", std::string("/bulk"), std::string("//")}) {
      HttpsOptions options = correct_service();
      options.answer = testpeer::HttpAnswer::redirect(location, status);
      const HttpsPeer peer(options);
      open(peer);
      size_t items = 0;
      QUILLON_STATUS worst = QUILLON_STATUS_OK;
      while (read_on(items, worst)) {
      }
      close();
      EXPECT_EQ(0U, items);
      EXPECT_EQ(QUILLON_STATUS_OK, worst) << status << " " << location;
      EXPECT_EQ(1U, peer.connections()) << status << " " << location;
    }
  }
  EXPECT_EQ(0U, other.connections());
}

// ---- Certificates and versions

// An application that takes weak algorithms gets no old TLS for that.
void prefer_weakness(quillon_bulkdownload *bulkdownload, void *tls_context, void *) {
  quillon_config_fill_ssl_ctx(bulkdownload->config, tls_context, true);
  SSL_CTX_set_security_level(static_cast<SSL_CTX *>(tls_context), 0);
  SSL_CTX_set_min_proto_version(static_cast<SSL_CTX *>(tls_context), 0);
}

std::vector<Row> rows_of_tls() {
  const auto certificate = [](const char *name, const ServerIdentity &identity) {
    return changed(name, [identity](HttpsOptions &it) { it.certificate = Identities::get().authority.server(identity); });
  };
  const std::vector<std::string> here = {"127.0.0.1"};
  Row revoked = changed("Revoked", [here](HttpsOptions &it) {
    it.certificate = Identities::get().authority.server({.addresses = here});
    Identities::get().authority.revoke(it.certificate);
  });
  revoked.prepare = [](quillon_config *config, quillon_bulkdownload *) {
    quillon_config_set_crl(config, Identities::get().authority.revocations().c_str());
  };
  Row tls_1_1 = changed("Tls11Only", [](HttpsOptions &it) { it.tls_version_min = it.tls_version_max = TlsVersion::tls_1_1; });
  tls_1_1.prepare = [](quillon_config *, quillon_bulkdownload *bulk) {
    quillon_bulkdownload_set_ssl_ctx_cb(bulk, prefer_weakness);
  };
  const auto renegotiating = [](const char *name, size_t count) {
    return with_items(changed(name,
                              [count](HttpsOptions &it) {
                                it.tls_version_max = TlsVersion::tls_1_2;
                                it.faults.emplace(HttpsStage::body, Fault::tls(TlsNoise::renegotiations, count));
                              }),
                      0, QUILLON_STATUS_REST_ERROR);
  };
  return {
      survived(certificate("WithoutUsage", {.addresses = here, .usage = Usage::none})),
      certificate("Expired", {.addresses = here, .validity = Validity::expired}),
      certificate("NotYetValid", {.addresses = here, .validity = Validity::not_yet}),
      certificate("SelfSigned", {.addresses = here, .self_signed = true}),
      changed("OfAnotherAuthority",
              [here](HttpsOptions &it) { it.certificate = Identities::get().other.server({.addresses = here}); }),
      certificate("OfAName", {.names = here}),
      certificate("OfAnotherAddress", {.addresses = {"127.0.0.2"}}),
      certificate("WithTheAddressInTheSubjectOnly", {.names = {"other"}, .common_name = "127.0.0.1"}),
      certificate("ForClients", {.addresses = here, .usage = Usage::client}),
      certificate("ForCode", {.addresses = here, .usage = Usage::other}),
      changed("RefusesTheClientsCertificate",
              [](HttpsOptions &it) { it.client_authority = Identities::get().other.certificate(); }),
      revoked,
      tls_1_1,
      survived(changed("Tls12Only", [](HttpsOptions &it) { it.tls_version_max = TlsVersion::tls_1_2; })),
      survived(certificate("OfAnAuthorityBelow", {.addresses = here, .intermediates = 3})),
      certificate("OfAChainThatIsTooLong", {.addresses = here, .intermediates = 120}),
      survived(in_body("KeyUpdates", Fault::tls(TlsNoise::key_updates, 100).then(Fault::replace(kRest)))),
      silent(in_body("KeyUpdatesWithoutEnd", Fault::tls(TlsNoise::key_updates))),
      survived(in_body("SessionTickets", Fault::tls(TlsNoise::session_tickets, 100).then(Fault::replace(kRest)))),
      silent(in_body("SessionTicketsWithoutEnd", Fault::tls(TlsNoise::session_tickets))),
      survived(renegotiating("Body_Renegotiation", 1)),
      asked(silent(renegotiating("Body_RenegotiationsWithoutEnd", SIZE_MAX))),
  };
}

INSTANTIATE_TEST_SUITE_P(Tls, BulkFault, testing::ValuesIn(rows_of_tls()), kNameOfRow);

// ---- What curl would add by itself

void keep_context(quillon_bulkdownload *bulkdownload, void *tls_context, void *kept) {
  quillon_config_fill_ssl_ctx(bulkdownload->config, tls_context, true);
  SSL_CTX_up_ref(static_cast<SSL_CTX *>(tls_context));
  *static_cast<SSL_CTX **>(kept) = static_cast<SSL_CTX *>(tls_context);
}

// The authorities that the system trusts are of no account, also not once the transfer has begun.
TEST_F(Bulk, OnlyTheConfiguredAuthorityVouches) {
  SSL_CTX *kept = nullptr;
  quillon_bulkdownload_set_ssl_ctx_cb(bulk_, keep_context);
  quillon_bulkdownload_set_ssl_ctx_cb_user_data(bulk_, &kept);
  expect_download();
  ASSERT_NE(nullptr, kept);
  EXPECT_EQ(1, sk_X509_OBJECT_num(X509_STORE_get0_objects(SSL_CTX_get_cert_store(kept))));
  SSL_CTX_free(kept);
}

// curl takes the name of a key log from the environment when it is set up. Without a callback the context is curl's own, and
// shows here that it would write.
TEST_F(Bulk, TheEnvironmentGetsNoKeys) {
  const testpeer::TemporaryFolder folder;
  const std::string file = folder.file("keys");
  curl_global_cleanup();
  ASSERT_EQ(0, setenv("SSLKEYLOGFILE", file.c_str(), 1));
  ASSERT_EQ(CURLE_OK, curl_global_init(CURL_GLOBAL_DEFAULT));
  unsetenv("SSLKEYLOGFILE");
  const auto has_keys = [&] { return std::ifstream(file).peek() != std::ifstream::traits_type::eof(); };
  expect_download();
  EXPECT_FALSE(has_keys());

  quillon_bulkdownload_set_ssl_ctx_cb(bulk_, nullptr);
  const HttpsPeer peer(correct_service());
  open(peer);
  size_t items = 0;
  QUILLON_STATUS worst = QUILLON_STATUS_OK;
  while (read_on(items, worst)) {
  }
  close();
  EXPECT_TRUE(has_keys());
}

}  // namespace
}  // namespace faults

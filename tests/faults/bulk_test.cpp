// Faults of the HTTPS service while a bulk download is open: in TLS, in the head of the answer, in its body.
#include <openssl/ssl.h>

#include <cstdlib>
#include <fstream>
#include <thread>

#include "application.h"
#include "https_peer.h"
#include "quillon_bulkdownload.h"
#include "wait_for.h"

namespace faults {
namespace {

using test_support::HttpsPeer;
using test_support::wait_for;
using testpeer::ServerIdentity;
using testpeer::TlsVersion;
using testpeer::Usage;
using testpeer::Validity;
using Exchange = HttpsPeer::Exchange;

constexpr char kBegun[] = "<r><c><i>1</i>", kRest[] = "<i>2</i></c></r>";

struct Row {
  std::string name;
  std::function<void(HttpsPeer::Options &)> change;
  QUILLON_STATUS status = QUILLON_STATUS_REST_ERROR;  // the worst that the calls return
  size_t items = 0;                                   // that come all the same
  bool may_lose_items = false;
  bool is_silent = false;  // until the application closes the download
  bool is_asked = false;   // the request came that far
  std::function<void(quillon_config *, quillon_bulkdownload *)> prepare = {};

  friend void PrintTo(const Row &row, std::ostream *out) { *out << row.name; }
};

HttpsPeer::Options correct_service() {
  static const testpeer::Credentials certificate = Identities::get().authority.server(ServerIdentity{.addresses = {"127.0.0.1"}});
  HttpsPeer::Options options;
  options.certificate = certificate;
  options.client_authority = Identities::get().authority.certificate();
  options.answer = [](Exchange &exchange) {
    exchange.begin();
    exchange.send(kBegun);
    exchange.send(kRest);
  };
  return options;
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

  HttpsPeer::Options options = correct_service();
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
    EXPECT_TRUE(wait_for([&] { return options.instead_of_tls ? peer->connections() == 1 : !peer->requests().empty(); }));
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

using Script = std::function<void(Exchange &)>;

void pause_a_little(Exchange &) { std::this_thread::sleep_for(50ms); }  // Delay: this is the fault.
void close(Exchange &) {}
void reset(Exchange &exchange) { exchange.reset(); }
void truncate(Exchange &exchange) { exchange.truncate(); }
void stay_silent(Exchange &exchange) { exchange.stay_silent(); }
Script say(const std::string &text) {
  return [text](Exchange &exchange) { exchange.send(text); };
}

Row in_tls(const std::string &name, const Script &script) {
  return {.name = "Tls_" + name, .change = [script](HttpsPeer::Options &options) {
            options.instead_of_tls = [script](Exchange &exchange) {
              script(exchange);
              return false;
            };
          }};
}

Row answering(const std::string &name, const Script &script) {
  return {.name = name, .change = [script](HttpsPeer::Options &options) { options.answer = script; }, .is_asked = true};
}

Row in_head(const std::string &name, const Script &script) { return answering("Head_" + name, script); }

Row with_one_item(Row row, QUILLON_STATUS status = QUILLON_STATUS_REST_ERROR) {
  row.items = 1;
  row.status = status;
  return row;
}

Row in_body(const std::string &name, const Script &script, QUILLON_STATUS status = QUILLON_STATUS_REST_ERROR) {
  const Script answer = [script](Exchange &exchange) {
    exchange.begin();
    exchange.send(kBegun);
    script(exchange);
  };
  return with_one_item(answering("Body_" + name, answer), status);
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

Row losing(Row row) {
  row.may_lose_items = true;
  return row;
}

std::vector<Row> rows_of_stages() {
  const Script late = [](Exchange &exchange) {
    pause_a_little(exchange);
    correct_service().answer(exchange);
  };
  const Script late_rest = [](Exchange &exchange) {
    pause_a_little(exchange);
    exchange.send(kRest);
  };
  const Script less = [](Exchange &exchange) {
    exchange.begin_with_length(1000);
    exchange.send(kBegun);
  };
  const Script endless = [](Exchange &exchange) {
    exchange.send("HTTP/1.1 200 OK\r\n");
    const std::string line = "More: " + std::string(10'000, 'x') + "\r\n";
    while (exchange.send(line)) {
    }
  };
  return {
      silent(in_tls("Silent", stay_silent)),
      survived({.name = "Tls_Late",
                .change =
                    [](HttpsPeer::Options &options) {
                      options.instead_of_tls = [](Exchange &exchange) {
                        pause_a_little(exchange);
                        return true;
                      };
                    }}),
      in_tls("Closes", close),
      in_tls("Resets", reset),
      in_tls("IsCut", say({"\x16\x03\x03\x00\x7a\x02\x00", 7})),
      in_tls("Babbles", say("HTTP/1.1 400 Bad Request\r\n\r\n")),

      silent(in_head("Silent", stay_silent)),
      survived(in_head("Late", late)),
      in_head("Closes", close),
      in_head("Truncates", truncate),
      in_head("Resets", reset),
      in_head("IsCut", say("HTTP/1.1 20")),
      in_head("Babbles", say(std::string(kBegun) + kRest)),
      in_head("NeverEnds", endless),

      silent(in_body("Silent", stay_silent)),
      survived(in_body("Late", late_rest)),
      // A document that breaks off ends where it does, as the header says; only an announced length tells.
      in_body("Closes", close, QUILLON_STATUS_OK),
      in_body("Truncates", truncate, QUILLON_STATUS_OK),
      with_one_item(answering("Body_PromisesMore", less)),
      losing(in_body("Resets", reset)),
      in_body("Babbles", say("</never-opened>"), QUILLON_STATUS_XML_ERROR),
      in_body("HasADocumentType", say("<!DOCTYPE r>"), QUILLON_STATUS_XML_ERROR),
  };
}

INSTANTIATE_TEST_SUITE_P(Stages, BulkFault, testing::ValuesIn(rows_of_stages()), kNameOfRow);

// ---- Certificates and versions

// An application that takes weak algorithms gets no old TLS for that.
void prefer_weakness(quillon_bulkdownload *bulkdownload, void *tls_context, void *) {
  quillon_config_fill_ssl_ctx(bulkdownload->config, tls_context, true);
  SSL_CTX_set_security_level(static_cast<SSL_CTX *>(tls_context), 0);
  SSL_CTX_set_min_proto_version(static_cast<SSL_CTX *>(tls_context), 0);
}

std::vector<Row> rows_of_tls() {
  const auto changed = [](const char *name, const auto &change) { return Row{.name = name, .change = change}; };
  const auto certificate = [changed](const char *name, const ServerIdentity &identity) {
    return changed(name, [identity](HttpsPeer::Options &it) { it.certificate = Identities::get().authority.server(identity); });
  };
  const std::vector<std::string> here = {"127.0.0.1"};
  Row revoked = changed("Revoked", [here](HttpsPeer::Options &it) {
    it.certificate = Identities::get().authority.server({.addresses = here});
    Identities::get().authority.revoke(it.certificate);
  });
  revoked.prepare = [](quillon_config *config, quillon_bulkdownload *) {
    quillon_config_set_crl(config, Identities::get().authority.revocations().c_str());
  };
  Row tls_1_1 =
      changed("Tls11Only", [](HttpsPeer::Options &it) { it.tls_version_min = it.tls_version_max = TlsVersion::tls_1_1; });
  tls_1_1.prepare = [](quillon_config *, quillon_bulkdownload *bulk) {
    quillon_bulkdownload_set_ssl_ctx_cb(bulk, prefer_weakness);
  };
  return {
      survived(certificate("WithoutUsage", {.addresses = here, .usage = Usage::none})),
      certificate("Expired", {.addresses = here, .validity = Validity::expired}),
      certificate("NotYetValid", {.addresses = here, .validity = Validity::not_yet}),
      certificate("SelfSigned", {.addresses = here, .self_signed = true}),
      changed("OfAnotherAuthority",
              [here](HttpsPeer::Options &it) { it.certificate = Identities::get().other.server({.addresses = here}); }),
      certificate("OfAName", {.names = here}),
      certificate("OfAnotherAddress", {.addresses = {"127.0.0.2"}}),
      certificate("WithTheAddressInTheSubjectOnly", {.names = {"other"}, .common_name = "127.0.0.1"}),
      certificate("ForClients", {.addresses = here, .usage = Usage::client}),
      certificate("ForCode", {.addresses = here, .usage = Usage::other}),
      changed("RefusesTheClientsCertificate",
              [](HttpsPeer::Options &it) { it.client_authority = Identities::get().other.certificate(); }),
      revoked,
      tls_1_1,
      survived(changed("Tls12Only", [](HttpsPeer::Options &it) { it.tls_version_max = TlsVersion::tls_1_2; })),
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

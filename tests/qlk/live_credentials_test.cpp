#include <fcntl.h>
#include <openssl/ssl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <future>

#include "connection_fixture.h"

namespace {

using testpeer::ClientIdentity;
using testpeer::Credentials;
using testpeer::Validity;
using ContextPtr = std::unique_ptr<SSL_CTX, void (*)(SSL_CTX *)>;

// A client's identity that the server can tell from the fixture's own.
ClientIdentity other_alice() { return {.user = "alice", .domain = GRID_DOMAIN, .has_email_address = false}; }

class LiveCredentialsTest : public qlk_test::ConnectionFixture {
 protected:
  LiveCredentialsTest() {
    put(first_);
    const std::string &ca = authority_->certificate();
    std::filesystem::copy_file(ca, file("ca"));
    std::filesystem::copy_file(own_authority_.revocations(), file("crl"));
    quillon_config_set_client_cert_chain_filename(config_.get(), file("certificate").c_str());
    quillon_config_set_client_cert_key_filename(config_.get(), file("key").c_str());
    quillon_config_set_server_cert_chain_filename(config_.get(), file("ca").c_str());
  }

  std::string file(const char *name) const { return folder_.file(name); }
  void overwrite(const char *name, const std::string &with) {
    std::filesystem::copy_file(with, file(name), std::filesystem::copy_options::overwrite_existing);
  }
  void put(const Credentials &credentials) {
    overwrite("certificate", credentials.certificate);
    overwrite("key", credentials.key);
  }
  Credentials issue(const ClientIdentity &identity) { return own_authority_.client(identity); }

  quillon_credentials_info info() {
    quillon_credentials_info told = {};
    told.size = sizeof told;
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_config_get_credentials_info(config_.get(), &told));
    return told;
  }
  QUILLON_STATUS reload() { return quillon_config_reload_credentials(config_.get()); }
  // Connects anew, and tells whom the server has seen.
  std::string subject_seen() {
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_disconnect(raw()));
    EXPECT_EQ(QUILLON_STATUS_OK, connect()) << log_.all();
    return server_->newest()->transcript().tls.client_subject;
  }

  const testpeer::TemporaryFolder folder_;
  testpeer::CertificateAuthority own_authority_{"The Clients' Authority"};
  const Credentials first_ = own_authority_.client("alice", GRID_DOMAIN);
};

TEST_F(LiveCredentialsTest, AWholeSetReplacesTheOneBefore) {
  serve();
  EXPECT_EQ(0u, info().sets);
  ASSERT_EQ(QUILLON_STATUS_OK, reload()) << info().failure;
  const std::string before = subject_seen();
  EXPECT_EQ(before, info().subject);
  ClientIdentity locked = other_alice();
  locked.passphrase = "open sesame";
  const Credentials second = issue(locked);
  put(second);
  EXPECT_EQ(before, subject_seen());  // the files are not in force yet
  EXPECT_EQ(QUILLON_STATUS_CONNECTION_ERROR_CLIENT, reload());
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_config_set_client_cert_key_password(config_.get(), "open sesame"));
  ASSERT_EQ(QUILLON_STATUS_OK, reload()) << info().failure;
  const std::string after = subject_seen();
  EXPECT_NE(before, after);
  EXPECT_EQ(after, info().subject);
  EXPECT_EQ(2u, info().sets);
  EXPECT_FALSE(log_.contains("sesame"));

  // Of a bulk download too.
  const ContextPtr context(SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
  quillon_config_fill_ssl_ctx(config_.get(), context.get(), true);
  EXPECT_EQ(1, SSL_CTX_check_private_key(context.get()));
  EXPECT_EQ(SSL_VERIFY_PEER, SSL_CTX_get_verify_mode(context.get()));
}

TEST_F(LiveCredentialsTest, ABadSetChangesNothingAndTheReasonIsTold) {
  const Credentials another = issue(other_alice());
  const auto issued = [&](Validity validity) {
    ClientIdentity identity = other_alice();
    identity.validity = validity;
    return issue(identity);
  };
  const Credentials expired = issued(Validity::expired), early = issued(Validity::not_yet);
  const struct {
    const char *name;
    std::function<void()> spoil;
    QUILLON_STATUS status;
    const char *said;
  } cases[] = {
      {"half written", [&] { overwrite("certificate", another.certificate); }, QUILLON_STATUS_CONNECTION_ERROR_CLIENT,
       "is not the key of the certificate"},
      {"cut off", [&] { std::filesystem::resize_file(file("certificate"), 100); }, QUILLON_STATUS_CONNECTION_ERROR_CLIENT,
       "client certificate chain file"},
      {"no key", [&] { std::filesystem::remove(file("key")); }, QUILLON_STATUS_CONNECTION_ERROR_CLIENT, "No such file"},
      {"expired", [&] { put(expired); }, QUILLON_STATUS_CONNECTION_ERROR_CLIENT, "has expired"},
      {"not valid yet", [&] { put(early); }, QUILLON_STATUS_CONNECTION_ERROR_CLIENT, "is not valid yet"},
      {"a key for a CA", [&] { overwrite("ca", first_.key); }, QUILLON_STATUS_CONNECTION_ERROR_SERVER, "server CA file"},
      {"no revocations", [&] { std::filesystem::remove(file("crl")); }, QUILLON_STATUS_CONNECTION_ERROR_SERVER,
       "revocation list file"},
      {"itself revoked",
       [&] {
         own_authority_.revoke(another);
         put(another);
         overwrite("crl", own_authority_.revocations());
       },
       QUILLON_STATUS_CONNECTION_ERROR_CLIENT, "the certificate is revoked"},
  };
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_crl(config_.get(), file("crl").c_str()));
  ASSERT_EQ(QUILLON_STATUS_OK, reload()) << info().failure;
  const std::string subject = info().subject;
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    c.spoil();
    EXPECT_EQ(c.status, reload());
    const quillon_credentials_info told = info();
    EXPECT_EQ(c.status, told.last_status);
    EXPECT_NE(std::string::npos, std::string(told.failure).find(c.said)) << told.failure;
    EXPECT_TRUE(log_.contains(told.failure));
    EXPECT_EQ(1u, told.sets);
    EXPECT_EQ(subject, told.subject);
    put(first_);
    overwrite("ca", authority_->certificate());
    overwrite("crl", own_authority_.revocations());
  }
  EXPECT_EQ(QUILLON_STATUS_OK, reload());
  EXPECT_STREQ("", info().failure);
}

TEST_F(LiveCredentialsTest, ChangedFilesAreReadOnceForEachChange) {
  serve();
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_live_credentials(config_.get(), true));
  const std::string before = subject_seen();
  EXPECT_EQ(before, subject_seen());
  EXPECT_EQ(1u, info().sets);
  const Credentials second = issue(other_alice());
  ClientIdentity of_next_week = other_alice();
  of_next_week.validity = Validity::not_yet;
  const Credentials early = issue(of_next_week);
  overwrite("certificate", second.certificate);  // the key is yet to come
  EXPECT_EQ(before, subject_seen());
  EXPECT_EQ(before, subject_seen());
  EXPECT_EQ(1u, log_.count("the new credentials are refused")) << log_.all();
  overwrite("certificate", early.certificate);
  overwrite("key", early.key);
  for (size_t use = 1; use <= 2; ++use) {  // what time may cure is read again
    EXPECT_EQ(before, subject_seen());
    EXPECT_EQ(use, log_.count("is not valid yet")) << log_.all();
  }
  overwrite("certificate", second.certificate);
  overwrite("key", second.key);
  // Nor is a new version bad because it could not be read just now.
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit no_descriptor = {0, limit.rlim_max};
  const ContextPtr context(SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
  setrlimit(RLIMIT_NOFILE, &no_descriptor);
  quillon_config_fill_ssl_ctx(config_.get(), context.get(), false);
  setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_EQ(1u, log_.count("Too many open files")) << log_.all();
  EXPECT_NE(before, subject_seen());
  EXPECT_EQ(2u, info().sets);
}

TEST_F(LiveCredentialsTest, ARunningConnectionIsRenewedOnRequest) {
  serve();
  EXPECT_EQ(QUILLON_STATUS_NO_CONNECTION, quillon_connection_renew(raw(), 10000));
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_live_credentials(config_.get(), true));
  const std::string before = subject_seen();
  put(issue(other_alice()));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_renew(raw(), 10000));
  EXPECT_NE(before, server_->newest()->transcript().tls.client_subject);
  EXPECT_TRUE(quillon_connection_is_connected(raw()));
  EXPECT_EQ(2u, server_->connections());
  EXPECT_TRUE(server_->connection(0)->transcript().is_closed_by_client);
  EXPECT_EQ(2, seen().connected);
}

TEST_F(LiveCredentialsTest, ARevokedServerIsRefusedAndTheLogSaysSo) {
  enum class In { files, live, force };
  for (const In in : {In::files, In::live, In::force}) {
    SCOPED_TRACE(static_cast<int>(in));
    serve();
    ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_live_credentials(config_.get(), in == In::live));
    if (in == In::force) {
      ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_crl(config_.get(), nullptr));
      ASSERT_EQ(QUILLON_STATUS_OK, reload()) << info().failure;
      std::filesystem::remove(file("key"));
      EXPECT_EQ(QUILLON_STATUS_CONNECTION_ERROR_CLIENT, reload());  // no other set comes into force, revocations do
    }
    std::filesystem::remove(file("crl"));
    ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_crl(config_.get(), file("crl").c_str()));
    EXPECT_EQ(QUILLON_STATUS_CONNECTION_ERROR, connect());
    overwrite("crl", authority_->revocations());
    EXPECT_FALSE(subject_seen().empty());
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_disconnect(raw()));
    authority_->revoke(served_);
    overwrite("crl", authority_->revocations());
    EXPECT_EQ(QUILLON_STATUS_CONNECTION_ERROR, connect());
    EXPECT_TRUE(log_.contains("the server's certificate is revoked: ")) << log_.all();
    // Of another authority: whether this server is revoked cannot be told.
    overwrite("crl", own_authority_.revocations());
    EXPECT_EQ(QUILLON_STATUS_CONNECTION_ERROR, connect());
    EXPECT_TRUE(log_.contains("whether the server's certificate is revoked cannot be told: ")) << log_.all();
  }
}

// The key is a pipe that nobody writes to: reading it takes as long as it likes.
TEST_F(LiveCredentialsTest, AReloadThatHangsHoldsUpNobodyElse) {
  ASSERT_EQ(QUILLON_STATUS_OK, reload()) << info().failure;
  std::filesystem::remove(file("key"));
  ASSERT_EQ(0, mkfifo(file("key").c_str(), 0600));
  auto reloading = std::async(std::launch::async, [&] { return reload(); });
  int writer = -1;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (writer < 0 && std::chrono::steady_clock::now() < end) writer = open(file("key").c_str(), O_WRONLY | O_NONBLOCK);
  ASSERT_GE(writer, 0);
  const ContextPtr context(SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
  auto filling = std::async(std::launch::async, [&] { quillon_config_fill_ssl_ctx(config_.get(), context.get(), false); });
  EXPECT_EQ(std::future_status::ready, filling.wait_for(std::chrono::seconds(30)));
  quillon_config *copy = nullptr;
  quillon_config_clone(config_.get(), &copy);
  close(writer);
  EXPECT_EQ(QUILLON_STATUS_CONNECTION_ERROR_CLIENT, reloading.get());
  const std::unique_ptr<quillon_config, void (*)(quillon_config *)> owned(copy, quillon_config_destroy);
  filling.get();
  const ContextPtr of_copy(SSL_CTX_new(TLS_client_method()), SSL_CTX_free);  // its key file is of no use by now
  quillon_config_fill_ssl_ctx(copy, of_copy.get(), false);
  EXPECT_EQ(1, SSL_CTX_check_private_key(of_copy.get())) << log_.all();
}

TEST_F(LiveCredentialsTest, AnEndThatIsNearIsTold) {
  const struct {
    int days;
    bool is_told;
  } cases[] = {{14, false}, {60, true}, {0, false}};  // the certificate has 30
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_config_set_expiry_warning_days(config_.get(), -1));
  size_t warnings = 0;
  for (const auto &c : cases) {
    ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_expiry_warning_days(config_.get(), c.days));
    ASSERT_EQ(QUILLON_STATUS_OK, reload());
    warnings += c.is_told ? 1 : 0;
    EXPECT_EQ(c.is_told, info().is_about_to_expire) << c.days;
    EXPECT_EQ(warnings, log_.count("the client's certificate expires on ")) << c.days;
  }
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_expiry_warning_days(config_.get(), 60));
  serve();
  for (int use = 0; use < 2; ++use) subject_seen();
  EXPECT_EQ(warnings + 1, log_.count("the client's certificate expires on "));  // the days go by while a set is in force
  const int64_t left = info().expires - static_cast<int64_t>(time(nullptr));
  EXPECT_NEAR(30.0 * 86400, static_cast<double>(left), 86400);
}

}  // namespace

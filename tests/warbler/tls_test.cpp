// What a server has to show before it is believed.
#include "tls.h"

#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509_vfy.h>

#include <cstdio>
#include <functional>
#include <ostream>
#include <qlk/testpeer/certificates.hpp>

#include "oom.h"

namespace {

using Prepare = std::function<void(SSL_CTX *)>;

struct CertificateFree {
  void operator()(X509 *certificate) const { X509_free(certificate); }
};
using CertificatePtr = std::unique_ptr<X509, CertificateFree>;

struct StoreFree {
  void operator()(X509_STORE_CTX *store) const { X509_STORE_CTX_free(store); }
};

wb::SslPtr make_tls(const Prepare &prepare, const wb::ExpectedNames &names) {
  wb::TlsHooks hooks;
  hooks.connect = [](void *context, void *arg) { (*static_cast<const Prepare *>(arg))(static_cast<SSL_CTX *>(context)); };
  hooks.connect_arg = const_cast<Prepare *>(&prepare);
  std::string error;
  wb::SslPtr ssl = wb::make_tls(hooks, names, error);
  EXPECT_EQ(ssl == nullptr, !error.empty());
  return ssl;
}

void verify_peer(SSL_CTX *context) { SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr); }

CertificatePtr read_certificate(const std::string &path) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE *)> file(std::fopen(path.c_str(), "rb"), std::fclose);
  return CertificatePtr(file != nullptr ? PEM_read_X509(file.get(), nullptr, nullptr, nullptr) : nullptr);
}

// What the check within the handshake says of a chain's first certificate that OpenSSL has found to be good. It misses the nth
// allocation.
bool accepts(const wb::SslPtr &ssl, const CertificatePtr &certificate, [[maybe_unused]] long nth = 0) {
  const std::unique_ptr<X509_STORE_CTX, StoreFree> store(X509_STORE_CTX_new());
  X509_STORE_CTX_init(store.get(), nullptr, certificate.get(), nullptr);
  X509_STORE_CTX_set_ex_data(store.get(), SSL_get_ex_data_X509_STORE_CTX_idx(), ssl.get());
  X509_STORE_CTX_set_current_cert(store.get(), certificate.get());
  X509_STORE_CTX_set_error_depth(store.get(), 0);
  const SSL_verify_cb check = SSL_get_verify_callback(ssl.get());
#if QLK_HAS_OOM
  const oom::FailNth failing(nth);
#endif
  return check == nullptr || check(1, store.get()) == 1;
}

// The connection forgets its expected names, wherever it keeps them. False when it has none.
bool forget_names(const wb::SslPtr &ssl, const wb::ExpectedNames &names) {
  for (int i = 0; i < 64; ++i) {
    if (SSL_get_ex_data(ssl.get(), i) == &names) return SSL_set_ex_data(ssl.get(), i, nullptr) == 1;
  }
  return false;
}

struct Fixture {
  testpeer::CertificateAuthority authority;
  CertificatePtr right = read_certificate(authority.server("grid.test").certificate);
  CertificatePtr wrong = read_certificate(authority.server("other.test").certificate);
};

TEST(Tls, AServerWhoseNameCannotBeCheckedIsRefused) {
  const Fixture fixture;
  const wb::ExpectedNames names{"grid.test", "127.0.0.1"};
  const wb::SslPtr ssl = make_tls(verify_peer, names);
  ASSERT_NE(nullptr, ssl);
  EXPECT_TRUE(accepts(ssl, fixture.right));
  EXPECT_FALSE(accepts(ssl, fixture.wrong));
  ASSERT_TRUE(forget_names(ssl, names));
  EXPECT_FALSE(accepts(ssl, fixture.right));
}

// ---- Expectations of the application

struct ExpectationCase {
  const char *name;
  std::function<int(X509_VERIFY_PARAM *)> expect;
};

void PrintTo(const ExpectationCase &one, std::ostream *out) { *out << one.name; }

const ExpectationCase kExpectationCases[] = {
    {"Host", [](X509_VERIFY_PARAM *param) { return X509_VERIFY_PARAM_set1_host(param, "other.test", 0); }},
    {"Address", [](X509_VERIFY_PARAM *param) { return X509_VERIFY_PARAM_set1_ip_asc(param, "192.0.2.1"); }},
    {"Address6", [](X509_VERIFY_PARAM *param) { return X509_VERIFY_PARAM_set1_ip_asc(param, "2001:db8::1"); }},
    {"Email", [](X509_VERIFY_PARAM *param) { return X509_VERIFY_PARAM_set1_email(param, "grid@other.test", 0); }},
};

class TlsExpectation : public testing::TestWithParam<ExpectationCase> {};

// OpenSSL checks them, and our own names are not asked for as well.
TEST_P(TlsExpectation, TakesThePlaceOfOurs) {
  const Fixture fixture;
  const wb::ExpectedNames names{"grid.test", "127.0.0.1"};
  const wb::SslPtr ssl = make_tls(
      [](SSL_CTX *context) {
        verify_peer(context);
        EXPECT_EQ(1, GetParam().expect(SSL_CTX_get0_param(context)));
      },
      names);
  ASSERT_NE(nullptr, ssl);
  EXPECT_TRUE(accepts(ssl, fixture.wrong));
}

INSTANTIATE_TEST_SUITE_P(Expectations, TlsExpectation, testing::ValuesIn(kExpectationCases),
                         [](const auto &test) { return test.param.name; });

#if QLK_HAS_OOM
// Whatever allocation fails: either there is no connection, or it checks the name.
TEST(Tls, WithoutMemoryNothingGoesUnchecked) {
  const Fixture fixture;
  const wb::ExpectedNames names{"grid.test", "127.0.0.1"};
  const Prepare prepare = verify_peer;
  const long total = oom::count([&] { make_tls(prepare, names); });
  for (long nth = 1; nth <= total; ++nth) {
    wb::SslPtr ssl;
    {
      const oom::FailNth failing(nth);
      ssl = make_tls(prepare, names);
    }
    if (ssl != nullptr) {
      EXPECT_FALSE(accepts(ssl, fixture.wrong)) << nth;
    }
  }
}

// The check is called by OpenSSL, which knows nothing of exceptions.
TEST(Tls, WithoutMemoryTheCheckRefuses) {
  const Fixture fixture;
  const wb::ExpectedNames names{"a-name-that-is-not-kept-in-the-string.grid.test", "127.0.0.1"};
  const wb::SslPtr ssl = make_tls(verify_peer, names);
  ASSERT_NE(nullptr, ssl);
  for (long nth = 1; nth <= 8; ++nth) EXPECT_FALSE(accepts(ssl, fixture.wrong, nth)) << nth;
}
#endif

}  // namespace

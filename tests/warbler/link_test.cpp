// How much of what a peer says a link takes in at once.
#include "link.h"

#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <qlk/testpeer/certificates.hpp>

#include "tls.h"

namespace {

// A server at the other end of a link, which hands over what it has to say when it is told to.
struct Server {
  Server(const testpeer::Credentials &own, int descriptor)
      : fd(descriptor), context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free) {
    SSL_CTX_use_certificate_chain_file(context.get(), own.certificate.c_str());
    SSL_CTX_use_PrivateKey_file(context.get(), own.key.c_str(), SSL_FILETYPE_PEM);
    ssl.reset(SSL_new(context.get()));
    SSL_set_bio(ssl.get(), BIO_new_socket(fd, BIO_CLOSE), output);
    SSL_set_accept_state(ssl.get());
  }

  void hand_over() const {
    char *bytes = nullptr;
    const long size = BIO_get_mem_data(output, &bytes);
    EXPECT_EQ(size, write(fd, bytes, static_cast<size_t>(size)));
    BIO_reset(output);
  }

  const int fd;
  const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context;
  BIO *const output = BIO_new(BIO_s_mem());
  wb::SslPtr ssl;
};

int unread(const wb::Link &link) {
  int bytes = 0;
  EXPECT_EQ(0, ioctl(link.fd(), FIONREAD, &bytes));
  return bytes;
}

// OpenSSL itself would read on until there is something for the application, and keep the loop as long as the peer likes.
TEST(Link, TakesNewKeysInTurnsAndNotWithoutEnd) {
  constexpr int kNoise = 48 * 1024, kTurn = 32 * 1024;
  testpeer::CertificateAuthority authority;
  int ends[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends));
  const std::shared_ptr<wb::Link> link = wb::Link::take_over(ends[0]);
  const Server server(authority.server("grid.test"), ends[1]);
  const wb::ExpectedNames names{"grid.test", ""};
  std::string error;
  ASSERT_TRUE(link->start_tls(wb::make_tls({}, names, error))) << error;
  wb::Link::Io shaken = wb::Link::Io::again;
  for (int flights = 0; flights < 4 && (shaken != wb::Link::Io::done || SSL_is_init_finished(server.ssl.get()) != 1); ++flights) {
    link->look_again();
    shaken = link->handshake();
    link->flush();
    SSL_do_handshake(server.ssl.get());
    server.hand_over();
  }
  ASSERT_EQ(wb::Link::Io::done, shaken) << link->reason();

  while (BIO_pending(server.output) < kNoise)
    ASSERT_TRUE(SSL_key_update(server.ssl.get(), SSL_KEY_UPDATE_REQUESTED) == 1 && SSL_do_handshake(server.ssl.get()) == 1);
  ASSERT_EQ(4, SSL_write(server.ssl.get(), "word", 4));
  server.hand_over();
  char word[8];
  size_t got = 0;
  for (int left = unread(*link); left > 0; left = unread(*link)) {
    ASSERT_EQ(0U, got);
    link->look_again();
    const wb::Link::Io read = link->read(word, sizeof word, got);
    ASSERT_TRUE(read == wb::Link::Io::again || read == wb::Link::Io::done) << link->reason();
    EXPECT_LE(left - unread(*link), kTurn);
  }
  EXPECT_EQ("word", std::string_view(word, got));

  while (BIO_pending(server.output) < 3 * kNoise)
    ASSERT_TRUE(SSL_key_update(server.ssl.get(), SSL_KEY_UPDATE_REQUESTED) == 1 && SSL_do_handshake(server.ssl.get()) == 1);
  server.hand_over();
  wb::Link::Io read = wb::Link::Io::again;
  for (int turns = 0; turns < 4 && read == wb::Link::Io::again; ++turns) {
    link->look_again();
    read = link->read(word, sizeof word, got);
  }
  EXPECT_EQ(wb::Link::Io::failed, read);
  EXPECT_GT(unread(*link), 0);
}

}  // namespace

// A client that says what it is told and shows what it hears: blocking, and no more than OpenSSL around a socket.
#pragma once

#include <openssl/ssl.h>
#include <qlk/testpeer/certificates.hpp>

#include <memory>
#include <string>
#include <string_view>

namespace testpeer {

class RawClient {
 public:
  explicit RawClient(unsigned port, bool ipv6 = false);
  ~RawClient();
  RawClient(const RawClient &) = delete;
  RawClient &operator=(const RawClient &) = delete;

  void send(std::string_view bytes);
  // Everything up to the end of this text; what came so far when the connection ends or nothing comes for ten seconds.
  std::string read_until(std::string_view end);
  // Everything until the connection ends.
  std::string read_all() { return read_until({}); }
  // Whether everything came, in TLS, and TLS said goodbye before TCP did.
  bool ended_in_order() const { return ending_ == Ending::in_order; }
  bool was_reset() const { return ending_ == Ending::reset; }
  // Waits for so many milliseconds; whether nothing came, not even the end.
  bool hears_nothing(int milliseconds);
  // Verifies the server against the authority with its revocations, and its name. False when the handshake fails.
  bool start_tls(const CertificateAuthority &authority, const Credentials &own, const std::string &server_name);
  // X509_V_OK or why the server was refused.
  long verify_result() const { return SSL_get_verify_result(ssl_.get()); }
  // How many reads returned something.
  unsigned pieces() const { return pieces_; }
  // How many messages of a handshake came, in it and since.
  unsigned handshake_messages() const { return handshake_messages_; }

 private:
  enum class Ending { none, in_order, truncated, reset, timeout };
  struct SslFree {
    void operator()(SSL *ssl) const { SSL_free(ssl); }
  };

  bool read_piece();

  int socket_;
  std::unique_ptr<SSL, SslFree> ssl_;
  std::string unread_;
  unsigned pieces_ = 0, handshake_messages_ = 0;
  Ending ending_ = Ending::none;
  bool told_of_reset_ = false;  // by a write
};

}  // namespace testpeer

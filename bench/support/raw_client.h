// The limit of the round-trip lines: a socket that sends bytes made before and looks for bytes known before. It blocks in read
// and never polls; nothing is parsed.
#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>
#include <string_view>

#include "arguments.h"

namespace bench {

// Where a client connects to and as whom; from the options --port, --tls, --domain, --user, --ca, --certificate, --key and
// --password.
struct Target {
  explicit Target(const Arguments &arguments);

  std::string host() const { return "127.0.0.1:" + std::to_string(port); }
  std::string bare_jid() const { return user + "@" + domain; }
  std::string jid() const { return bare_jid() + "/qlk"; }
  // An address at which the echo server answers.
  std::string peer_jid() const { return "publisher-0@" + domain + "/qlk"; }

  unsigned short port;
  bool tls;
  std::string domain, user, ca, certificate, key;
  bool has_password;  // given instead of the certificate, for peers that cannot do otherwise
  std::string password;
};

class RawClient {
 public:
  // Reads the certificates, once for all connections.
  explicit RawClient(const Target &target);
  ~RawClient();
  RawClient(const RawClient &) = delete;
  RawClient &operator=(const RawClient &) = delete;

  // Comes to a bound session in as few round trips as XMPP allows: stream and STARTTLS, TLS 1.3, stream and SASL, stream and
  // binding. Ends the program with a message when it fails.
  void connect();
  // Ends the stream, waits until the server has done so too, and disconnects.
  void leave();
  void disconnect();

  void send(std::string_view bytes);
  // Blocks for at least one byte; what came is valid until the next call.
  std::string_view receive();
  // Receives until the text came; returns when it was the last that came.
  void wait_for(std::string_view text);

 private:
  std::string_view read();  // empty at the end

  const Target &target_;
  std::unique_ptr<SSL_CTX, void (*)(SSL_CTX *)> context_;
  std::unique_ptr<SSL, void (*)(SSL *)> ssl_;
  int fd_ = -1;
  bool bound_ = false;
  std::unique_ptr<char[]> buffer_;
};

// Counts how often a text comes in a stream of pieces, also across their borders.
class Counter {
 public:
  explicit Counter(std::string text) : text_(std::move(text)) {}
  long count(std::string_view piece);

 private:
  const std::string text_;
  std::string border_;
};

}  // namespace bench

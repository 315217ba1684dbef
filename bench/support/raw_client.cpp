#include "raw_client.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/evp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "measure.h"

namespace bench {

namespace {

constexpr size_t kReadBytes = 64 * 1024;

std::string base64(const std::string &text) {
  std::string out(4 * ((text.size() + 2) / 3) + 1, '\0');
  const int size = EVP_EncodeBlock(reinterpret_cast<unsigned char *>(out.data()),
                                   reinterpret_cast<const unsigned char *>(text.data()), static_cast<int>(text.size()));
  out.resize(static_cast<size_t>(size));
  return out;
}

std::string stream_head(const Target &target) {
  return "<?xml version='1.0'?><stream:stream to='" + target.domain +
         "' version='1.0' xml:lang='en' xmlns='jabber:client' xmlns:stream='http://etherx.jabber.org/streams'>";
}

}  // namespace

Target::Target(const Arguments &arguments)
    : port(static_cast<unsigned short>(arguments.number("port", 0))),
      tls(arguments.text("tls", "yes") == "yes"),
      domain(arguments.text("domain", "grid.quillon.internal")),
      user(arguments.text("user", "bench")),
      ca(arguments.required("ca")),
      certificate(arguments.required("certificate")),
      key(arguments.required("key")),
      has_password(!arguments.text("password").empty()),
      password(arguments.text("password", "none")) {
  if (port == 0) fail("--port is missing");
}

RawClient::RawClient(const Target &target)
    : target_(target),
      context_(SSL_CTX_new(TLS_client_method()), SSL_CTX_free),
      ssl_(nullptr, SSL_free),
      buffer_(new char[kReadBytes]) {
  SSL_CTX_set_min_proto_version(context_.get(), TLS1_3_VERSION);
  SSL_CTX_set_verify(context_.get(), SSL_VERIFY_PEER, nullptr);
  if (SSL_CTX_load_verify_locations(context_.get(), target.ca.c_str(), nullptr) != 1 ||
      SSL_CTX_use_certificate_chain_file(context_.get(), target.certificate.c_str()) != 1 ||
      SSL_CTX_use_PrivateKey_file(context_.get(), target.key.c_str(), SSL_FILETYPE_PEM) != 1) {
    fail("a certificate or key cannot be used");
  }
}

RawClient::~RawClient() { disconnect(); }

void RawClient::connect() {
  fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(target_.port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd_ < 0 || ::connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
    fail(std::string("cannot connect: ") + std::strerror(errno));
  }
  const int on = 1;
  setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  const std::string head = stream_head(target_);
  if (target_.tls) {
    send(head + "<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>");
    wait_for("<proceed");
    ssl_.reset(SSL_new(context_.get()));
    SSL_set_fd(ssl_.get(), fd_);
    SSL_set_read_ahead(ssl_.get(), 1);  // else each record costs two calls: its head, and then the rest
    SSL_set_tlsext_host_name(ssl_.get(), target_.domain.c_str());
    if (SSL_connect(ssl_.get()) != 1) fail("the TLS handshake failed");
  }
  send(head + "<auth xmlns='urn:ietf:params:xml:ns:xmpp-sasl' mechanism='EXTERNAL'>" + base64(target_.user) + "</auth>");
  wait_for("<success");
  send(head + "<iq type='set' id='bind'><bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'><resource>qlk</resource></bind></iq>");
  wait_for("</iq>");
  bound_ = true;
}

void RawClient::leave() {
  send("</stream:stream>");
  Counter end("</stream:stream>");
  for (std::string_view piece = read(); !piece.empty() && end.count(piece) == 0; piece = read()) {
  }
  disconnect();
}

void RawClient::disconnect() {
  if (fd_ < 0) return;
  ssl_.reset();
  bound_ = false;
  close(fd_);
  fd_ = -1;
}

void RawClient::send(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = ssl_ != nullptr ? SSL_write(ssl_.get(), bytes.data(), static_cast<int>(bytes.size()))
                                         : ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0) fail("the server does not take what is sent");
    bytes.remove_prefix(static_cast<size_t>(sent));
  }
}

std::string_view RawClient::read() {
  if (!bound_) {
    // While a session comes up the server writes in small pieces, and holds the next back until the last is acknowledged. The
    // kernel forgets the option as it goes.
    const int on = 1;
    setsockopt(fd_, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
  }
  const ssize_t got = ssl_ != nullptr ? SSL_read(ssl_.get(), buffer_.get(), kReadBytes) : recv(fd_, buffer_.get(), kReadBytes, 0);
  return {buffer_.get(), static_cast<size_t>(std::max<ssize_t>(got, 0))};
}

std::string_view RawClient::receive() {
  const std::string_view piece = read();
  if (piece.empty()) fail("the server has closed the connection");
  return piece;
}

void RawClient::wait_for(std::string_view text) {
  Counter counter{std::string(text)};
  while (counter.count(receive()) == 0) {
  }
}

long Counter::count(std::string_view piece) {
  const size_t kept = text_.size() - 1;  // no more than that of what came before can belong to an occurrence
  long found = 0;
  border_.append(piece.substr(0, kept));
  if (border_.find(text_) != std::string::npos) ++found;
  for (size_t at = piece.find(text_); at != std::string_view::npos; at = piece.find(text_, at + text_.size())) ++found;
  if (piece.size() >= kept) {
    border_ = piece.substr(piece.size() - kept);
  } else if (border_.size() > kept) {
    border_.erase(0, border_.size() - kept);
  }
  return found;
}

}  // namespace bench

#include "https_peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

namespace test_support {

namespace {

void require(bool done, const char *what) {
  if (!done) throw std::runtime_error(std::string("the test's HTTPS service: ") + what);
}

int number_of(testpeer::TlsVersion version) {
  if (version == testpeer::TlsVersion::tls_1_1) return TLS1_1_VERSION;
  return version == testpeer::TlsVersion::tls_1_2 ? TLS1_2_VERSION : TLS1_3_VERSION;
}

SslContextPtr make_context(const HttpsPeer::Options &options) {
  SslContextPtr context(SSL_CTX_new(TLS_server_method()));
  require(context != nullptr, "no TLS context");
  // What is older than 1.2 signs with what the usual level refuses.
  if (options.tls_version_min < testpeer::TlsVersion::tls_1_2) SSL_CTX_set_security_level(context.get(), 0);
  SSL_CTX_set_min_proto_version(context.get(), number_of(options.tls_version_min));
  SSL_CTX_set_max_proto_version(context.get(), number_of(options.tls_version_max));
  SSL_CTX_set_num_tickets(context.get(), 0);
  SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
  require(SSL_CTX_use_certificate_chain_file(context.get(), options.certificate.certificate.c_str()) == 1 &&
              SSL_CTX_use_PrivateKey_file(context.get(), options.certificate.key.c_str(), SSL_FILETYPE_PEM) == 1 &&
              SSL_CTX_load_verify_locations(context.get(), options.client_authority.c_str(), nullptr) == 1,
          "no certificates");
  return context;
}

// A socket bound to a free port of 127.0.0.1.
int bind_to_free_port(unsigned &port) {
  const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto *generic = reinterpret_cast<sockaddr *>(&address);
  require(descriptor >= 0 && ::bind(descriptor, generic, length) == 0 && getsockname(descriptor, generic, &length) == 0,
          "no socket");
  port = ntohs(address.sin_port);
  return descriptor;
}

// Reads a head and as much of a body as it announces. False when the client has gone before that.
bool read_request(ServerSocket &socket, std::string &request) {
  size_t end = std::string::npos;
  while ((end = request.find("\r\n\r\n")) == std::string::npos) {
    if (!socket.read(request)) return false;
  }
  constexpr std::string_view length_header = "Content-Length: ";
  const size_t at = request.find(length_header);
  const size_t body = at < end ? std::strtoul(request.c_str() + at + length_header.size(), nullptr, 10) : 0;
  while (request.size() < end + 4 + body) {
    if (!socket.read(request)) return false;
  }
  return true;
}

}  // namespace

HttpsPeer::HttpsPeer(Options options) : options_(std::move(options)), tls_(make_context(options_)) {
  listener_ = bind_to_free_port(port_);
  require(listen(listener_, 64) == 0, "cannot listen");
  acceptor_ = std::thread([this] { accept_clients(); });
}

HttpsPeer::~HttpsPeer() {
  {
    const std::lock_guard lock(mutex_);
    ending_ = true;
    for (const Client &client : clients_) {
      if (client.socket != nullptr) client.socket->interrupt();
    }
  }
  shutdown(listener_, SHUT_RDWR);
  acceptor_.join();
  for (Client &client : clients_) client.thread.join();
  close(listener_);
}

void HttpsPeer::accept_clients() {
  for (;;) {
    const int descriptor = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (descriptor < 0) return;
    const int on = 1;
    setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    ++connections_;
    reap();
    const std::lock_guard lock(mutex_);
    Client &client = clients_.emplace_back();
    client.socket = std::make_unique<ServerSocket>(descriptor);
    if (ending_) client.socket->interrupt();
    client.thread = std::thread([this, &client] {
      serve(*client.socket);
      const std::lock_guard guard(mutex_);
      client.socket.reset();
      ++ended_;
    });
  }
}

// Lets go of the clients that are done.
void HttpsPeer::reap() {
  std::list<Client> done;
  {
    const std::lock_guard lock(mutex_);
    for (auto client = clients_.begin(); client != clients_.end();) {
      const auto next = std::next(client);
      if (client->socket == nullptr) done.splice(done.end(), clients_, client);
      client = next;
    }
  }
  for (Client &client : done) client.thread.join();
}

void HttpsPeer::serve(ServerSocket &socket) {
  std::string request;
  Exchange exchange(socket, "");
  const bool speaks_tls = !options_.instead_of_tls || options_.instead_of_tls(exchange);
  if (!speaks_tls) {
    socket.finish();
    return exchange.stay_silent();
  }
  if (!socket.start_tls(tls_.get()) || !read_request(socket, request)) return;
  {
    const std::lock_guard lock(mutex_);
    requests_.push_back(request);
  }
  Exchange answered(socket, request);
  options_.answer(answered);
  socket.finish();
  answered.stay_silent();  // a socket that is closed over unread bytes resets the connection
}

std::vector<std::string> HttpsPeer::requests() const {
  const std::lock_guard lock(mutex_);
  return requests_;
}

bool HttpsPeer::Exchange::begin(int status) {
  return send("HTTP/1.1 " + std::to_string(status) + " As told\r\nContent-Type: application/xml\r\nConnection: close\r\n\r\n");
}

bool HttpsPeer::Exchange::begin_with_length(size_t length) {
  return send("HTTP/1.1 200 OK\r\nContent-Type: application/xml\r\nContent-Length: " + std::to_string(length) + "\r\n\r\n");
}

void HttpsPeer::Exchange::stay_silent() {
  for (std::string ignored; socket_.read(ignored);) ignored.clear();
}

DeafPort::DeafPort() { socket_ = bind_to_free_port(port_); }

DeafPort::~DeafPort() { close(socket_); }

}  // namespace test_support

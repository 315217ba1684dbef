#include "probe.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "descriptor.h"
#include "text.h"

namespace tool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kDefaultPort[] = "5222";
constexpr size_t kReplyBytesMax = 64u << 10;
constexpr char kOpening[] =
    "<?xml version='1.0'?><stream:stream xmlns='jabber:client' xmlns:stream='http://etherx.jabber.org/streams' version='1.0' "
    "to='" QLK_GRID_DOMAIN "'>";
constexpr char kStartTls[] = "<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>";

struct Endpoint {
  std::string name, port = kDefaultPort;
};

using Addresses = std::unique_ptr<addrinfo, Ended<freeaddrinfo>>;
using Context = std::unique_ptr<SSL_CTX, Ended<SSL_CTX_free>>;
using Tls = std::unique_ptr<SSL, Ended<SSL_free>>;

// What ends the probe, for the user.
struct Complaint {
  std::string text;
};

Endpoint split(const std::string &host) {
  Endpoint endpoint;
  const bool is_bracketed = host.starts_with('[');
  const size_t end = is_bracketed ? host.find(']') : host.find(':');
  endpoint.name = is_bracketed ? host.substr(1, end - 1) : host.substr(0, end);
  const size_t colon = is_bracketed && end != std::string::npos ? end + 1 : end;
  if (colon < host.size()) endpoint.port = host[colon] == ':' ? host.substr(colon + 1) : "";
  const bool is_number = !endpoint.port.empty() && endpoint.port.find_first_not_of("0123456789") == std::string::npos;
  if (endpoint.name.empty() || !is_number || endpoint.port.size() > 5 || std::stoi(endpoint.port) > 65535) {
    throw Complaint{"this is no host: name, name:port, 192.0.2.1:port or [2001:db8::1]:port"};
  }
  return endpoint;
}

std::string address_text(const addrinfo &address) {
  char name[NI_MAXHOST] = "", port[NI_MAXSERV] = "";
  getnameinfo(address.ai_addr, address.ai_addrlen, name, sizeof name, port, sizeof port, NI_NUMERICHOST | NI_NUMERICSERV);
  return address.ai_family == AF_INET6 ? "[" + std::string(name) + "]:" + port : std::string(name) + ":" + port;
}

std::string tls_reason(const char *otherwise) {
  const unsigned long code = ERR_peek_last_error();
  const char *reason = code != 0 ? ERR_reason_error_string(code) : nullptr;
  ERR_clear_error();
  return reason != nullptr ? reason : otherwise;
}

class Prober {
 public:
  Prober(const std::string &host, const Settings &settings, const Stop &stop, Probe &probe)
      : endpoint_(split(host)), settings_(settings), stop_(stop), probe_(probe) {}

  void run(const std::function<void(const std::string &)> &on_address) {
    connect();
    on_address(probe_.address);
    begin_deadline();
    send(kOpening);
    if (receive_until("</stream:features>").find("<starttls") == std::string::npos) throw Complaint{"it offers no TLS"};
    send(kStartTls);
    receive_until("<proceed");
    begin_deadline();
    shake_hands();
    if (probe_.verification != X509_V_OK || !probe_.bears_name) return;
    begin_deadline();
    send(kOpening);
    if (receive_until("</stream:features>").find(">EXTERNAL<") == std::string::npos) {
      throw Complaint{"it does not offer to know you by your certificate (SASL EXTERNAL)"};
    }
    authenticate();
  }

 private:
  void authenticate() {
    const std::string &user = settings_.values.user;
    std::string encoded(4 * (user.size() / 3 + 1) + 1, '\0');
    EVP_EncodeBlock(reinterpret_cast<unsigned char *>(encoded.data()), reinterpret_cast<const unsigned char *>(user.data()),
                    static_cast<int>(user.size()));
    encoded.resize(encoded.find('\0'));
    send("<auth xmlns='urn:ietf:params:xml:ns:xmpp-sasl' mechanism='EXTERNAL'>" + encoded + "</auth>");
    const std::string reply = receive_until(">");
    probe_.accepts_user = reply.starts_with("<success");
    if (!probe_.accepts_user) throw Complaint{"it does not accept you: your certificate, or that it is yours"};
  }

  void begin_deadline() { deadline_ = Clock::now() + std::chrono::seconds(settings_.values.timeout_seconds); }

  void wait(short events, const char *what) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline_ - Clock::now()).count();
    pollfd waited[] = {{socket_.get(), events, 0}, {stop_.descriptor(), POLLIN, 0}};
    const int ready = left > 0 ? poll(waited, 2, static_cast<int>(left)) : 0;
    stop_.check();
    if (ready == 0) throw Complaint{std::string(what) + " in " + std::to_string(settings_.values.timeout_seconds) + " s"};
  }

  void connect() {
    addrinfo hints = {};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    const int error = getaddrinfo(endpoint_.name.c_str(), endpoint_.port.c_str(), &hints, &found);
    const Addresses addresses(found);
    if (error != 0) throw Complaint{"the name cannot be resolved: " + std::string(gai_strerror(error))};
    std::string reason;
    for (const addrinfo *address = found; address != nullptr; address = address->ai_next) {
      if (try_address(*address, reason)) return;
    }
    throw Complaint{reason};
  }

  bool try_address(const addrinfo &address, std::string &reason) {
    begin_deadline();
    socket_ = Descriptor(socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    int error = ::connect(socket_.get(), address.ai_addr, address.ai_addrlen) == 0 ? 0 : errno;
    try {
      if (error == EINPROGRESS) {
        wait(POLLOUT, "no answer");
        socklen_t size = sizeof error;
        getsockopt(socket_.get(), SOL_SOCKET, SO_ERROR, &error, &size);
      }
      reason = address_text(address) + ": " + std::strerror(error);
    } catch (const Complaint &complaint) {
      reason = address_text(address) + ": " + complaint.text;
      return false;
    }
    if (error == 0) probe_.address = address_text(address);
    return error == 0;
  }

  void send(std::string_view text) {
    while (!text.empty()) {
      const ssize_t sent = tls_ != nullptr ? SSL_write(tls_.get(), text.data(), static_cast<int>(text.size()))
                                           : ::send(socket_.get(), text.data(), text.size(), MSG_NOSIGNAL);
      if (sent > 0) {
        text.remove_prefix(static_cast<size_t>(sent));
      } else {
        wait_again(static_cast<int>(sent), "it takes nothing");
      }
    }
  }

  std::string receive_until(const char *end) {
    std::string reply;
    while (reply.find(end) == std::string::npos) {
      if (reply.size() > kReplyBytesMax) throw Complaint{"it is no XMPP server: it answers with something else"};
      if (reply.size() >= 1 && reply.front() != '<') throw Complaint{"it is no XMPP server: it answers with something else"};
      if (reply.find("</stream:error>") != std::string::npos || reply.find("</stream:stream>") != std::string::npos)
        refuse(reply);
      char piece[4096];
      const ssize_t got =
          tls_ != nullptr ? SSL_read(tls_.get(), piece, sizeof piece) : recv(socket_.get(), piece, sizeof piece, 0);
      if (got == 0 && tls_ == nullptr) throw Complaint{"it closes the connection; is it an XMPP server?"};
      if (got > 0) {
        reply.append(piece, static_cast<size_t>(got));
      } else {
        wait_again(static_cast<int>(got), "no answer");
      }
    }
    return reply;
  }

  [[noreturn]] void refuse(const std::string &reply) {
    probe_.is_of_another_domain = reply.find("<host-unknown") != std::string::npos;
    if (probe_.is_of_another_domain) throw Complaint{"it is no server of the domain " QLK_GRID_DOMAIN " (host-unknown)"};
    const size_t error = reply.find("<stream:error");
    const size_t condition = error == std::string::npos ? error : reply.find('<', error + 1);
    if (condition == std::string::npos) throw Complaint{"it ends the stream"};
    const size_t end = reply.find_first_of(" />", condition + 1);
    throw Complaint{"it refuses the stream: " + printable(reply.substr(condition + 1, end - condition - 1))};
  }

  // After a call on the socket, or on TLS, that did not succeed.
  void wait_again(int result, const char *what) {
    if (tls_ == nullptr) {
      if (errno != EAGAIN && errno != EINTR) throw Complaint{std::string("the connection failed: ") + std::strerror(errno)};
      return wait(POLLIN, what);
    }
    switch (SSL_get_error(tls_.get(), result)) {
      case SSL_ERROR_WANT_READ:
        return wait(POLLIN, what);
      case SSL_ERROR_WANT_WRITE:
        return wait(POLLOUT, what);
      default:
        throw Complaint{"it ends TLS: " + tls_reason("the connection was closed")};
    }
  }

  // Our certificate is shown to the server only after its own has been found right.
  static int show_certificate(SSL *ssl, void *self) {
    auto *prober = static_cast<Prober *>(self);
    prober->look_at_peer(ssl);
    if (prober->probe_.verification != X509_V_OK || !prober->probe_.bears_name) return 1;
    const Profile &values = prober->settings_.values;
    const Key key = load_key(values.key, prober->settings_.passphrase);
    SSL_use_certificate_chain_file(ssl, values.certificate.c_str());
    if (key != nullptr) SSL_use_PrivateKey(ssl, key.get());
    ERR_clear_error();
    return 1;
  }

  void look_at_peer(const SSL *ssl) {
    X509 *peer = SSL_get0_peer_certificate(ssl);
    if (peer == nullptr) return;
    X509_up_ref(peer);
    probe_.peer.reset(peer);
    probe_.verification = SSL_get_verify_result(ssl);
    constexpr unsigned kFlags = X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS | X509_CHECK_FLAG_NEVER_CHECK_SUBJECT;
    const std::string &name = endpoint_.name;
    probe_.bears_name = X509_check_host(peer, QLK_GRID_DOMAIN, 0, kFlags, nullptr) == 1 ||
                        X509_check_host(peer, name.c_str(), name.size(), kFlags, nullptr) == 1 ||
                        X509_check_ip_asc(peer, name.c_str(), 0) == 1;
    ERR_clear_error();
  }

  void shake_hands() {
    context_.reset(SSL_CTX_new(TLS_client_method()));
    SSL_CTX_set_min_proto_version(context_.get(), TLS1_2_VERSION);
    SSL_CTX_load_verify_locations(context_.get(), settings_.values.ca.c_str(), nullptr);
    if (!settings_.values.crl.empty()) {
      X509_STORE *const store = SSL_CTX_get_cert_store(context_.get());
      X509_STORE_set_flags(store, X509_V_FLAG_CRL_CHECK);
      for (const Revocations &list : load_revocations(settings_.values.crl)) X509_STORE_add_crl(store, list.get());
    }
    SSL_CTX_set_cert_cb(context_.get(), show_certificate, this);
    // Whatever is wrong with the server's certificate is to be told, so the handshake goes on all the same.
    SSL_CTX_set_verify(context_.get(), SSL_VERIFY_NONE, nullptr);
    ERR_clear_error();
    tls_.reset(SSL_new(context_.get()));
    SSL_set_tlsext_host_name(tls_.get(), QLK_GRID_DOMAIN);
    SSL_set_fd(tls_.get(), socket_.get());
    for (;;) {
      const int result = SSL_connect(tls_.get());
      if (result == 1) break;
      wait_again(result, "no TLS handshake");
    }
    look_at_peer(tls_.get());
    probe_.tls = std::string(SSL_get_version(tls_.get())) + ", " + SSL_get_cipher_name(tls_.get());
  }

  const Endpoint endpoint_;
  const Settings &settings_;
  const Stop &stop_;
  Probe &probe_;
  Clock::time_point deadline_;
  Descriptor socket_;
  Context context_;
  Tls tls_;
};

}  // namespace

Probe probe_host(const std::string &host, const Settings &settings, const Stop &stop,
                 const std::function<void(const std::string &address)> &on_address) {
  Probe probe;
  try {
    Prober(host, settings, stop, probe).run(on_address);
  } catch (const Complaint &complaint) {
    probe.complaint = complaint.text;
  }
  return probe;
}

}  // namespace tool

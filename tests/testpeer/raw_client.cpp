#include "raw_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <utility>

namespace testpeer {

namespace {

// SSL_write has no way to leave the signal out.
const auto kIgnorePipe = std::signal(SIGPIPE, SIG_IGN);

}  // namespace

RawClient::RawClient(unsigned port, bool ipv6) : socket_(socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM, 0)) {
  sockaddr_in v4{};
  v4.sin_family = AF_INET;
  v4.sin_port = htons(static_cast<uint16_t>(port));
  v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  sockaddr_in6 v6{};
  v6.sin6_family = AF_INET6;
  v6.sin6_port = htons(static_cast<uint16_t>(port));
  v6.sin6_addr = in6addr_loopback;
  const auto *address = ipv6 ? reinterpret_cast<const sockaddr *>(&v6) : reinterpret_cast<const sockaddr *>(&v4);
  const timeval deadline{10, 0};
  setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof deadline);
  setsockopt(socket_, SOL_SOCKET, SO_SNDTIMEO, &deadline, sizeof deadline);
  if (connect(socket_, address, ipv6 ? sizeof v6 : sizeof v4) != 0) throw std::runtime_error("cannot connect");
}

RawClient::~RawClient() {
  ssl_.reset();
  close(socket_);
}

void RawClient::send(std::string_view bytes) {
  // A server that has gone is noticed when it is read from. The system tells of a reset only once, though.
  errno = 0;
  const long sent = ssl_ != nullptr ? SSL_write(ssl_.get(), bytes.data(), static_cast<int>(bytes.size()))
                                    : ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  if (sent > 0) return;
  told_of_reset_ = told_of_reset_ || errno == ECONNRESET;
  ERR_clear_error();
}

bool RawClient::read_piece() {
  char buffer[16 * 1024];
  errno = 0;
  const long size = ssl_ != nullptr ? SSL_read(ssl_.get(), buffer, sizeof buffer) : recv(socket_, buffer, sizeof buffer, 0);
  if (size > 0) {
    ++pieces_;
    unread_.append(buffer, static_cast<size_t>(size));
    return true;
  }
  const int cause = errno;
  const bool said_goodbye = ssl_ != nullptr && SSL_get_error(ssl_.get(), static_cast<int>(size)) == SSL_ERROR_ZERO_RETURN;
  ERR_clear_error();
  ending_ = said_goodbye || (ssl_ == nullptr && size == 0) ? Ending::in_order : Ending::truncated;
  if (cause == ECONNRESET || (told_of_reset_ && !said_goodbye)) ending_ = Ending::reset;
  if (cause == EAGAIN) ending_ = Ending::timeout;
  return false;
}

std::string RawClient::read_until(std::string_view end) {
  size_t searched = 0, at = std::string::npos;
  while (end.empty() || (at = unread_.find(end, searched)) == std::string::npos) {
    searched = unread_.size() - std::min(unread_.size(), end.size());
    if (!read_piece()) return std::exchange(unread_, {});
  }
  std::string read = unread_.substr(0, at + end.size());
  unread_.erase(0, read.size());
  return read;
}

bool RawClient::hears_nothing(int milliseconds) {
  pollfd source{socket_, POLLIN, 0};
  return unread_.empty() && (ssl_ == nullptr || SSL_pending(ssl_.get()) == 0) && poll(&source, 1, milliseconds) == 0;
}

bool RawClient::start_tls(const CertificateAuthority &authority, const Credentials &own, const std::string &server_name) {
  const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context(SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
  X509_STORE *store = SSL_CTX_get_cert_store(context.get());
  X509_STORE_load_file(store, authority.certificate().c_str());
  X509_STORE_load_file(store, authority.revocations().c_str());
  X509_STORE_set_flags(store, X509_V_FLAG_CRL_CHECK);
  SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
  SSL_CTX_set_default_passwd_cb_userdata(context.get(), const_cast<char *>(own.passphrase.c_str()));
  if (!own.certificate.empty() && (SSL_CTX_use_certificate_file(context.get(), own.certificate.c_str(), SSL_FILETYPE_PEM) != 1 ||
                                   SSL_CTX_use_PrivateKey_file(context.get(), own.key.c_str(), SSL_FILETYPE_PEM) != 1))
    throw std::runtime_error("cannot load " + own.certificate);
  ssl_.reset(SSL_new(context.get()));
  SSL_set_fd(ssl_.get(), socket_);
  SSL_set_tlsext_host_name(ssl_.get(), server_name.c_str());
  SSL_set_msg_callback_arg(ssl_.get(), &handshake_messages_);
  SSL_set_msg_callback(ssl_.get(), [](int is_ours, int, int type, const void *, size_t, SSL *, void *count) {
    if (is_ours == 0 && type == SSL3_RT_HANDSHAKE) ++*static_cast<unsigned *>(count);
  });
  in6_addr ignored;
  if (inet_pton(AF_INET, server_name.c_str(), &ignored) == 1) {
    X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl_.get()), server_name.c_str());
  } else {
    SSL_set1_host(ssl_.get(), server_name.c_str());
  }
  unread_.clear();
  const bool is_done = SSL_connect(ssl_.get()) == 1;
  ERR_clear_error();
  return is_done;
}

}  // namespace testpeer

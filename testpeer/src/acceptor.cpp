#include "acceptor.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>
#include <system_error>

namespace testpeer {

LoopbackSocket::LoopbackSocket(bool ipv6) : descriptor_(socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM, 0)) {
  if (descriptor_ < 0) throw std::runtime_error("a peer has no socket");
  fcntl(descriptor_, F_SETFD, FD_CLOEXEC);
  sockaddr_in v4{};
  v4.sin_family = AF_INET;
  v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  sockaddr_in6 v6{};
  v6.sin6_family = AF_INET6;
  v6.sin6_addr = in6addr_loopback;
  auto *address = ipv6 ? reinterpret_cast<sockaddr *>(&v6) : reinterpret_cast<sockaddr *>(&v4);
  socklen_t length = ipv6 ? sizeof v6 : sizeof v4;
  if (bind(descriptor_, address, length) != 0 || getsockname(descriptor_, address, &length) != 0) {
    close(descriptor_);
    throw std::runtime_error("a peer has no port");
  }
  port_ = ntohs(ipv6 ? v6.sin6_port : v4.sin_port);
  host_ = (ipv6 ? "[::1]:" : "127.0.0.1:") + std::to_string(port_);
}

LoopbackSocket::~LoopbackSocket() { close(descriptor_); }

Acceptor::Acceptor(bool ipv6, size_t receive_buffer)
    : listener_(std::make_unique<LoopbackSocket>(ipv6)), host_(listener_->host()) {
  const int descriptor = listener_->descriptor(), buffer = static_cast<int>(receive_buffer);
  fcntl(descriptor, F_SETFL, O_NONBLOCK);
  if (buffer != 0) setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
  if (listen(descriptor, 128) != 0) throw std::runtime_error("a peer cannot listen");
}

void Acceptor::start(Make make) {
  make_ = std::move(make);
  thread_ = std::thread([this] { accept_connections(); });
}

void Acceptor::stop() {
  if (thread_.joinable()) {
    stop_.signal();
    thread_.join();
  }
  listener_.reset();
  for (const Served &one : served_) {
    if (const auto link = one.link.lock(); link != nullptr) link->abandon();
  }
  for (Served &one : served_) one.thread.join();
  served_.clear();
}

void Acceptor::accept_connections() {
  for (;;) {
    pollfd sources[] = {{listener_->descriptor(), POLLIN, 0}, {stop_.descriptor(), POLLIN, 0}};
    if (poll(sources, 2, -1) < 0) continue;
    if (sources[1].revents != 0) return;
    const int descriptor = accept(listener_->descriptor(), nullptr, nullptr);
    if (descriptor < 0) {
      // Out of descriptors, perhaps: the client stays in the queue, and asking again at once would only keep a processor busy.
      poll(&sources[1], 1, 10);
      continue;
    }
    fcntl(descriptor, F_SETFD, FD_CLOEXEC);
    const int on = 1;
    setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    join_ended();
    try {
      serve(descriptor);
    } catch (const std::exception &) {
      close(descriptor);  // no pipe or thread was to be had: the client sees that it is not served
    }
  }
}

// Takes the descriptor over, unless it throws.
void Acceptor::serve(int descriptor) {
  std::shared_ptr<PeerLink> link = make_(descriptor);
  try {
    served_.push_back({link, {}});
    served_.back().thread = std::thread([kept = link]() mutable {
      kept->run();
      kept.reset();
    });
  } catch (const std::exception &) {
    if (!served_.empty() && !served_.back().thread.joinable()) served_.pop_back();
    link->finish();
  }
}

// So that a peer that has seen thousands of connections does not hold as many threads.
void Acceptor::join_ended() {
  const auto ended = std::partition(served_.begin(), served_.end(), [](const Served &one) {
    const auto link = one.link.lock();
    return link != nullptr && !link->has_ended();
  });
  std::for_each(ended, served_.end(), [](Served &one) { one.thread.join(); });
  served_.erase(ended, served_.end());
}

}  // namespace testpeer

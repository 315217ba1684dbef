#include "connector.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "guard.h"

namespace wb {

namespace {

constexpr std::chrono::milliseconds kShareMin{1000};

std::string in_numbers(const addrinfo &address) {
  char host[NI_MAXHOST] = "?", port[NI_MAXSERV] = "?";
  getnameinfo(address.ai_addr, address.ai_addrlen, host, sizeof host, port, sizeof port, NI_NUMERICHOST | NI_NUMERICSERV);
  std::string text(host);
  if (address.ai_family == AF_INET6) text.insert(0, 1, '[').push_back(']');
  return text.append(":").append(port);
}

std::string error_text(int error) {
  char text[128];
  return strerror_r(error, text, sizeof text);
}

void set_option(int fd, int level, int option, int value) { setsockopt(fd, level, option, &value, sizeof value); }

}  // namespace

void tune_socket(int fd, unsigned idle_seconds) {
  const int idle = static_cast<int>(std::clamp(idle_seconds, 1u, 3600u));
  set_option(fd, IPPROTO_TCP, TCP_NODELAY, 1);
  set_option(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
  set_option(fd, IPPROTO_TCP, TCP_KEEPIDLE, idle);
  set_option(fd, IPPROTO_TCP, TCP_KEEPINTVL, std::max(idle / 4, 1));
  set_option(fd, IPPROTO_TCP, TCP_KEEPCNT, 4);
  set_option(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, 2 * idle * 1000);
}

Connector::Connector(event_base *base, std::shared_ptr<LoopGate> gate, AddressList addresses, Clock::time_point deadline,
                     Done done)
    : base_(base),
      gate_(std::move(gate)),
      addresses_(std::move(addresses)),
      deadline_(deadline),
      done_(std::move(done)),
      next_(addresses_.get()) {}

Connector::~Connector() {
  ready_.reset();
  if (fd_ >= 0) close(fd_);
}

void Connector::drop_socket() {
  // Out of the loop before its descriptor is closed; freed later, because its function may be the caller.
  if (ready_ != nullptr) ready_->remove();
  gate_->bury(std::move(ready_));
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

std::chrono::milliseconds Connector::share() const {
  long left = 0;
  for (const addrinfo *address = next_; address != nullptr; address = address->ai_next) ++left;
  const auto rest = std::chrono::duration_cast<std::chrono::milliseconds>(deadline_ - Clock::now());
  return std::max(rest / (left + 1), kShareMin);
}

void Connector::report(int fd) {
  static const std::string kNoAddress = "no address";
  fd_ = -1;
  gate_->bury(std::move(ready_));
  done_(fd, fd >= 0 ? address_ : (failures_.empty() ? kNoAddress : failures_));
}

void Connector::note_failure(int error) {
  failures_.append(failures_.empty() ? "" : "; ").append(address_).append(": ").append(error_text(error));
}

void Connector::try_next() {
  while (next_ != nullptr) {
    const addrinfo &address = *next_;
    next_ = next_->ai_next;
    address_ = in_numbers(address);
    fd_ = socket(address.ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP);
    int error = 0;
    if (fd_ < 0 || connect(fd_, address.ai_addr, address.ai_addrlen) != 0) error = errno;
    if (error == 0 || error == EINPROGRESS) {
      ready_ = std::make_shared<LoopEvent>(base_, fd_, EV_WRITE, gate_, [this](short what) {
        const bool done = guarded(nullptr, "on_ready", [&] {
          on_ready(what);
          return true;
        });
        if (done) return;
        // Memory is out: whoever waits is told now and not by the deadline.
        drop_socket();
        report(-1);
      });
      ready_->add(share());
      return;
    }
    note_failure(error);
    drop_socket();
  }
  report(-1);
}

void Connector::on_ready(short what) {
  int error = ETIMEDOUT;
  if ((what & EV_WRITE) != 0) {
    socklen_t size = sizeof error;
    if (getsockopt(fd_, SOL_SOCKET, SO_ERROR, &error, &size) != 0) error = errno;
  }
  if (error == 0) return report(fd_);
  note_failure(error);
  drop_socket();
  try_next();
}

}  // namespace wb

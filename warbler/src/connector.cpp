#include "connector.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>
#include <warbler/log.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "guard.h"

namespace wb {

namespace {

constexpr std::chrono::milliseconds kShareMin{1000};

const sockaddr *address_of(const sockaddr_storage &address) { return reinterpret_cast<const sockaddr *>(&address); }

std::string in_numbers(const sockaddr_storage &address, socklen_t size) {
  char host[NI_MAXHOST] = "?", port[NI_MAXSERV] = "?";
  getnameinfo(address_of(address), size, host, sizeof host, port, sizeof port, NI_NUMERICHOST | NI_NUMERICSERV);
  std::string text(host);
  if (address.ss_family == AF_INET6) text.insert(0, 1, '[').push_back(']');
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

// When memory is out, whoever waits is told now and not by the deadline.
template <typename Function>
void Connector::run(Function &&function) {
  const bool done = guarded(nullptr, __func__, [&] {
    function();
    return true;
  });
  if (done) return;
  drop_all();
  report({.fd = -1, .host = 0, .text = std::move(failures_)});
}

Connector::Connector(event_base *base, std::shared_ptr<LoopGate> gate, std::chrono::milliseconds gap, Clock::time_point deadline,
                     Done done)
    : base_(base), gate_(std::move(gate)), gap_(gap), deadline_(deadline), done_(std::move(done)) {}

Connector::~Connector() {
  turn_.reset();
  for (Attempt &attempt : attempts_) {
    attempt.ready.reset();
    close(attempt.fd);
  }
}

void Connector::add(size_t host, const AddressList &addresses, bool more) {
  const bool had_none = waiting_.empty();
  const auto behind = [host](const Target &target) { return target.host > host; };
  auto place = std::find_if(waiting_.begin(), waiting_.end(), behind);
  for (const addrinfo *address = addresses.get(); address != nullptr; address = address->ai_next) {
    Target target{.host = host, .address = {}, .size = address->ai_addrlen};
    std::memcpy(&target.address, address->ai_addr, address->ai_addrlen);
    place = std::next(waiting_.insert(place, target));
  }
  more_ = more;
  if (is_race()) interleave_families();
  if (attempts_.empty()) return go_on();
  if (is_race() && had_none && !waiting_.empty()) wait_for_turn();
}

void Connector::add_failure(const std::string &why, bool more) {
  failures_.append(failures_.empty() ? "" : "; ").append(why);
  more_ = more;
  if (attempts_.empty()) go_on();
}

// A family of addresses that leads nowhere costs one gap and not one for each of its addresses.
void Connector::interleave_families() {
  auto family_before = family_dialled_;
  for (auto here = waiting_.begin(); here != waiting_.end(); ++here) {
    const auto other =
        std::find_if(here, waiting_.end(), [&](const Target &target) { return target.address.ss_family != family_before; });
    if (other == waiting_.end()) return;
    std::rotate(here, other, std::next(other));
    family_before = here->address.ss_family;
  }
}

// Begins with the next address that can be dialled; when there is none and none is under way or to come, that was all.
void Connector::go_on() {
  while (!waiting_.empty()) {
    const Target target = waiting_.front();
    waiting_.pop_front();
    if (!dial(target)) continue;
    if (!is_race() || waiting_.empty()) return;
    return wait_for_turn();
  }
  if (attempts_.empty() && !more_) report({.fd = -1, .host = 0, .text = failures_.empty() ? "no address" : failures_});
}

void Connector::wait_for_turn() {
  if (turn_ == nullptr) turn_ = std::make_shared<LoopEvent>(base_, -1, 0, gate_, [this](short) { run([this] { go_on(); }); });
  turn_->add(gap_);
}

std::chrono::milliseconds Connector::patience() const {
  const auto rest = std::chrono::duration_cast<std::chrono::milliseconds>(deadline_ - Clock::now());
  return std::max(is_race() ? rest : rest / static_cast<long>(waiting_.size() + 1), kShareMin);
}

bool Connector::dial(const Target &target) {
  const auto attempt = attempts_.emplace(attempts_.end());
  attempt->host = target.host;
  attempt->text = in_numbers(target.address, target.size);
  family_dialled_ = target.address.ss_family;
  if (is_race()) wb_log(WB_LOG_VERBOSE, "dialling %s", attempt->text.c_str());
  attempt->fd = socket(target.address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP);
  int error = 0;
  if (attempt->fd < 0 || connect(attempt->fd, address_of(target.address), target.size) != 0) error = errno;
  if (error != 0 && error != EINPROGRESS) {
    note_failure(attempt->text, error);
    drop(attempt);
    return false;
  }
  attempt->ready = std::make_shared<LoopEvent>(base_, attempt->fd, EV_WRITE, gate_, [this, attempt](short what) {
    run([this, attempt, what] { on_ready(attempt, what); });
  });
  attempt->ready->add(patience());
  return true;
}

void Connector::on_ready(Attempts::iterator attempt, short what) {
  int error = ETIMEDOUT;
  if ((what & EV_WRITE) != 0) {
    socklen_t size = sizeof error;
    if (getsockopt(attempt->fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0) error = errno;
  }
  if (error != 0) {
    note_failure(attempt->text, error);
    drop(attempt);
    return go_on();
  }
  Outcome outcome{.fd = std::exchange(attempt->fd, -1), .host = attempt->host, .text = std::move(attempt->text)};
  drop_all();
  report(outcome);
}

void Connector::note_failure(const std::string &address, int error) {
  failures_.append(failures_.empty() ? "" : "; ").append(address).append(": ").append(error_text(error));
}

void Connector::drop(Attempts::iterator attempt) {
  // Out of the loop before its descriptor is closed; freed later, because its function may be the caller.
  if (attempt->ready != nullptr) attempt->ready->remove();
  gate_->bury(std::move(attempt->ready));
  if (attempt->fd >= 0) close(attempt->fd);
  attempts_.erase(attempt);
}

void Connector::drop_all() {
  while (!attempts_.empty()) drop(attempts_.begin());
  waiting_.clear();
  if (turn_ != nullptr) turn_->remove();
  gate_->bury(std::move(turn_));
}

void Connector::report(const Outcome &outcome) {
  gate_->bury(std::move(turn_));
  done_(outcome);
}

}  // namespace wb

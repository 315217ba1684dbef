// An address at which nobody answers, and nobody refuses either.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace test_support {

// A listener of the loopback whose queue is full: the system drops whoever knocks.
class BlackHole {
 public:
  BlackHole() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK + 1);
    socklen_t size = sizeof address;
    auto *const generic = reinterpret_cast<sockaddr *>(&address);
    const int listener = keep(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (bind(listener, generic, size) != 0 || listen(listener, 0) != 0 || getsockname(listener, generic, &size) != 0)
      throw std::runtime_error("no listener");
    host_ = "127.0.0.2:" + std::to_string(ntohs(address.sin_port));
    for (int taken = 1; taken > 0;) {
      pollfd knocking{
          .fd = keep(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)), .events = POLLOUT, .revents = 0};
      connect(knocking.fd, generic, size);
      taken = poll(&knocking, 1, 100);
    }
  }
  ~BlackHole() {
    for (const int fd : sockets_) close(fd);
  }
  BlackHole(const BlackHole &) = delete;
  BlackHole &operator=(const BlackHole &) = delete;

  const std::string &host() const { return host_; }

  // How many knock at it: those that it has for company, and all others of this machine.
  size_t knocking() const {
    char remote[32];
    std::snprintf(remote, sizeof remote, " 0200007F:%04X 02 ",
                  static_cast<unsigned>(std::stoul(host_.substr(host_.find(':') + 1))));
    std::ifstream table("/proc/net/tcp");
    size_t count = 0;
    for (std::string line; std::getline(table, line);) count += line.find(remote) != std::string::npos ? 1 : 0;
    return count;
  }

 private:
  int keep(int fd) {
    sockets_.push_back(fd);
    return fd;
  }

  std::vector<int> sockets_;
  std::string host_;
};

}  // namespace test_support

// A port of the loopback at which nobody listens: who connects to it is refused.
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace testpeer {

// Keeps the port for itself as long as it lives, so that nobody comes to listen there meanwhile.
class DeafPort {
 public:
  // Throws std::runtime_error when the system has no port left.
  explicit DeafPort(bool ipv6 = false);
  ~DeafPort();
  DeafPort(const DeafPort &) = delete;
  DeafPort &operator=(const DeafPort &) = delete;

  unsigned port() const;
  // "127.0.0.1:PORT" or "[::1]:PORT"; lives as long as this.
  const std::string &host() const;
  // Of that path, which begins with a slash.
  std::string url(std::string_view path = "/bulk") const { return "https://" + host() + std::string(path); }

 private:
  class Socket;
  const std::unique_ptr<Socket> socket_;
};

}  // namespace testpeer

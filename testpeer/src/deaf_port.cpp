#include <qlk/testpeer/deaf_port.hpp>

#include "acceptor.h"

namespace testpeer {

class DeafPort::Socket : public LoopbackSocket {
 public:
  using LoopbackSocket::LoopbackSocket;
};

DeafPort::DeafPort(bool ipv6) : socket_(std::make_unique<Socket>(ipv6)) {}

DeafPort::~DeafPort() = default;

unsigned DeafPort::port() const { return socket_->port(); }

const std::string &DeafPort::host() const { return socket_->host(); }

}  // namespace testpeer

#include "administration.h"

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/listener.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

namespace controller {

namespace {

constexpr size_t kLineBytesMax = 65536;
constexpr int kBacklog = 16;

AdministrationSocket::Fields split(const std::string &line) {
  AdministrationSocket::Fields fields(1);
  for (const char character : line) {
    if (character == '\t') {
      fields.emplace_back();
    } else {
      fields.back() += character;
    }
  }
  return fields;
}

// What clients told about themselves must not look like another row.
std::string joined(const AdministrationSocket::Fields &fields) {
  std::string line;
  for (const std::string &field : fields) {
    if (&field != &fields.front()) line += '\t';
    for (const char character : field) line += static_cast<unsigned char>(character) < ' ' ? ' ' : character;
  }
  return line + '\n';
}

}  // namespace

// One command and its answer. It leaves the owner's list when its other end is gone or has read the answer.
class AdministrationSocket::Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(AdministrationSocket &owner, bufferevent *buffer) : owner_(owner), buffer_(buffer) {
    bufferevent_setcb(buffer, on_read, on_written, on_end, this);
    bufferevent_setwatermark(buffer, EV_READ, 0, kLineBytesMax);
    bufferevent_enable(buffer, EV_READ | EV_WRITE);
  }

 private:
  static void on_read(bufferevent *, void *arg) {
    contained("administration", [&] { static_cast<Connection *>(arg)->read(); });
  }
  static void on_written(bufferevent *, void *arg) {
    auto *self = static_cast<Connection *>(arg);
    if (self->is_answered_) self->owner_.connections_.erase(self);
  }
  static void on_end(bufferevent *, short what, void *arg) {
    auto *self = static_cast<Connection *>(arg);
    // The end of its writing is what a client that waits for its answer sends, too.
    if ((what & BEV_EVENT_EOF) != 0 && self->is_asked_ && (what & BEV_EVENT_WRITING) == 0) return;
    self->owner_.connections_.erase(self);
  }

  void read() {
    evbuffer *input = bufferevent_get_input(buffer_.get());
    size_t length = 0;
    const Owner<char, free> line(evbuffer_readln(input, &length, EVBUFFER_EOL_LF));
    if (line == nullptr && evbuffer_get_length(input) < kLineBytesMax) return;
    if (is_asked_ || line == nullptr) {
      owner_.connections_.erase(this);
      return;
    }
    is_asked_ = true;
    owner_.handler_(split(line.get()), [weak = weak_from_this()](const Answer &answer) {
      if (const auto self = weak.lock()) self->write(answer);
    });
  }

  void write(const Answer &answer) {
    std::string text;
    if (answer.error.empty()) {
      for (const Fields &row : answer.rows) text += joined(row);
      text += "ok\n";
    } else {
      text = joined({"error", answer.error});
    }
    is_answered_ = true;
    bufferevent_write(buffer_.get(), text.data(), text.size());
  }

  AdministrationSocket &owner_;
  Owner<bufferevent, bufferevent_free> buffer_;
  bool is_asked_ = false, is_answered_ = false;
};

AdministrationSocket::AdministrationSocket(event_base *base, const std::string &path, Handler handler)
    : path_(path), handler_(std::move(handler)) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) throw std::runtime_error(path + ": the path is too long for a socket");
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  unlink(path.c_str());
  const mode_t mask = umask(0077);
  listener_.reset(evconnlistener_new_bind(base, on_connection, this, LEV_OPT_CLOSE_ON_FREE | LEV_OPT_CLOSE_ON_EXEC, kBacklog,
                                          reinterpret_cast<sockaddr *>(&address), sizeof address));
  const int reason = errno;
  umask(mask);
  if (listener_ == nullptr) throw std::runtime_error(path + ": " + std::strerror(reason));
}

AdministrationSocket::~AdministrationSocket() { unlink(path_.c_str()); }

void AdministrationSocket::on_connection(evconnlistener *listener, evutil_socket_t socket, sockaddr *, int, void *arg) {
  contained("administration", [&] {
    auto *self = static_cast<AdministrationSocket *>(arg);
    bufferevent *buffer = bufferevent_socket_new(evconnlistener_get_base(listener), socket, BEV_OPT_CLOSE_ON_FREE);
    if (buffer == nullptr) {
      close(socket);
      return;
    }
    const auto connection = std::make_shared<Connection>(*self, buffer);
    self->connections_[connection.get()] = connection;
  });
}

}  // namespace controller

// The server of the round-trip lines: speaks just enough XMPP to let any client in, and answers every IQ with its own content.
//
//   echo_server --certificate FILE --key FILE [--domain NAME] [--tls yes|no] [--publishers COUNT]
//
// It prints its port and serves on the loopback until its standard input ends. Each connection has a thread, which waits in recv
// alone: nothing is polled while the peer takes what is sent, so that the server adds as little as can be to a round trip.
// Whoever it serves, it takes the client's word for who it is.
//
// To an IQ with a grid request it answers as a grid would: to a connect request with an approval, to a subscribe request with
// as many publishers as it was told, to <push count='N'/> with as many notifications behind the answer. <hangup/> is not
// answered: the socket is closed. Everything else comes back.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include "support/arguments.h"
#include "support/measure.h"

namespace {

constexpr size_t kReadBytes = 64 * 1024;
constexpr size_t kPushedBytesWaiting = 256 * 1024;  // notifications are made no faster than the client takes them
constexpr std::string_view kGridNamespace = "http://quillon.internal/quillon";

struct Settings {
  std::string domain, user;
  bool tls;
  long publishers;
};

// ---- Bytes that come in, cut into elements

// The value of the attribute in a start tag, whichever quotes it has; empty when it is not there.
std::string_view attribute(std::string_view tag, std::string_view name) {
  for (size_t at = tag.find(name); at != std::string_view::npos; at = tag.find(name, at + 1)) {
    const size_t quote = at + name.size() + 1;
    if (tag[at - 1] != ' ' || quote >= tag.size() || tag[quote - 1] != '=') continue;
    return tag.substr(quote + 1, tag.find(tag[quote], quote + 1) - quote - 1);
  }
  return {};
}

bool contains(std::string_view text, std::string_view part) { return text.find(part) != std::string_view::npos; }

// What the client sent and was not looked at yet.
class Input {
 public:
  void append(const char *bytes, size_t size) { bytes_.append(bytes, size); }

  void clear() {
    bytes_.clear();
    begin_ = searched_ = 0;
  }

  // The next element of the stream as a whole, the start tag of a stream, or the stream's end tag; empty when it has not come
  // yet. It is valid until the next append. No stanza that a client of this server sends has an element of its own name in it.
  std::string_view next() {
    begin_ = bytes_.find('<', begin_);
    if (begin_ == std::string::npos) return drop();
    const size_t tag_end = bytes_.find('>', begin_);
    if (tag_end == std::string::npos) return keep();
    const char second = bytes_[begin_ + 1];
    if (second == '?') {
      begin_ = tag_end + 1;
      return next_after_declaration();
    }
    const std::string_view tag = std::string_view(bytes_).substr(begin_, tag_end + 1 - begin_);
    if (second == '/' || tag[tag.size() - 2] == '/' || tag.rfind("<stream:stream", 0) == 0) return take(tag.size());
    const size_t name_end = tag.find_first_of(" \t\n>");
    const std::string end_tag = "</" + std::string(tag.substr(1, name_end - 1)) + ">";
    const size_t end = bytes_.find(end_tag, std::max(searched_, tag_end));
    if (end != std::string::npos) return take(end + end_tag.size() - begin_);
    searched_ = bytes_.size() - std::min(bytes_.size(), end_tag.size());
    return keep();
  }

 private:
  std::string_view next_after_declaration() {
    const size_t start = bytes_.find('<', begin_);
    return start == std::string::npos ? drop() : next();
  }
  std::string_view take(size_t size) {
    const std::string_view element = std::string_view(bytes_).substr(begin_, size);
    begin_ += size;
    searched_ = 0;
    return element;
  }
  std::string_view keep() {
    bytes_.erase(0, begin_);
    searched_ = searched_ > begin_ ? searched_ - begin_ : 0;
    begin_ = 0;
    return {};
  }
  std::string_view drop() {
    clear();
    return {};
  }

  std::string bytes_;
  size_t begin_ = 0;
  size_t searched_ = 0;  // the end tag of the element at begin_ does not begin before
};

// ---- TLS between memory buffers

struct SslDelete {
  void operator()(SSL_CTX *context) const { SSL_CTX_free(context); }
  void operator()(SSL *ssl) const { SSL_free(ssl); }
};

std::unique_ptr<SSL_CTX, SslDelete> make_context(const bench::Arguments &arguments) {
  std::unique_ptr<SSL_CTX, SslDelete> context(SSL_CTX_new(TLS_server_method()));
  SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);  // TLS 1.3 with all that know it; gloox does not
  if (SSL_CTX_use_certificate_chain_file(context.get(), arguments.required("certificate").c_str()) != 1 ||
      SSL_CTX_use_PrivateKey_file(context.get(), arguments.required("key").c_str(), SSL_FILETYPE_PEM) != 1) {
    bench::fail("the certificate or its key cannot be used");
  }
  // Certificates of clients are asked for, as a grid's server does, and not looked at.
  SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, [](int, X509_STORE_CTX *) { return 1; });
  SSL_CTX_set_session_id_context(context.get(), reinterpret_cast<const unsigned char *>("bench"), 5);
  SSL_CTX_set_num_tickets(context.get(), 0);
  return context;
}

// ---- One connection

class Connection {
 public:
  Connection(int fd, const Settings &settings, SSL_CTX *context) : fd_(fd), settings_(settings), context_(context) {}
  ~Connection() { close(fd_); }
  Connection(const Connection &) = delete;
  Connection &operator=(const Connection &) = delete;

  void serve() {
    const auto buffer = std::make_unique<char[]>(kReadBytes);
    while (!closing_ && wait()) {
      const ssize_t got = recv(fd_, buffer.get(), kReadBytes, waiting_.empty() ? 0 : MSG_DONTWAIT);
      if (got == 0) return;
      if (got < 0 && errno != EAGAIN && errno != EINTR) return;
      if (got > 0 && !receive(buffer.get(), static_cast<size_t>(got))) return;
      do {
        push();
        if (!flush()) return;
      } while (pushes_ > 0 && waiting_.empty());
    }
  }

 private:
  // Only a client that does not take what it is sent makes the server wait for two things at once.
  bool wait() const {
    if (waiting_.empty()) return true;
    pollfd both = {fd_, POLLIN | POLLOUT, 0};
    return ::poll(&both, 1, -1) > 0 || errno == EINTR;
  }

  // False when the connection is lost, or is to be.
  bool receive(const char *bytes, size_t size) {
    if (ssl_ == nullptr) {
      input_.append(bytes, size);
      handle();
      return !hung_up_;
    }
    BIO_write(SSL_get_rbio(ssl_.get()), bytes, static_cast<int>(size));
    char plain[kReadBytes];
    for (;;) {
      const int got = SSL_read(ssl_.get(), plain, sizeof plain);
      if (got > 0) {
        input_.append(plain, static_cast<size_t>(got));
        handle();
        if (hung_up_) return false;
        continue;
      }
      return SSL_get_error(ssl_.get(), got) == SSL_ERROR_WANT_READ;
    }
  }

  void handle() {
    for (std::string_view element = input_.next(); !element.empty() && !closing_; element = input_.next()) {
      if (element.rfind("<iq", 0) == 0) {
        on_iq(element);
      } else if (element.rfind("<stream:stream", 0) == 0) {
        on_stream();
      } else if (element.rfind("<auth", 0) == 0) {
        authenticated_ = true;
        reply("<success xmlns='urn:ietf:params:xml:ns:xmpp-sasl'/>");
      } else if (element.rfind("<starttls", 0) == 0) {
        return start_tls();
      } else if (element.rfind("</stream", 0) == 0) {
        reply("</stream:stream>");
        flush();
        closing_ = true;
      }
    }
  }

  void on_stream() {
    std::string head =
        "<?xml version='1.0'?><stream:stream xmlns='jabber:client' xmlns:stream='http://etherx.jabber.org/streams' "
        "id='4f1d' from='" +
        settings_.domain + "' version='1.0' xml:lang='en'><stream:features>";
    if (authenticated_) {
      head += "<bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'/>";
    } else if (settings_.tls && ssl_ == nullptr) {
      head += "<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'><required/></starttls>";
    } else {
      head +=
          "<mechanisms xmlns='urn:ietf:params:xml:ns:xmpp-sasl'><mechanism>EXTERNAL</mechanism><mechanism>PLAIN</mechanism>"
          "</mechanisms>";
    }
    reply(head + "</stream:features>");
  }

  void start_tls() {
    reply("<proceed xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>");
    flush();
    input_.clear();
    ssl_.reset(SSL_new(context_));
    SSL_set_bio(ssl_.get(), BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
    BIO_set_mem_eof_return(SSL_get_rbio(ssl_.get()), -1);
    SSL_set_accept_state(ssl_.get());
  }

  void on_iq(std::string_view iq) {
    const std::string_view tag = iq.substr(0, iq.find('>') + 1);
    const std::string_view type = attribute(tag, "type");
    if (type != "get" && type != "set") return;
    const bool empty = tag[tag.size() - 2] == '/';
    const std::string_view content = empty ? std::string_view() : iq.substr(tag.size(), iq.size() - tag.size() - 5);
    reply("<iq type='result' id='");
    reply(attribute(tag, "id"));
    if (const std::string_view to = attribute(tag, "to"); !to.empty()) {
      reply("' from='");
      reply(to);
    }
    if (!jid_.empty()) {
      reply("' to='");
      reply(jid_);
    }
    reply("'>");
    if (content.rfind("<grid", 0) == 0) {
      reply_grid(content);
    } else if (contains(content, "urn:ietf:params:xml:ns:xmpp-bind")) {
      bind(content);
    } else {
      reply(content);
    }
    reply("</iq>");
  }

  void bind(std::string_view content) {
    const size_t begin = content.find("<resource>");
    const std::string_view resource =
        begin == std::string_view::npos ? "qlk" : content.substr(begin + 10, content.find("</resource>") - begin - 10);
    jid_ = settings_.user + "@" + settings_.domain + "/" + std::string(resource);
    reply("<bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'><jid>" + jid_ + "</jid></bind>");
  }

  void reply_grid(std::string_view content) {
    const std::string_view tag = content.substr(0, content.find('>') + 1);
    const std::string_view inner = content.substr(tag.size(), content.size() - tag.size() - 7);
    std::string_view name = inner.substr(1, inner.find_first_of(" />") - 1);
    name.remove_prefix(name.find(':') + 1);  // npos + 1 is 0
    reply("<grid xmlns='quillon' type='response'>");
    if (name == "connectRequest") {
      reply("<connectResponse xmlns='" + std::string(kGridNamespace) +
            "'><approvalStatus>approved</approvalStatus></connectResponse>");
    } else if (name == "subscribeRequest") {
      reply_publishers(contains(inner, "CoreCapability") ? 0 : settings_.publishers);
    } else {
      reply(inner);
    }
    reply("</grid>");
    if (name == "hangup") hung_up_ = true;
    if (name == "push") pushes_ += std::strtol(std::string(attribute(inner, "count")).c_str(), nullptr, 10);
  }

  void reply_publishers(long count) {
    reply("<subscribeResponse xmlns='" + std::string(kGridNamespace) + "'><xmppDetails>");
    for (long i = 0; i < count; ++i) {
      reply("<jid>publisher-" + std::to_string(i) + "@" + settings_.domain + "/qlk</jid>");
    }
    reply("</xmppDetails></subscribeResponse>");
  }

  void push() {
    if (pushes_ == 0) return;
    const std::string message =
        "<message from='pubsub." + settings_.domain + "' to='" + jid_ + "' type='headline' id='e7a2b9d0'>" +
        "<event xmlns='http://jabber.org/protocol/pubsub#event'><items node='SensorCapability-1.0'>"
        "<item id='5c4d7e8f9a0b'><grid xmlns='quillon' type='notification'><valueChanged xmlns='urn:example:sensor'>"
        "<name>boiler-3</name><value unit='celsius'>81.25</value><time>2024-03-01T12:30:45Z</time><quality>good</quality>"
        "<note>above the &lt;upper&gt; limit</note></valueChanged></grid></item></items></event></message>";
    while (pushes_ > 0 && waiting_.size() + plain_.size() < kPushedBytesWaiting) {
      reply(message);
      --pushes_;
    }
  }

  void reply(std::string_view bytes) { plain_.append(bytes); }

  // Sends what there is, as far as the socket takes it. False when the connection is lost.
  bool flush() {
    if (ssl_ == nullptr) {
      waiting_.append(plain_);
    } else if (!plain_.empty() || BIO_pending(SSL_get_wbio(ssl_.get())) > 0) {
      if (!plain_.empty() && SSL_write(ssl_.get(), plain_.data(), static_cast<int>(plain_.size())) <= 0) return false;
      char *sealed = nullptr;
      const long size = BIO_get_mem_data(SSL_get_wbio(ssl_.get()), &sealed);
      waiting_.append(sealed, static_cast<size_t>(size));
      BIO_reset(SSL_get_wbio(ssl_.get()));
    }
    plain_.clear();
    size_t sent = 0;
    while (sent < waiting_.size()) {
      const ssize_t taken = send(fd_, waiting_.data() + sent, waiting_.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (taken < 0 && errno == EINTR) continue;
      if (taken < 0 && errno != EAGAIN) return false;
      if (taken < 0) break;
      sent += static_cast<size_t>(taken);
    }
    waiting_.erase(0, sent);
    return true;
  }

  const int fd_;
  const Settings &settings_;
  SSL_CTX *const context_;
  std::unique_ptr<SSL, SslDelete> ssl_;
  Input input_;
  std::string plain_, waiting_, jid_;
  long pushes_ = 0;
  bool authenticated_ = false, closing_ = false, hung_up_ = false;
};

int listen_on_loopback() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&address), size) != 0 || listen(fd, 1024) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size) != 0) {
    bench::fail(std::string("cannot listen: ") + std::strerror(errno));
  }
  std::printf("%d\n", ntohs(address.sin_port));
  std::fflush(stdout);
  return fd;
}

}  // namespace

int main(int argc, char **argv) {
  const bench::Arguments arguments(argc, argv);
  const Settings settings = {arguments.text("domain", "grid.quillon.internal"), arguments.text("user", "bench"),
                             arguments.text("tls", "yes") == "yes", arguments.number("publishers", 1)};
  const auto context = make_context(arguments);
  const int listener = listen_on_loopback();
  std::thread([] {
    char byte;
    while (read(STDIN_FILENO, &byte, 1) > 0) {
    }
    _exit(0);  // the connections' threads may be waiting in recv
  }).detach();
  for (;;) {
    const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) bench::fail(std::string("cannot accept: ") + std::strerror(errno));
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    std::thread([fd, &settings, &context] { Connection(fd, settings, context.get()).serve(); }).detach();
  }
}

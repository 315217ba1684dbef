#include "service.h"

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/bufferevent_ssl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/x509.h>
#include <sys/socket.h>
#include <warbler/log.h>

#include <memory>
#include <stdexcept>
#include <string_view>

#include "document.h"

namespace bulk {

namespace {

constexpr ev_ssize_t kRequestBytesMax = 128 << 10;
constexpr size_t kTlsRecordBytes = 16384;

[[noreturn]] void give_up(const std::string &what) {
  const char *const reason = ERR_reason_error_string(ERR_peek_error());
  throw std::runtime_error(what + (reason != nullptr ? std::string(": ") + reason : ""));
}

Owner<SSL_CTX, SSL_CTX_free> make_tls(const Options &options) {
  Owner<SSL_CTX, SSL_CTX_free> tls(SSL_CTX_new(TLS_server_method()));
  if (tls == nullptr) give_up("no TLS context");
  SSL_CTX_set_min_proto_version(tls.get(), TLS1_2_VERSION);
  SSL_CTX_set_session_cache_mode(tls.get(), SSL_SESS_CACHE_OFF);
  if (SSL_CTX_use_certificate_chain_file(tls.get(), options.certificate.c_str()) != 1) give_up(options.certificate);
  if (SSL_CTX_use_PrivateKey_file(tls.get(), options.key.c_str(), SSL_FILETYPE_PEM) != 1) give_up(options.key);
  if (SSL_CTX_load_verify_locations(tls.get(), options.ca.c_str(), nullptr) != 1) give_up(options.ca);
  SSL_CTX_set_verify(tls.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
  return tls;
}

// The e-mail address in the subject of the client's certificate.
std::string address_of(evhttp_connection *connection) {
  SSL *const ssl = bufferevent_openssl_get_ssl(evhttp_connection_get_bufferevent(connection));
  const Owner<X509, X509_free> certificate(SSL_get1_peer_certificate(ssl));
  if (certificate == nullptr) return "";
  char address[256] = "";
  X509_NAME_get_text_by_NID(X509_get_subject_name(certificate.get()), NID_pkcs9_emailAddress, address, sizeof address);
  return address;
}

void refuse(evhttp_request *request, int code, const std::string &why) {
  wb_log(WB_LOG_INFO, "refused with %d: %s", code, why.c_str());
  const Owner<evbuffer, evbuffer_free> body(evbuffer_new());
  evbuffer_add_printf(body.get(), "<error>%d</error>", code);
  evhttp_send_reply(request, code, nullptr, body.get());
}

// One answer under way. It belongs to its connection and goes with it.
class Answer {
 public:
  Answer(event_base *base, evhttp_request *request, const Order &order)
      : order_(order),
        document_(order),
        request_(request),
        connection_(evhttp_request_get_connection(request)),
        buffer_(evbuffer_new()),
        timer_(evtimer_new(base, on_timer, this)) {
    evhttp_connection_set_closecb(connection_, on_close, this);
    const timeval delay = {static_cast<time_t>(order.delay_ms / 1000), static_cast<suseconds_t>(order.delay_ms % 1000 * 1000)};
    evtimer_add(timer_.get(), &delay);
  }

 private:
  static void on_timer(evutil_socket_t, short, void *self) { static_cast<Answer *>(self)->begin(); }
  static void on_drained(evhttp_connection *, void *self) { static_cast<Answer *>(self)->go_on(); }
  static void on_close(evhttp_connection *, void *self) {
    const std::unique_ptr<Answer> answer(static_cast<Answer *>(self));
    // A client that goes away takes the connection with it, but leaves the request to whoever is answering it.
    if (evhttp_request_get_connection(answer->request_) == nullptr) evhttp_request_free(answer->request_);
  }

  void begin() {
    // The head and what follows it leave apart: the second would wait until the first is acknowledged, which takes 40 ms.
    const int at_once = 1;
    setsockopt(bufferevent_getfd(evhttp_connection_get_bufferevent(connection_)), IPPROTO_TCP, TCP_NODELAY, &at_once,
               sizeof at_once);
    evkeyvalq *const headers = evhttp_request_get_output_headers(request_);
    evhttp_add_header(headers, "Content-Type", "application/xml");
    // A document that breaks off is no fault in HTTP where no length was told.
    if (order_.failure == Failure::truncate || order_.failure == Failure::malformed) {
      evhttp_add_header(headers, "Connection", "close");
    } else {
      evhttp_add_header(headers, "Content-Length", std::to_string(document_.length()).c_str());
    }
    evhttp_send_reply_start(request_, HTTP_OK, nullptr);
    go_on();
  }

  void go_on() {
    evbuffer_iovec room = {};
    if (evbuffer_reserve_space(buffer_.get(), static_cast<ev_ssize_t>(document_.piece_max()), &room, 1) != 1) return;
    room.iov_len = document_.write(static_cast<char *>(room.iov_base));
    const bool has_more = room.iov_len > 0;
    evbuffer_commit_space(buffer_.get(), &room, 1);
    if (has_more) return evhttp_send_reply_chunk_with_cb(request_, buffer_.get(), on_drained, this);
    finish();
  }

  void finish() {
    const Failure failure = document_.has_failed() ? order_.failure : Failure::none;
    if (failure == Failure::silent) return;
    evhttp_connection *const connection = connection_;
    if (failure == Failure::reset) {
      const linger at_once = {1, 0};
      setsockopt(bufferevent_getfd(evhttp_connection_get_bufferevent(connection)), SOL_SOCKET, SO_LINGER, &at_once,
                 sizeof at_once);
      evhttp_connection_free(connection);  // and this with it
      return;
    }
    evhttp_connection_set_closecb(connection, nullptr, nullptr);
    evhttp_send_reply_end(request_);
    delete this;
  }

  const Order order_;
  Document document_;
  evhttp_request *const request_;
  evhttp_connection *const connection_;
  const Owner<evbuffer, evbuffer_free> buffer_;
  const Owner<event, event_free> timer_;
};

}  // namespace

Service::Service(event_base *base, const Options &options)
    : base_(base), domain_(options.domain), tls_(make_tls(options)), http_(evhttp_new(base)) {
  if (http_ == nullptr) give_up("no HTTP server");
  evhttp_set_bevcb(http_.get(), make_connection, this);
  evhttp_set_gencb(http_.get(), on_request, this);
  evhttp_set_max_body_size(http_.get(), kRequestBytesMax);
  evhttp_set_allowed_methods(http_.get(), EVHTTP_REQ_POST);
  if (evhttp_bind_socket(http_.get(), "127.0.0.1", static_cast<ev_uint16_t>(options.port)) != 0) give_up("the port is taken");
}

bufferevent *Service::make_connection(event_base *base, void *service) {
  SSL *const ssl = SSL_new(static_cast<Service *>(service)->tls_.get());
  if (ssl == nullptr) return nullptr;
  bufferevent *const connection = bufferevent_openssl_socket_new(base, -1, ssl, BUFFEREVENT_SSL_ACCEPTING, BEV_OPT_CLOSE_ON_FREE);
  bufferevent_openssl_set_allow_dirty_shutdown(connection, 1);
  bufferevent_set_max_single_write(connection, kTlsRecordBytes * 4);
  return connection;
}

void Service::on_request(evhttp_request *request, void *service) { static_cast<Service *>(service)->answer(request); }

void Service::answer(evhttp_request *request) const {
  if (std::string_view(evhttp_request_get_uri(request)) != "/bulk") return refuse(request, HTTP_NOTFOUND, "unknown path");
  const std::string address = address_of(evhttp_request_get_connection(request));
  const char *const user = evhttp_find_header(evhttp_request_get_input_headers(request), "user");
  if (user == nullptr || address.empty() || address != user || !address.ends_with("@" + domain_)) {
    return refuse(request, 403, "the header user is not the certificate's " + address);
  }
  evbuffer *const input = evhttp_request_get_input_buffer(request);
  const std::string body(reinterpret_cast<const char *>(evbuffer_pullup(input, -1)), evbuffer_get_length(input));
  Order order;
  std::string complaint;
  if (!read_order(body, order, complaint)) return refuse(request, HTTP_BADREQUEST, complaint);
  wb_log(WB_LOG_INFO, "%s: %llu %s of %zu bytes", user, static_cast<unsigned long long>(order.records), order.result_set.c_str(),
         order.record_bytes);
  new Answer(base_, request, order);
}

}  // namespace bulk

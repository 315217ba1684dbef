// A scripted HTTPS service on a port of the loopback that the system chooses, for programs that download: with
// quillon_bulkdownload_*, or by anything else. It speaks HTTP/1.1 and answers one request a connection.
//
//   using namespace testpeer;
//   CertificateAuthority authority;
//   HttpsPeer peer({.certificate = authority.server(ServerIdentity{.addresses = {"127.0.0.1"}}),
//                   .answer = {.pieces = {"<r><c><i>1</i>", "<i>2</i></c></r>"}},
//                   .faults = {{HttpsStage::body, Fault::cut(20).then(Fault::truncate())}}});
//   ... let the client fetch peer.url() ...
//   assert(peer.wait_requests(1, std::chrono::seconds(10)));
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <qlk/testpeer/certificates.hpp>
#include <qlk/testpeer/connection.hpp>
#include <qlk/testpeer/script.hpp>

namespace testpeer {

class HttpExchange;

// The answers that the service gives on the way to a document, in their order.
enum class HttpsStage {
  accept,         // nothing was read yet, and what is sent goes in plain; the normal answer is nothing
  tls_handshake,  // the first bytes of the client's hello have arrived
  head,           // the request was read: the status line and the headers
  body            // the head was sent: the body as it goes over the line, chunked if that is asked for
};
// As it is written above; constant.
const char *name_of(HttpsStage stage);

// Names and values in the order in which they stand in the message.
using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

// What a client asked for.
struct HttpRequest {
  std::string method = {};  // "POST"
  std::string target = {};  // "/bulk?all=yes"
  HttpHeaders headers = {};
  std::string head = {};  // all of the above as it came, with the empty line behind it
  std::string body = {};  // as much as Content-Length announces; a chunked body is not read
  TlsFacts tls = {};      // the client's certificate is there, too

  // The target without what follows a question mark.
  std::string path() const;
  // The first value that has this name, in whatever case; empty when there is none.
  std::string header(std::string_view name) const;
};

// How the client is told where the body ends: by its length, by chunks of which the last is empty, or by the connection's end.
enum class HttpFraming { length, chunked, until_close };

// An answer. "Connection: close" and the headers of the framing are added to it.
struct HttpAnswer {
  int status = 200;
  HttpHeaders headers = {{"Content-Type", "application/xml"}};
  std::vector<std::string> pieces = {};  // of the body: each goes in a TLS record of its own, and a chunk if it is chunked
  std::chrono::milliseconds pause{0};    // between two of them
  HttpFraming framing = HttpFraming::length;
  std::optional<size_t> announced_length = {};  // instead of the length of the pieces, in bytes; for HttpFraming::length

  // Leads the client elsewhere: to a URL, or a path of the same service.
  static HttpAnswer redirect(std::string location, int status = 302);
};

// What the service is told to do: by default all that a correct one does. An ordinary value; what is named as in Options means
// the same.
struct HttpsOptions {
  Credentials certificate = {};  // the service's: for the address 127.0.0.1, or for ::1
  std::string client_authority = {}, client_revocations = {};
  bool needs_client_certificate = false;
  TlsVersion tls_version_min = TlsVersion::tls_1_2, tls_version_max = TlsVersion::tls_1_3;

  HttpAnswer answer = {};                          // to every request
  std::map<std::string, HttpAnswer> answers = {};  // to those with this path instead
  // Sees every request first, on the connection's thread. True: it was answered, and what follows is left out.
  std::function<bool(HttpExchange &)> on_request = {};
  std::map<HttpsStage, Fault> faults = {};

  bool ipv6 = false;
  size_t chunk_size = 0;
  std::chrono::milliseconds write_deadline = std::chrono::seconds(30);
};

// One request as on_request sees it, and the means to answer it. Of the connection's thread alone, and only until on_request
// returns; the connection then ends in order, if nothing here has ended it. What sends blocks while the client does not read, at
// most HttpsOptions::write_deadline, and returns false when the client is gone.
class HttpExchange {
 public:
  virtual ~HttpExchange() = default;

  virtual const HttpRequest &request() const = 0;

  // Head and body; the faults of these two stages are left out.
  virtual bool answer(const HttpAnswer &answer) = 0;
  // The head alone. What is sent next is the body.
  virtual bool begin(const HttpAnswer &answer) = 0;
  // The head of an answer that ends with the connection.
  bool begin(int status = 200) { return begin(HttpAnswer{.status = status, .framing = HttpFraming::until_close}); }
  // The bytes as they are, in TLS records of their own.
  virtual bool send(std::string_view bytes) = 0;

  // Blocks for so long. False when the peer ends meanwhile.
  virtual bool pause(std::chrono::milliseconds time) = 0;
  // Says nothing more; returns when the client is gone, or the peer ends.
  virtual void stay_silent() = 0;

  // Each the same as the fault of that name, at once. Nothing can be sent afterwards.
  virtual void close() = 0;
  virtual void truncate() = 0;
  virtual void reset() = 0;

 protected:
  HttpExchange() = default;
  HttpExchange(const HttpExchange &) = delete;
  HttpExchange &operator=(const HttpExchange &) = delete;
};

// Each connection has a thread of its own. Everything here may be called from any thread; what waits tells whether the condition
// came to hold before the deadline.
class HttpsPeer {
 public:
  using Milliseconds = std::chrono::milliseconds;

  // Listens when it returns. Throws std::runtime_error when it cannot, or when a certificate cannot be loaded.
  explicit HttpsPeer(HttpsOptions options = {});
  // Ends all connections at once, and joins the threads: callbacks of the script that are under way are waited for.
  ~HttpsPeer();
  HttpsPeer(const HttpsPeer &) = delete;
  HttpsPeer &operator=(const HttpsPeer &) = delete;

  unsigned port() const;
  // "127.0.0.1:PORT" or "[::1]:PORT"; in texts of faults "{host}" stands for it. Lives as long as the peer.
  const std::string &host() const;
  // Of that path, which begins with a slash.
  std::string url(std::string_view path = "/bulk") const { return "https://" + host() + std::string(path); }

  // How many connections there were, and how many of them have ended.
  size_t connections() const;
  size_t ended() const;
  bool wait_connections(size_t count, Milliseconds deadline) const;
  bool wait_all_ended(Milliseconds deadline) const;

  // All that were read whole, in the order in which they came, whatever became of them.
  std::vector<HttpRequest> requests() const;
  bool wait_requests(size_t count, Milliseconds deadline) const;
  // What went wrong, a text for each: a handshake, in OpenSSL's words, where an alert of the client is named; an exception of
  // on_request.
  std::vector<std::string> errors() const;

 private:
  class Server;
  const std::unique_ptr<Server> server_;
};

}  // namespace testpeer

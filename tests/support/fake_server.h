// A small XMPP server inside the test's process. Left alone it does everything right: STARTTLS, SASL EXTERNAL, resource binding.
// Its options make it do one thing or another wrong. Each connection has a thread; the destructor ends them all.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <qlk/testpeer/certificates.hpp>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "server_socket.h"
#include "xml_stream.h"

namespace test_support {

// Where the server is when it misbehaves: the fault takes the place of what it would say there.
enum class Stage {
  head,         // the first stream head
  features,     // the features after it
  proceed,      // the answer to starttls
  tls,          // the TLS handshake
  sasl,         // the answer to auth
  bind,         // the answer to the binding request
  established,  // whatever it does about the first stanza
};

struct Fault {
  enum class Kind {
    none,
    silent,  // says nothing more, and reads on
    close,
    reset,
    send_and_stay,  // says the text and nothing after it, and reads on; "{host}" in it is this server's host()
    send_and_close,
    send_and_go_on  // sends the text before what it would say there
  };
  Kind kind = Kind::none;
  std::string text;
};

class FakeServer {
 public:
  class Session;

  struct Options {
    std::string domain = "grid.test";
    testpeer::Credentials certificate;  // of the server
    std::string client_authority;       // a file: the client's certificate must chain to it; "": any or none will do
    std::map<Stage, Fault> faults;

    bool offers_starttls = true;
    std::vector<std::string> mechanisms = {"EXTERNAL"};
    std::string sasl_failure;  // the condition that auth is answered with
    std::string challenge;     // in base64: asked for before auth is answered
    bool offers_bind = true;
    std::string bind_error;     // the condition that binding is answered with
    std::string bound_jid;      // instead of the one that was asked for
    std::string success_data;   // in base64: added to the success
    size_t max_bytes = 0;       // announced as the limit of a stanza
    unsigned idle_seconds = 0;  // announced as the limit of silence
    int max_tls_version = 0;    // 0: the newest
    std::string after_proceed;  // sent together with proceed, in plain
    bool byte_by_byte = false;
    // What it does, after its own head, about a request that came together with the client's: at proceed, sasl and bind.
    std::map<Stage, Fault> faults_ahead;
    bool closes_streams = true;  // answers the client's closing tag
    bool answers_pings = true;   // those that go to the server

    bool small_window = false;  // a client that sends faster than the server reads soon has to wait

    // Looks at each stanza after binding instead of the behaviour above; runs on the connection's thread.
    std::function<void(Session &, const Element &)> on_stanza;
  };

  explicit FakeServer(Options options);
  ~FakeServer();
  FakeServer(const FakeServer &) = delete;
  FakeServer &operator=(const FakeServer &) = delete;

  std::string host() const { return "127.0.0.1:" + std::to_string(port_); }
  const Options &options() const { return options_; }

  // Stanzas after binding, of all connections and in the order in which they came.
  std::vector<Element> stanzas() const;
  // The first one that the predicate likes; false when none came in time.
  bool wait_for_stanza(const std::function<bool(const Element &)> &predicate, Element *stanza = nullptr,
                       std::chrono::milliseconds at_most = std::chrono::seconds(20)) const;

  // To every client that is bound.
  void send_to_all(std::string_view text);
  // Ends every connection in order: the closing tag, then the socket.
  void close_all();
  // Reads nothing more from clients that are bound, and reads on.
  void stop_reading() { reading_ = false; }
  void resume_reading();

  unsigned connections() const { return connections_; }
  unsigned established() const { return established_; }        // how often a client was bound
  unsigned closed_streams() const { return closed_streams_; }  // how often a bound client closed its stream
  std::string server_name() const;                             // the last that a client asked for in TLS
  std::string tls_version() const;                             // the last that was agreed on
  std::string initial_response() const;                        // the last of SASL, as it was sent
  unsigned flights() const { return flights_; }                // of the client until it was last bound
  unsigned records() const;                                    // TLS records with stanzas, of all connections

 private:
  void accept_clients();
  void record(const Element &stanza);

  const Options options_;
  int listener_ = -1;
  unsigned port_ = 0;
  SslContextPtr tls_;
  std::atomic<unsigned> connections_ = 0, established_ = 0, flights_ = 0, closed_streams_ = 0;
  std::atomic<bool> reading_ = true;

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  bool ending_ = false;  // all under mutex_
  std::vector<Element> stanzas_;
  std::string server_name_, tls_version_, initial_response_;
  std::vector<std::shared_ptr<Session>> sessions_;
  std::vector<std::thread> threads_;

  std::thread acceptor_;
};

// One connection.
class FakeServer::Session {
 public:
  Session(FakeServer &server, int fd) : server_(server), socket_(fd) {}

  // The full address, once it is bound.
  std::string jid() const;
  // Any thread.
  void send(std::string_view text);
  // Sends the closing tag and nothing after it.
  void close();
  // As a server answers a ping. False for another stanza.
  bool answer_ping(const Element &stanza);

 private:
  friend class FakeServer;
  struct Ended {};

  void run();
  void negotiate();
  void open_stream(const std::string &features, Stage request);
  void secure();
  void authenticate();
  void bind();
  void serve();
  XmlStream::Item next();
  Element next_stanza();
  void act(const std::map<Stage, Fault> &faults, Stage stage);
  void act(Stage stage) { act(server_.options_.faults, stage); }
  void drain();
  void on_stanza(const Element &stanza);

  FakeServer &server_;
  ServerSocket socket_;
  std::unique_ptr<XmlStream> stream_ = std::make_unique<XmlStream>();
  std::string user_;             // the address that the client claimed in its last stream head
  std::string jid_;              // under the server's mutex
  bool is_bound_ = false;        // likewise
  unsigned records_before_ = 0;  // TLS records until it was bound
  std::atomic<unsigned> records_ = 0;
};

}  // namespace test_support

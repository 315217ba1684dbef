// What the scripted peer is told to do: by default all that a correct server does; faults and options make it do otherwise. All
// of these are ordinary values.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <qlk/testpeer/certificates.hpp>
#include <qlk/testpeer/element.hpp>

namespace testpeer {

class Connection;

// The answers that the peer gives on its way to an established session, in their order.
enum class Stage {
  accept,            // nothing was read yet
  stream_open,       // the first stream head
  features,          // the features that follow it
  starttls,          // <proceed/>
  tls_handshake,     // the first bytes of the client's hello have arrived
  stream_open_tls,   // stream head and features after TLS
  sasl,              // the outcome of <auth/>
  stream_open_sasl,  // stream head and features after SASL
  bind,              // the outcome of resource binding
  established        // binding was answered; a fault comes before anything else
};
// As it is written above; constant.
const char *name_of(Stage stage);

// What a server may say in TLS that no application hears.
enum class TlsNoise {
  key_updates,      // new keys, each with the request that the client change its own; TLS 1.3 alone
  session_tickets,  // for a session to be resumed with
  renegotiations    // requests for a new handshake; TLS 1.2 alone. A client that refuses one is left, as OpenSSL does not go on
                    // then
};

// What the peer does when it would give the answer of a stage, or of a request. Faults join into sequences:
//   Fault::delay(50ms).then(Fault::reset()),  Fault::close().times(2)
// In their texts "{host}" stands for the peer's host(), "{jid}" for the client's address and "{id}" for the id of the request;
// the last two are the scripted peer's alone, an HttpsPeer knows neither.
class Fault {
 public:
  using Milliseconds = std::chrono::milliseconds;

  // ---- After these it goes on as if nothing had been.
  static Fault delay(Milliseconds time);
  // Sends the bytes, then the normal answer.
  static Fault insert(std::string bytes);
  // Sends the bytes and not the normal answer. (In tls_handshake it goes no further, as there is nothing to go on with.)
  static Fault replace(std::string bytes);
  // Sends the first so many bytes of the normal answer and not the rest.
  static Fault cut(size_t bytes);
  // Reads nothing more until Connection::resume_reading, but gives this answer.
  static Fault stop_reading();
  // Says this in TLS so many times, and as fast as the client takes it; without a count, until the client is gone. Before TLS,
  // and in a version that does not have it, the connection ends, and why is among the violations, or the errors.
  static Fault tls(TlsNoise noise, size_t count = SIZE_MAX);

  // ---- These are the last of their sequence.
  // Reads on and records what comes, but answers no more.
  static Fault silent();
  // As an orderly server closes: TLS says goodbye, then TCP does.
  static Fault close();
  // TCP closes without TLS having said so.
  static Fault truncate();
  // TCP resets the connection.
  static Fault reset();
  // Closes its own direction only, and reads on.
  static Fault half_close();
  // Sends the bytes and is silent.
  static Fault say(std::string bytes) { return replace(std::move(bytes)).then(silent()); }
  // Sends the stream error, with a stream head if there was none, and closes. The text of see-other-host is the host:
  // stream_error("see-other-host", "{host}") leads the client in a circle. An HttpsPeer, which has no streams, only closes.
  static Fault stream_error(std::string condition, std::string text = {});

  // This one, and the next after it.
  Fault then(const Fault &next) const;
  // Only the first so many connections that come to the stage, or requests of that name, meet it.
  Fault times(unsigned count) const;

 private:
  friend class PeerLink;
  enum class Kind { delay, insert, replace, cut, stop_reading, tls, silent, close, truncate, reset, half_close, stream_error };
  struct Action {
    Kind kind;
    std::string text = {}, condition = {};
    Milliseconds time = {};
    size_t bytes = 0;  // or how often
    TlsNoise noise = {};
  };
  explicit Fault(Action action) : actions_{std::move(action)} {}

  std::vector<Action> actions_;
  std::optional<unsigned> times_;
};

// How an IQ is answered: rightly, unless it says otherwise.
struct Reply {
  std::string payload = {};              // XML
  std::string error = {};                // a stanza error's condition; the reply is then of type error
  std::optional<std::string> id = {};    // instead of the request's
  std::optional<std::string> from = {};  // instead of whom the request was sent to; "" for none
  unsigned copies = 1;                   // 0: none
  std::chrono::milliseconds after{0};    // sent so much later; the peer goes on meanwhile
};

enum class TlsVersion { tls_1_1, tls_1_2, tls_1_3 };

struct Options {
  std::string domain = "grid.quillon.internal";
  bool ipv6 = false;  // listens on ::1 and not on 127.0.0.1

  Credentials certificate = {};           // the server's; without one every handshake fails
  std::string client_authority = {};      // a file: the client's certificate, if it shows one, must chain to it; "": any will do
  std::string client_revocations = {};    // a file: a certificate that is listed there is refused, as is any without a list
  bool needs_client_certificate = false;  // no handshake without one
  TlsVersion tls_version_min = TlsVersion::tls_1_2, tls_version_max = TlsVersion::tls_1_3;

  std::map<Stage, Fault> faults = {};
  // Instead of the answers of established sessions: by the local name of a grid request ("connectRequest", "subscribeRequest",
  // that of a query's payload), or of any other stanza ("presence", "message", "iq"). on_stanza comes before.
  std::map<std::string, Fault> request_faults = {};
  size_t chunk_size = 0;      // the most bytes that are sent in one piece; 1: one by one, 0: all at once
  size_t cut_at = 0;          // whatever is sent at once goes in two pieces, the first of so many bytes; 0: in one
  size_t receive_buffer = 0;  // of the kernel, so that who sends more must soon wait; 0: as large as usual
  bool answers_close = true;  // answers the client's closing tag
  std::string prolog = "<?xml version='1.0'?>";  // before each stream's start tag
  std::string stream_ns = "http://etherx.jabber.org/streams", content_ns = "jabber:client";

  bool offers_starttls = true;
  bool refuses_starttls = false;   // answers it with a failure
  std::string after_proceed = {};  // plain text, sent together with <proceed/>
  bool offers_mechanisms_before_tls = false;

  std::vector<std::string> mechanisms = {"EXTERNAL"};
  std::string sasl_failure = {}, sasl_failure_text = {};  // the condition of <failure/>; "": success
  std::optional<std::string> sasl_challenge = {};         // sent before the outcome, once it is encoded
  std::optional<std::string> sasl_success_data = {};      // likewise, with <success/>

  bool offers_bind = true;
  std::string bound_jid = {};            // instead of the one that was asked for
  std::string bind_error = {};           // a stanza error's condition
  std::optional<size_t> max_bytes = {};  // the limit of a stanza that the features announce

  // Sees every stanza of established sessions, on the connection's thread. True: it was dealt with, and what follows is left out.
  std::function<bool(Connection &, const Stanza &)> on_stanza = {};
  bool answers_server_requests = true;  // those to the server: pings with a result, others with service-unavailable

  // Answers grid requests to the controller as a controller does that approves of everybody.
  bool act_as_controller = false;
  std::string controller = {};                                 // its address; "": controller@DOMAIN/qlk
  std::string approval_status = "approved";                    // the answer to connectRequest
  std::vector<std::string> publishers = {};                    // whom subscribers are told of
  std::map<std::string, std::string> controller_answers = {};  // XML by the request's local name; else it is sent back as it came
  // Answers every other grid request with its own payload.
  bool echo_queries = false;
  // How both answer, and how they answer requests of these local names instead; they fill in the payload unless there is one.
  Reply grid_reply = {};
  std::map<std::string, Reply> request_replies = {};

  std::chrono::milliseconds negotiation_deadline = std::chrono::seconds(30);  // of each wait before a session is established
  std::chrono::milliseconds write_deadline = std::chrono::seconds(30);
  size_t recorded_bytes_max = 1024 * 1024;  // per connection: what comes after is read but not recorded
};

}  // namespace testpeer

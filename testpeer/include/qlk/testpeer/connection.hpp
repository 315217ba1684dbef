// One connection of the scripted peer: the server's side of a session, and what the client did in it.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <qlk/testpeer/element.hpp>
#include <qlk/testpeer/script.hpp>

namespace testpeer {

// What a TLS handshake agreed on.
struct TlsFacts {
  std::string version = {};         // as OpenSSL writes it: "TLSv1.3"; empty before the handshake
  std::string server_name = {};     // that the client asked for
  std::string client_subject = {};  // of its certificate, as RFC 2253 writes it; empty when it showed none
  bool client_verified = false;     // that certificate chains to the authority
};

// What came while the peer was waiting for the request whose answer is the stage's.
struct StageRecord {
  unsigned segments = 0;      // pieces that one read call of the socket returned
  unsigned flights = 0;       // those of them that came after the peer had spoken: the round trips
  std::string received = {};  // without TLS
};

// Everything that a client did on one connection so far.
struct Transcript {
  std::map<Stage, StageRecord> stages = {};
  std::string received = {};  // of all stages, up to Options::recorded_bytes_max
  TlsFacts tls = {};
  std::string tls_error = {};                     // why the handshake failed, in OpenSSL's words; an alert is named there
  std::string sasl_mechanism = {};                // of the last <auth/>
  std::optional<std::string> sasl_response = {};  // its initial response, decoded; nothing when it had none or no base64
  std::vector<std::string> sasl_answers = {};     // of <response/>, decoded
  std::string jid = {};                           // empty until it is bound
  std::vector<std::string> violations = {};  // what no correct client does: no XML, content in the wrong place, SASL in plain
  bool is_established = false;               // it had a session
  bool is_closed_by_client = false;          // the client sent the closing tag
  bool is_ended = false;                     // and its socket is closed

  // Of all stages.
  unsigned flights() const;
  // An empty record when nothing came there.
  const StageRecord &at(Stage stage) const;
};

// Made by the peer alone. It may be held for longer than the peer lives: it can still be asked, and does nothing more. Every
// function may be called from any thread, also from the callbacks of the script; none blocks but what says so.
class Connection {
 public:
  using Milliseconds = std::chrono::milliseconds;

  virtual ~Connection() = default;

  // Its place in the order in which the connections came, from 0 on.
  virtual size_t number() const = 0;
  // The full address; empty until it is bound.
  virtual std::string jid() const = 0;
  // What the client did so far: a copy.
  virtual Transcript transcript() const = 0;
  // Blocks until the predicate holds for the transcript: true; false when it still does not at the deadline. The predicate runs
  // under the peer's lock and must not ask the peer or its connections anything.
  virtual bool wait_until(const std::function<bool(const Transcript &)> &predicate, Milliseconds deadline) const = 0;

  // Sends the bytes as they are. Blocks while the client does not read, at most Options::write_deadline. False when they could
  // not all be handed to the system.
  virtual bool send(std::string_view bytes) = 0;
  // The same once the time has passed, unless the connection ends before.
  virtual void send_later(Milliseconds time, std::string bytes) = 0;
  // Answers an IQ. Blocks as send does.
  virtual void reply(const Stanza &request, const Reply &reply) = 0;

  // Each the same as the fault of that name, at once.
  virtual void close() = 0;
  virtual void truncate() = 0;
  virtual void reset() = 0;
  virtual void half_close() = 0;
  virtual void stop_reading() = 0;
  virtual void stream_error(const std::string &condition, const std::string &text = {}) = 0;
  // Ends stop_reading.
  virtual void resume_reading() = 0;
  // Sends the closing tag, and closes when the client has answered it.
  virtual void close_stream() = 0;
  // For on_stanza: blocks for so long, and the connection's reading with it. False when the peer ends meanwhile.
  virtual bool pause(Milliseconds time) = 0;

 protected:
  Connection() = default;
  Connection(const Connection &) = delete;
  Connection &operator=(const Connection &) = delete;
};

}  // namespace testpeer

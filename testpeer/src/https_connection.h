// One connection of the HTTPS peer, as its own thread serves it.
#pragma once

#include <qlk/testpeer/https_peer.hpp>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "peer_link.h"

namespace testpeer {

// What the connections of a peer share.
struct HttpsState {
  explicit HttpsState(HttpsOptions script) : options(std::move(script)) {}

  const HttpsOptions options;
  std::string host;      // set before the first connection
  SslContextPtr tls;     // likewise
  FaultsMet faults_met;  // by the name of the stage

  std::mutex mutex;
  std::condition_variable changed;  // whenever one of the following has
  size_t connections = 0, ended = 0;
  std::vector<HttpRequest> requests;
  std::vector<std::string> errors;
};

class HttpsConnection final : public HttpExchange, public PeerLink {
 public:
  // Takes the descriptor over, unless it throws.
  HttpsConnection(std::shared_ptr<HttpsState> state, int descriptor);

  void run() override;
  void finish() override;
  bool has_ended() const override { return has_ended_; }

  const HttpRequest &request() const override { return request_; }
  bool answer(const HttpAnswer &answer) override;
  bool begin(const HttpAnswer &answer) override;
  bool send(std::string_view bytes) override;
  bool pause(std::chrono::milliseconds time) override { return socket_.pause(time); }
  void stay_silent() override;
  void close() override { end_with(Ending::close); }
  void truncate() override { end_with(Ending::truncate); }
  void reset() override;

 private:
  void serve();
  void secure();
  void read_request();
  void read_more(std::string &bytes);
  void respond();
  bool send_pieces(const std::vector<std::string> &pieces, std::chrono::milliseconds time);
  bool meet_fault(HttpsStage stage, const std::string &answer);
  void stream_error(const std::string &, const std::string &) override { close(); }
  template <typename Change>
  void note(Change &&change);

  const std::shared_ptr<HttpsState> state_;
  HttpRequest request_;
  std::atomic<bool> has_ended_ = false;
};

}  // namespace testpeer

// What a connect takes from the configuration table.
#pragma once

#include <warbler/err.h>
#include <warbler/htable.h>

#include <chrono>
#include <string>
#include <vector>

#include "endpoint.h"
#include "sasl.h"
#include "stream_parser.h"
#include "tls.h"

namespace wb {

struct ClientOptions {
  wb_htable *table = nullptr;  // borrowed: mechanisms read it
  std::string domain;
  std::string host_text;  // as configured
  Endpoint endpoint;
  std::vector<Endpoint> other_endpoints;  // to be dialled besides
  std::chrono::milliseconds race_gap{0};  // between the addresses that are dialled; 0: one after the other
  std::string user_jid;
  std::string resource;
  const wb_sasl_factory *factory = nullptr;
  TlsHooks hooks;
  StreamLimits limits;
  size_t queue_bytes_max = 64u << 20;
  std::chrono::seconds connect_timeout{45};
  std::chrono::seconds idle_probe{60};
  unsigned reconnect_countdown_seconds = 0;
};

// Reads and checks the table. May throw std::bad_alloc.
bool read_client_options(wb_htable *table, ClientOptions &options, wb_err *err);

}  // namespace wb

// What a peer shows of itself in a TLS handshake, and what it wants to see.
#pragma once

#include <qlk/testpeer/script.hpp>

#include <string>

#include "peer_socket.h"

namespace testpeer {

// As Options has them.
struct TlsSettings {
  const Credentials &certificate;
  const std::string &client_authority, &client_revocations;
  bool needs_client_certificate;
  TlsVersion version_min, version_max;
};

template <typename AnyOptions>
TlsSettings tls_settings(const AnyOptions &options) {
  return {options.certificate,     options.client_authority, options.client_revocations, options.needs_client_certificate,
          options.tls_version_min, options.tls_version_max};
}

// Throws std::runtime_error when a file cannot be loaded.
SslContextPtr make_server_context(const TlsSettings &settings);

}  // namespace testpeer

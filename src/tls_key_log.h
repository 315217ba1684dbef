// The keys of TLS sessions, written down for programs that decode captured traffic.
#pragma once

#include "quillon.h"

namespace qlk {

// Has what begins with this context, an OpenSSL SSL_CTX *, append its keys to the configuration's file; nothing where none is
// set. What cannot be done is logged. The context holds the file open, and does not look at the configuration later.
void log_tls_keys(const quillon_config &config, void *ssl_ctx);

}  // namespace qlk

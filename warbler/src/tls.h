// TLS for a client: the context that the application's hook prepares, and the check of the server's name.
#pragma once

#include <warbler/tls.h>

#include <string>

#include "link.h"

namespace wb {

// Who asked the accept hook and waits for its answer. Called from C: it lets no exception out.
class TlsAsker {
 public:
  virtual void on_tls_answer(bool accept) = 0;

 protected:
  ~TlsAsker() = default;
};

}  // namespace wb

// What the accept hook is asked about. Its asker owns it, and is forgotten here when nobody waits any more.
struct wb_tls_session {
  SSL *ssl = nullptr;
  wb::TlsAsker *asker = nullptr;
};

namespace wb {

struct TlsHooks {
  wb_tls_connect_func connect = nullptr;
  void *connect_arg = nullptr;
  wb_tls_accept_func accept = nullptr;
  void *accept_arg = nullptr;
};

// Names that the server's certificate may bear: one of them is enough.
struct ExpectedNames {
  std::string domain;  // also the server name that the handshake indicates
  std::string host;    // the name or address that was dialled
};

// A connection of a context of its own that the hook has prepared: TLS 1.2 or newer; with peer verification on, the certificate
// has to bear an expected name, unless the context expects a name, an address or an e-mail address of its own. names must outlive
// the connection. NULL with error set when OpenSSL refuses: no connection is made whose server would go unchecked.
SslPtr make_tls(const TlsHooks &hooks, const ExpectedNames &names, std::string &error);

// True when the context that the connection was made of verifies the peer.
bool verifies_peer(const SSL *ssl);

// "TLSv1.3, TLS_AES_256_GCM_SHA384, CN = ..." of an established connection, for the log.
std::string describe_tls(const SSL *ssl);

}  // namespace wb

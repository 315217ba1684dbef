#pragma once

#include "quillon.h"

namespace qlk {
class LiveCredentials;
}

// Everything the configuration points to is its own.
struct _quillon_config {
  quillon_string *user_name;
  quillon_string *description;
  quillon_string *password;
  quillon_list *hosts;  // of quillon_string
  int32_t hosts_index;  // the next host to try; -1 until hosts are set
  int32_t hosts_count;
  quillon_string *client_cert_chain_filename;
  quillon_string *client_cert_key_filename;
  quillon_string *client_cert_key_password;
  quillon_string *server_cert_chain_filename;
  quillon_string *bulk_server_cert_chain_filename;
  int32_t send_timeout_seconds;
  quillon_string *jid;  // the client's full JID
  quillon_string *user_group;
  quillon_list *groups;  // of quillon_string
  int32_t groups_count;
  // Private additions. In stanzas, and in bytes; 0: no such limit.
  int32_t handler_queue_warning;
  int32_t handler_queue_bound;
  size_t handler_queue_warning_bytes;
  size_t handler_queue_bound_bytes;
  QUILLON_HANDLER_QUEUE_OVERFLOW handler_queue_overflow;
  QUILLON_SASL_RESPONSE sasl_response;
  bool races_addresses;
  quillon_string *crl_filename;
  int32_t expiry_warning_days;  // 0: never
  qlk::LiveCredentials *live;   // null for a record that was not created
  quillon_string *tls_key_log_filename;
};

namespace qlk {

// OpenSSL's pass-phrase callback; userdata is the configuration. Writes the pass phrase, cut to size - 1 bytes, with a
// terminating zero, and returns its length: 0 when there is none.
int _pem_password_cb(char *buf, int size, int rwflag, void *userdata);

}  // namespace qlk

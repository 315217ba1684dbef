// Nothing but the filling of a TLS context throws: memory comes from malloc. The setters build the new value aside and then
// replace the old one, which is released.
#include "quillon_config.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "guard.h"
#include "live_credentials.h"
#include "owners.h"
#include "quillon_grid.h"
#include "quillon_string.h"
#include "tls_key_log.h"

namespace {

constexpr int kSendTimeoutSeconds = 15;
constexpr int kHandlerQueueWarning = 1000;
constexpr size_t kHandlerQueueWarningBytes = size_t{64} << 20;
constexpr int kExpiryWarningDays = 14;
constexpr char kJidSuffix[] = "@" GRID_DOMAIN "/qlk";

using Field = quillon_string *_quillon_config::*;

void replace(quillon_string *&field, qlk::StringPtr fresh) {
  const qlk::StringPtr old(field);
  field = fresh.release();
}

// Leaves no copy of a secret in memory that others get next.
void release_secret(quillon_string *&field) {
  if (field != nullptr && field->buffer != nullptr) OPENSSL_cleanse(field->buffer, field->buffer_len);
  quillon_string_destroy(&field);
}

void replace_list(quillon_list *&field, qlk::ListPtr fresh) {
  const qlk::ListPtr old(field);
  field = fresh.release();
}

int32_t count_of(const quillon_list *list) { return static_cast<int32_t>(quillon_list_size(list)); }

QUILLON_STATUS make_text(const char *text, const char *not_created, const char *not_valid, qlk::StringPtr &out) {
  quillon_string *created = nullptr;
  const QUILLON_STATUS status = quillon_string_create(&created, text, std::strlen(text));
  out.reset(created);
  if (status != QUILLON_STATUS_OK) {
    if (not_created != nullptr) wb_log(WB_LOG_ERROR, "%s", not_created);
    return status;
  }
  return quillon_string_validate(out.get()) ? QUILLON_STATUS_OK : qlk::refuse(not_valid);
}

// The part that all plain setters share: a length that is refused without a message, then the new value.
QUILLON_STATUS set_text(quillon_config &config, Field field, const char *text, const char *not_valid) {
  if (!qlk::string_length_ok(std::strlen(text))) return QUILLON_STATUS_INVALID_ARGS;
  qlk::StringPtr fresh;
  const QUILLON_STATUS status = make_text(text, nullptr, not_valid, fresh);
  if (status != QUILLON_STATUS_OK) return status;
  const qlk::LiveCredentials::Settings settings(config.live);
  replace(config.*field, std::move(fresh));
  return QUILLON_STATUS_OK;
}

QUILLON_STATUS set_described_text(quillon_config *config, Field field, const char *text, const char *missing,
                                  const char *not_valid) {
  if (config == nullptr) return qlk::refuse("Invalid config object");
  if (text == nullptr) return qlk::refuse(missing);
  return set_text(*config, field, text, not_valid);
}

QUILLON_STATUS set_client_text(quillon_config *config, Field field, const char *text, const char *not_valid) {
  if (config == nullptr || text == nullptr) return QUILLON_STATUS_INVALID_ARGS;
  return set_text(*config, field, text, not_valid);
}

// Here null means that there is no such file.
QUILLON_STATUS set_server_text(quillon_config *config, Field field, const char *text, const char *not_valid) {
  if (config == nullptr) return QUILLON_STATUS_INVALID_ARGS;
  if (text != nullptr) return set_text(*config, field, text, not_valid);
  const qlk::LiveCredentials::Settings settings(config->live);
  quillon_string_destroy(&(config->*field));
  return QUILLON_STATUS_OK;
}

QUILLON_STATUS make_string_list(qlk::ListPtr &out) {
  quillon_list *created = nullptr;
  const QUILLON_STATUS status = quillon_list_create(&created, quillon_config_free_string, nullptr);
  out.reset(created);
  return status;
}

// Appends the string, which the list owns from then on.
QUILLON_STATUS push_string(quillon_list *list, qlk::StringPtr string) {
  if (!quillon_list_push_back(list, string.get())) return QUILLON_STATUS_MALLOC_ERROR;
  string.release();
  return QUILLON_STATUS_OK;
}

QUILLON_STATUS make_filled_list(const char **texts, int count, qlk::ListPtr &out) {
  qlk::ListPtr fresh;
  if (const QUILLON_STATUS status = make_string_list(fresh); status != QUILLON_STATUS_OK) {
    wb_log(WB_LOG_ERROR, "list creation failed");
    return status;
  }
  for (int i = 0; i < count; ++i) {
    quillon_string *created = nullptr;
    QUILLON_STATUS status = quillon_string_create(&created, texts[i], texts[i] != nullptr ? std::strlen(texts[i]) : 0);
    if (status == QUILLON_STATUS_OK) status = push_string(fresh.get(), qlk::StringPtr(created));
    if (status != QUILLON_STATUS_OK) return status;
  }
  out = std::move(fresh);
  return QUILLON_STATUS_OK;
}

quillon_string *copy_of(const quillon_string *source) {
  quillon_string *copy = nullptr;
  if (source != nullptr) quillon_string_copy_create(&copy, source);
  return copy;
}

// A new list with a copy of each string. What cannot be copied is left out.
quillon_list *copy_of(const quillon_list *source) {
  qlk::ListPtr copy;
  if (make_string_list(copy) != QUILLON_STATUS_OK || source == nullptr) return copy.release();
  for (const _node *node = source->head; node != nullptr; node = node->next) {
    push_string(copy.get(), qlk::StringPtr(copy_of(static_cast<const quillon_string *>(node->data))));
  }
  return copy.release();
}

// Says why OpenSSL could not take the file, unless it could, and empties OpenSSL's queue of errors for the next step.
void report_step(bool done, const char *purpose, const std::string &name) {
  if (!done) {
    char reason[256];
    ERR_error_string_n(ERR_get_error(), reason, sizeof reason);  // the first error is the cause, the others follow from it
    wb_log(WB_LOG_ERROR, "quillon_config_fill_ssl_ctx: %s file '%s' cannot be used: %s", purpose, name.c_str(), reason);
  }
  ERR_clear_error();
}

// Has the context take the file, or says that none is set.
template <typename Take>
void take_file(const std::string &name, const char *purpose, Take take) {
  if (name.empty()) return wb_log(WB_LOG_WARN, "quillon_config_fill_ssl_ctx: no %s file is set", purpose);
  report_step(take(name.c_str()) == 1, purpose, name);
}

void fill_from_files(SSL_CTX *context, const quillon_config &config, const qlk::CredentialFiles &files, bool is_bulk_download) {
  SSL_CTX_set_default_passwd_cb(context, qlk::_pem_password_cb);
  SSL_CTX_set_default_passwd_cb_userdata(context, const_cast<quillon_config *>(&config));
  take_file(files.certificate, "client certificate chain",
            [&](const char *name) { return SSL_CTX_use_certificate_chain_file(context, name); });
  take_file(files.key, "client key",
            [&](const char *name) { return SSL_CTX_use_PrivateKey_file(context, name, SSL_FILETYPE_PEM); });
  take_file(is_bulk_download ? files.bulk_ca : files.ca, "server CA",
            [&](const char *name) { return SSL_CTX_load_verify_locations(context, name, nullptr); });
}

// The lists of revocations are read as they are, whatever set of credentials is in force.
void fill_context(SSL_CTX *context, const quillon_config &config, bool is_bulk_download) {
  qlk::CredentialFiles files;
  qlk::copy_files(config, files);
  const auto set = config.live != nullptr ? config.live->current(config) : nullptr;
  if (set == nullptr) {
    fill_from_files(context, config, files, is_bulk_download);
  } else if (!set->fill(context, is_bulk_download)) {
    wb_log(WB_LOG_ERROR, "quillon_config_fill_ssl_ctx: the credentials in force cannot be used: %s", qlk::first_reason().c_str());
  }
  if (!files.crl.empty()) report_step(qlk::look_for_revocations(context, files.crl.c_str()), "revocation list", files.crl);
}

}  // namespace

int qlk::_pem_password_cb(char *buf, int size, int /*rwflag*/, void *userdata) {
  const auto *config = static_cast<const quillon_config *>(userdata);
  if (buf == nullptr || size < 1) return 0;
  const LiveCredentials::Settings settings(config != nullptr ? config->live : nullptr);
  const char *pass_phrase = config != nullptr ? quillon_string_cstr(config->client_cert_key_password) : nullptr;
  if (pass_phrase == nullptr) return 0;
  std::strncpy(buf, pass_phrase, static_cast<size_t>(size));
  buf[size - 1] = '\0';
  return static_cast<int>(std::strlen(buf));
}

void quillon_config_free_string(void *datastr) {
  qlk::trace(__func__);
  auto *string = static_cast<quillon_string *>(datastr);
  quillon_string_destroy(&string);
}

void quillon_config_initialize(quillon_config *config) {
  qlk::trace(__func__);
  *config = {};
  config->hosts_index = -1;
}

QUILLON_STATUS quillon_config_default_create(quillon_config **config) {
  qlk::trace(__func__);
  if (config == nullptr) return qlk::refuse("Invalid config object");
  *config = static_cast<quillon_config *>(std::calloc(1, sizeof(quillon_config)));
  if (*config == nullptr) {
    wb_log(WB_LOG_ERROR, "allocation failed for config object");
    return QUILLON_STATUS_MALLOC_ERROR;
  }
  quillon_config_initialize(*config);
  (*config)->live = new (std::nothrow) qlk::LiveCredentials();
  if ((*config)->live != nullptr) return QUILLON_STATUS_OK;
  std::free(*config);
  *config = nullptr;
  wb_log(WB_LOG_ERROR, "allocation failed for config object");
  return QUILLON_STATUS_MALLOC_ERROR;
}

QUILLON_STATUS quillon_config_create(quillon_config **config) {
  qlk::trace(__func__);
  quillon_log_initialize();
  if (config == nullptr) return qlk::refuse("Invalid config object");
  *config = nullptr;
  if (const QUILLON_STATUS status = quillon_config_default_create(config); status != QUILLON_STATUS_OK) {
    wb_log(WB_LOG_ERROR, "config object default create failed ");
    return status;
  }
  const auto create_list = [&](quillon_list *_quillon_config::*field) {
    qlk::ListPtr list;
    const QUILLON_STATUS status = make_string_list(list);
    if (status != QUILLON_STATUS_OK) {
      wb_log(WB_LOG_ERROR, "quillon_list create failed ");
      quillon_config_destroy(*config);
      *config = nullptr;
      return status;
    }
    (*config)->*field = list.release();
    return status;
  };
  if (const QUILLON_STATUS status = create_list(&_quillon_config::hosts); status != QUILLON_STATUS_OK) return status;
  (*config)->hosts_index = -1;
  (*config)->hosts_count = 0;
  if (const QUILLON_STATUS status = create_list(&_quillon_config::groups); status != QUILLON_STATUS_OK) return status;
  (*config)->groups_count = 0;
  (*config)->send_timeout_seconds = kSendTimeoutSeconds;
  (*config)->handler_queue_warning = kHandlerQueueWarning;
  (*config)->handler_queue_warning_bytes = kHandlerQueueWarningBytes;
  (*config)->expiry_warning_days = kExpiryWarningDays;
  return QUILLON_STATUS_OK;
}

void quillon_config_destroy(quillon_config *config) {
  qlk::trace(__func__);
  if (config == nullptr) return wb_log(WB_LOG_ERROR, "Invalid config object");
  quillon_string_destroy(&config->user_name);
  quillon_string_destroy(&config->description);
  release_secret(config->password);
  quillon_list_destroy(&config->hosts);
  quillon_list_destroy(&config->groups);
  quillon_string_destroy(&config->client_cert_chain_filename);
  quillon_string_destroy(&config->client_cert_key_filename);
  quillon_string_destroy(&config->server_cert_chain_filename);
  quillon_string_destroy(&config->bulk_server_cert_chain_filename);
  release_secret(config->client_cert_key_password);
  quillon_string_destroy(&config->jid);
  quillon_string_destroy(&config->tls_key_log_filename);
  quillon_string_destroy(&config->user_group);
  quillon_string_destroy(&config->crl_filename);
  delete config->live;
  std::free(config);
}

void quillon_config_clone(const quillon_config *config, quillon_config **new_config) {
  if (config == nullptr) {
    wb_log(WB_LOG_WARN, "Could not create copy for quillon_config ");
    if (new_config != nullptr) *new_config = nullptr;
    return;
  }
  if (quillon_config_default_create(new_config) != QUILLON_STATUS_OK) return;
  quillon_config &copy = **new_config;
  if (config->live != nullptr) copy.live->begin_as(*config->live);
  const qlk::LiveCredentials::Settings settings(config->live);
  copy.user_name = copy_of(config->user_name);
  copy.description = copy_of(config->description);
  copy.password = copy_of(config->password);
  copy.user_group = copy_of(config->user_group);
  copy.hosts = copy_of(config->hosts);
  copy.groups = copy_of(config->groups);
  copy.client_cert_chain_filename = copy_of(config->client_cert_chain_filename);
  copy.client_cert_key_filename = copy_of(config->client_cert_key_filename);
  copy.client_cert_key_password = copy_of(config->client_cert_key_password);
  copy.server_cert_chain_filename = copy_of(config->server_cert_chain_filename);
  copy.bulk_server_cert_chain_filename = copy_of(config->bulk_server_cert_chain_filename);
  copy.jid = copy_of(config->jid);
  copy.hosts_index = config->hosts_index;
  copy.hosts_count = config->hosts_count;
  copy.groups_count = config->groups_count;
  copy.send_timeout_seconds = config->send_timeout_seconds;
  copy.handler_queue_warning = config->handler_queue_warning;
  copy.handler_queue_bound = config->handler_queue_bound;
  copy.handler_queue_warning_bytes = config->handler_queue_warning_bytes;
  copy.handler_queue_bound_bytes = config->handler_queue_bound_bytes;
  copy.handler_queue_overflow = config->handler_queue_overflow;
  copy.sasl_response = config->sasl_response;
  copy.races_addresses = config->races_addresses;
  copy.crl_filename = copy_of(config->crl_filename);
  copy.expiry_warning_days = config->expiry_warning_days;
  copy.tls_key_log_filename = copy_of(config->tls_key_log_filename);
  if (config->crl_filename != nullptr && copy.crl_filename == nullptr) {  // it would accept servers that are revoked
    quillon_config_destroy(&copy);
    *new_config = nullptr;
  }
}

QUILLON_STATUS quillon_config_set_host(quillon_config *config, const char *host) {
  qlk::trace(__func__);
  if (config == nullptr) return qlk::refuse("Invalid config object");
  if (host == nullptr) return qlk::refuse("Invalid host object");
  if (!qlk::string_length_ok(std::strlen(host))) return qlk::refuse("host name too small or too large");
  qlk::StringPtr new_host;
  const QUILLON_STATUS status = make_text(host, "Unable to create quillon string object", "Invalid new_host", new_host);
  if (status != QUILLON_STATUS_OK) return status;
  // The new host goes in before the old ones go out, so that these stay in force when memory is exhausted. A configuration
  // without a list has nowhere to keep the host.
  if (config->hosts != nullptr) {
    if (push_string(config->hosts, std::move(new_host)) != QUILLON_STATUS_OK) return QUILLON_STATUS_MALLOC_ERROR;
    while (config->hosts->length > 1) quillon_list_erase_at(config->hosts, 0);
  }
  config->hosts_index = 0;
  config->hosts_count = count_of(config->hosts);
  return QUILLON_STATUS_OK;
}

QUILLON_STATUS quillon_config_set_hosts(quillon_config *config, const char **hosts, int hosts_count) {
  qlk::trace(__func__);
  if (config == nullptr) return qlk::refuse("Invalid config object");
  if (hosts_count < 1) return qlk::refuse("Invalid host count");
  if (hosts == nullptr) return qlk::refuse("Invalid hosts object");
  qlk::ListPtr fresh;
  const QUILLON_STATUS status = make_filled_list(hosts, hosts_count, fresh);
  if (status != QUILLON_STATUS_OK) return status;
  replace_list(config->hosts, std::move(fresh));
  config->hosts_index = 0;
  config->hosts_count = count_of(config->hosts);
  return QUILLON_STATUS_OK;
}

QUILLON_STATUS quillon_config_set_user_name(quillon_config *config, const char *username) {
  qlk::trace(__func__);
  if (config == nullptr) return qlk::refuse("Invalid config object");
  if (username == nullptr) return qlk::refuse("Invalid user name object");
  if (!qlk::string_length_ok(std::strlen(username))) return qlk::refuse("Invalid user name length");
  qlk::StringPtr user_name;
  QUILLON_STATUS status = make_text(username, "string creation failed", "Invalid config->user_name", user_name);
  if (status != QUILLON_STATUS_OK) return status;
  quillon_string_tolower(user_name.get());
  qlk::StringPtr jid;
  status = make_text(username, "string creation failed", "Invalid config->jid", jid);
  if (status != QUILLON_STATUS_OK) return status;
  quillon_string_tolower(jid.get());
  status = quillon_string_append_cstr(jid.get(), kJidSuffix, sizeof kJidSuffix - 1);
  if (status != QUILLON_STATUS_OK) {
    wb_log(WB_LOG_ERROR, "string append failed");
    return status;
  }
  replace(config->user_name, std::move(user_name));
  replace(config->jid, std::move(jid));
  return QUILLON_STATUS_OK;
}

QUILLON_STATUS quillon_config_set_groups(quillon_config *config, const char **groups, int groups_count) {
  qlk::trace(__func__);
  if (config == nullptr) return qlk::refuse("Invalid config object");
  if (groups_count < 1) return QUILLON_STATUS_INVALID_ARGS;
  if (groups == nullptr) return qlk::refuse("Invalid groups object");
  qlk::ListPtr fresh;
  QUILLON_STATUS status = make_filled_list(groups, groups_count, fresh);
  // Set last of all that can fail, so that a failure leaves both as they were.
  if (status == QUILLON_STATUS_OK) status = quillon_config_set_user_group(config, groups[0]);
  if (status != QUILLON_STATUS_OK) return status;
  replace_list(config->groups, std::move(fresh));
  config->groups_count = count_of(config->groups);
  return QUILLON_STATUS_OK;
}

QUILLON_STATUS quillon_config_set_user_group(quillon_config *config, const char *user_group) {
  qlk::trace(__func__);
  return set_described_text(config, &_quillon_config::user_group, user_group, "Invalid user_group object",
                            "Invalid config->user_group");
}

QUILLON_STATUS quillon_config_set_description(quillon_config *config, const char *description) {
  qlk::trace(__func__);
  return set_described_text(config, &_quillon_config::description, description, "Invalid description object",
                            "Invalid config->description");
}

QUILLON_STATUS quillon_config_set_client_cert_chain_filename(quillon_config *config, const char *filename) {
  qlk::trace(__func__);
  return set_client_text(config, &_quillon_config::client_cert_chain_filename, filename,
                         "Invalid config->client_cert_chain_filename");
}

QUILLON_STATUS quillon_config_set_client_cert_key_filename(quillon_config *config, const char *filename) {
  qlk::trace(__func__);
  return set_client_text(config, &_quillon_config::client_cert_key_filename, filename,
                         "Invalid config->client_cert_key_filename");
}

QUILLON_STATUS quillon_config_set_client_cert_key_password(quillon_config *config, const char *password) {
  qlk::trace(__func__);
  if (config == nullptr || password == nullptr) return QUILLON_STATUS_INVALID_ARGS;
  if (!qlk::string_length_ok(std::strlen(password))) return QUILLON_STATUS_INVALID_ARGS;
  qlk::StringPtr fresh;
  const QUILLON_STATUS status = make_text(password, nullptr, "Invalid config->client_cert_key_password", fresh);
  if (status != QUILLON_STATUS_OK) return status;
  const qlk::LiveCredentials::Settings settings(config->live);
  release_secret(config->client_cert_key_password);
  config->client_cert_key_password = fresh.release();
  if (config->live != nullptr) config->live->note_new_passphrase();
  return QUILLON_STATUS_OK;
}

QUILLON_STATUS quillon_config_set_server_cert_chain_filename(quillon_config *config, const char *filename) {
  qlk::trace(__func__);
  return set_server_text(config, &_quillon_config::server_cert_chain_filename, filename,
                         "Invalid config->server_cert_chain_filename");
}

QUILLON_STATUS quillon_config_set_bulk_server_cert_chain_filename(quillon_config *config, const char *filename) {
  qlk::trace(__func__);
  return set_server_text(config, &_quillon_config::bulk_server_cert_chain_filename, filename,
                         "Invalid config->bulk_server_cert_chain_filename");
}

QUILLON_STATUS quillon_config_set_crl(quillon_config *config, const char *filename) {
  qlk::trace(__func__);
  return set_server_text(config, &_quillon_config::crl_filename, filename, "Invalid config->crl_filename");
}

QUILLON_STATUS quillon_config_set_send_timeout_seconds(const quillon_config *config, const int seconds) {
  qlk::trace(__func__);
  if (config == nullptr) return QUILLON_STATUS_INVALID_ARGS;
  const_cast<quillon_config *>(config)->send_timeout_seconds = seconds;
  return QUILLON_STATUS_OK;
}

QUILLON_STATUS quillon_config_set_sasl_response(quillon_config *config, QUILLON_SASL_RESPONSE response) {
  qlk::trace(__func__);
  if (config == nullptr) return QUILLON_STATUS_INVALID_ARGS;
  switch (response) {
    case QUILLON_SASL_RESPONSE_USER_NAME:
    case QUILLON_SASL_RESPONSE_BARE_JID:
    case QUILLON_SASL_RESPONSE_NONE:
      config->sasl_response = response;
      return QUILLON_STATUS_OK;
    case QUILLON_SASL_RESPONSE_MAX:
      break;
  }
  return QUILLON_STATUS_INVALID_ARGS;
}

QUILLON_STATUS quillon_config_set_address_racing(quillon_config *config, bool is_raced) {
  qlk::trace(__func__);
  if (config == nullptr) return QUILLON_STATUS_INVALID_ARGS;
  config->races_addresses = is_raced;
  return QUILLON_STATUS_OK;
}

QUILLON_STATUS quillon_config_set_handler_queue_warning(quillon_config *config, int stanzas) {
  qlk::trace(__func__);
  if (config == nullptr || stanzas < 0) return QUILLON_STATUS_INVALID_ARGS;
  config->handler_queue_warning = stanzas;
  return QUILLON_STATUS_OK;
}

QUILLON_STATUS quillon_config_set_handler_queue_bound(quillon_config *config, int stanzas,
                                                      QUILLON_HANDLER_QUEUE_OVERFLOW overflow) {
  qlk::trace(__func__);
  if (config == nullptr || stanzas < 0) return QUILLON_STATUS_INVALID_ARGS;
  if (overflow != QUILLON_HANDLER_QUEUE_OVERFLOW_DROP && overflow != QUILLON_HANDLER_QUEUE_OVERFLOW_CLOSE)
    return QUILLON_STATUS_INVALID_ARGS;
  config->handler_queue_bound = stanzas;
  config->handler_queue_overflow = overflow;
  return QUILLON_STATUS_OK;
}

QUILLON_STATUS quillon_config_set_handler_queue_bytes(quillon_config *config, size_t warning, size_t bound) {
  qlk::trace(__func__);
  if (config == nullptr) return QUILLON_STATUS_INVALID_ARGS;
  config->handler_queue_warning_bytes = warning;
  config->handler_queue_bound_bytes = bound;
  return QUILLON_STATUS_OK;
}

void quillon_config_fill_ssl_ctx(const quillon_config *config, void *ssl_ctx, bool is_bulk_download) {
  qlk::trace(__func__);
  if (config == nullptr) return wb_log(WB_LOG_ERROR, "Invalid config object");
  if (ssl_ctx == nullptr) return wb_log(WB_LOG_ERROR, "Invalid ssl_ctx object");
  auto *context = static_cast<SSL_CTX *>(ssl_ctx);
  ERR_clear_error();
  qlk::log_tls_keys(*config, context);
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
  const QUILLON_STATUS status = qlk::guarded(__func__, [&] {
    fill_context(context, *config, is_bulk_download);
    return QUILLON_STATUS_OK;
  });
  // Whether servers may be revoked is not known then, so that none is trusted.
  if (status != QUILLON_STATUS_OK) qlk::demand_revocations(context);
  ERR_clear_error();
}

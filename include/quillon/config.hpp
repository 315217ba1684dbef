// What a client needs to reach the grid: quillon::config.
#ifndef QUILLON_CONFIG_HPP
#define QUILLON_CONFIG_HPP

#include <quillon/detail.hpp>

#include <string.h>  // NOLINT(modernize-deprecated-headers): explicit_bzero is not in <cstring>

#include <algorithm>
#include <chrono>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace quillon {

// The settings of a client in one expression, for config::create. What is empty is not set.
struct settings {
  std::vector<std::string> hosts = {};   // tried in turn: "name", "name:port", "192.0.2.1:port" or "[2001:db8::1]:port"
  std::string_view user = {};            // the name of the account
  std::string_view certificate = {};     // PEM file: the client's certificate, followed by the chain to its CA
  std::string_view key = {};             // PEM file: its private key
  std::string_view key_password = {};    // the pass phrase of the key
  std::string_view server_ca = {};       // PEM file: the CAs that vouch for the XMPP server
  std::string_view bulk_server_ca = {};  // PEM file: the CAs that vouch for the bulk download server
  std::string_view description = {};     // what administrators see when the client registers
  std::vector<std::string> groups = {};  // what the connect request lists; the first is also the user group
  std::chrono::milliseconds send_timeout = std::chrono::seconds(15);  // how long a send waits for its reply
};

// The configuration of connections and bulk downloads. They share it, so that it stays as long as one of them needs it; it should
// not be changed once they use it. One thread at a time.
//
// Setters take texts of 1 to 65536 bytes and copy them. They return QUILLON_STATUS_INVALID_ARGS for one that is empty, too long
// or has a zero in it, and QUILLON_STATUS_MALLOC_ERROR when memory is exhausted; the old value then stays in force.
class config {
 public:
  // Makes a configuration with these settings. Starts logging, as quillon_config_create does.
  // Returns: the configuration, or what the setter returns that refused one of them
  static result<config> create(const settings &chosen = {}) noexcept {
    quillon_config *created = nullptr;
    if (const QUILLON_STATUS status = quillon_config_create(&created); status != QUILLON_STATUS_OK) return status;
    auto made = owned(created);
    if (!made) return made;
    const result<> applied = made->apply(chosen);
    return applied ? std::move(made) : result<config>(applied.status());
  }

  // Makes a copy that shares nothing with this one.
  result<config> clone() const noexcept {
    quillon_config *cloned = nullptr;
    quillon_config_clone(handle(), &cloned);
    return owned(cloned);
  }

  config(config &&) noexcept = default;
  config &operator=(config &&) noexcept = default;
  config(const config &) = delete;
  config &operator=(const config &) = delete;
  ~config() = default;

  // The configuration for functions of quillon.h; NULL after a move. It stays this object's.
  quillon_config *handle() const noexcept { return handle_.get(); }
  // A share in the configuration, for objects that go on using it.
  std::shared_ptr<quillon_config> share() const noexcept { return handle_; }

  // Replaces all hosts with these, which successive connects try in turn, beginning with the first. One bad entry leaves the old
  // ones in force.
  result<> set_hosts(const std::vector<std::string> &hosts) noexcept {
    return detail::with_list(hosts,
                             [&](const char **texts, int count) { return quillon_config_set_hosts(handle(), texts, count); });
  }
  // Replaces all hosts with this one: "name", "name:port", "192.0.2.1:port" or "[2001:db8::1]:port"; the port is 5222 otherwise.
  result<> set_host(std::string_view host) noexcept { return set(quillon_config_set_host, host); }
  // Sets the user name, lower-cased, from which the client's JID derives.
  result<> set_user(std::string_view user) noexcept { return set(quillon_config_set_user_name, user); }
  // Replaces the groups that the connect request lists; the first also becomes the user group.
  result<> set_groups(const std::vector<std::string> &groups) noexcept {
    return detail::with_list(groups,
                             [&](const char **texts, int count) { return quillon_config_set_groups(handle(), texts, count); });
  }
  // Sets the group that the connect request names; without one it names "Session".
  result<> set_user_group(std::string_view group) noexcept { return set(quillon_config_set_user_group, group); }
  // Sets the text that administrators see when the client registers.
  result<> set_description(std::string_view text) noexcept { return set(quillon_config_set_description, text); }
  // Sets the PEM file with the client's certificate, followed by the chain that leads to its CA.
  result<> set_certificate(std::string_view file) noexcept { return set(quillon_config_set_client_cert_chain_filename, file); }
  // Sets the PEM file with the client's private key.
  result<> set_key(std::string_view file) noexcept { return set(quillon_config_set_client_cert_key_filename, file); }
  // Sets the pass phrase of the private key. All copies are wiped from memory.
  result<> set_key_password(std::string_view password) noexcept {
    if (!detail::is_c_text(password)) return QUILLON_STATUS_INVALID_ARGS;
    return detail::guarded([&]() -> QUILLON_STATUS {
      std::string copy(password);
      const QUILLON_STATUS status = quillon_config_set_client_cert_key_password(handle(), copy.c_str());
      explicit_bzero(copy.data(), copy.size());
      return status;
    });
  }
  // Sets the PEM file with the CAs that vouch for the XMPP server; an empty text clears it.
  result<> set_server_ca(std::string_view file) noexcept {
    if (file.empty()) return quillon_config_set_server_cert_chain_filename(handle(), nullptr);
    return set(quillon_config_set_server_cert_chain_filename, file);
  }
  // Sets the PEM file with the CAs that vouch for the bulk download server; an empty text clears it.
  result<> set_bulk_server_ca(std::string_view file) noexcept {
    if (file.empty()) return quillon_config_set_bulk_server_cert_chain_filename(handle(), nullptr);
    return set(quillon_config_set_bulk_server_cert_chain_filename, file);
  }
  // Sets how long a send waits for its reply, rounded up to whole seconds; with 0 and less it times out at once.
  result<> set_send_timeout(std::chrono::milliseconds timeout) noexcept {
    const auto seconds = std::chrono::ceil<std::chrono::seconds>(timeout).count();
    using limits = std::numeric_limits<int>;
    return quillon_config_set_send_timeout_seconds(
        handle(), static_cast<int>(std::clamp<decltype(seconds)>(seconds, limits::min(), limits::max())));
  }

  // Has the keys of TLS sessions appended to the file, for debugging: whoever has it can read all that they carry. An empty text
  // ends that. Returns: QUILLON_STATUS_OK, or QUILLON_STATUS_UNKNOWN for a file that cannot be opened, or that others may read
  result<> set_tls_key_log(std::string_view file) noexcept {
    if (file.empty()) return quillon_config_set_tls_key_log(handle(), nullptr);
    return set(quillon_config_set_tls_key_log, file);
  }

  // Sets what the client's first response of SASL EXTERNAL carries, from the next connect on; at first the user name. Returns:
  // QUILLON_STATUS_OK, or QUILLON_STATUS_INVALID_ARGS for no such value
  result<> set_sasl_response(QUILLON_SASL_RESPONSE response) noexcept {
    return quillon_config_set_sasl_response(handle(), response);
  }

  // Sets whether each connect dials the addresses of all hosts in a race and takes the first that answers; at first false: one
  // host after the other. See quillon_config_set_address_racing.
  result<> set_address_racing(bool is_raced) noexcept { return quillon_config_set_address_racing(handle(), is_raced); }

  // Sets how many stanzas may wait for a handler before a warning is logged, once a crossing; 0: there is no warning. It holds
  // for each of the two handler queues of a connection, from its next connect on; at first 1000. Returns: QUILLON_STATUS_OK, or
  // QUILLON_STATUS_INVALID_ARGS for a negative number
  result<> set_handler_queue_warning(int stanzas) noexcept { return quillon_config_set_handler_queue_warning(handle(), stanzas); }
  // Sets how many may wait at most, and what becomes of further ones; 0, as at first: no bound. See
  // quillon_config_set_handler_queue_bound. Returns: the same
  result<> set_handler_queue_bound(int stanzas, QUILLON_HANDLER_QUEUE_OVERFLOW overflow) noexcept {
    return quillon_config_set_handler_queue_bound(handle(), stanzas, overflow);
  }
  // Sets both in bytes of memory, beside the numbers: the warning comes at first with 64 MiB, and 0 is no limit. See
  // quillon_config_set_handler_queue_bytes. Returns: QUILLON_STATUS_OK
  result<> set_handler_queue_bytes(size_t warning, size_t bound) noexcept {
    return quillon_config_set_handler_queue_bytes(handle(), warning, bound);
  }

  // Sets the PEM file with the lists of revoked certificates; an empty text clears it. A server whose certificate is listed is
  // refused, and every one whose CA has no list there: see quillon_config_set_crl.
  result<> set_crl(std::string_view file) noexcept {
    if (file.empty()) return quillon_config_set_crl(handle(), nullptr);
    return set(quillon_config_set_crl, file);
  }
  // Reads certificate, key and CAs from their files, and puts them into force when they and the revocations are good; else those
  // before stay. See quillon_config_reload_credentials. Thread: any.
  // Returns: QUILLON_STATUS_OK, QUILLON_STATUS_CONNECTION_ERROR_CLIENT for the certificate or the key, or
  //          QUILLON_STATUS_CONNECTION_ERROR_SERVER for the CAs or the revocations
  result<> reload_credentials() noexcept { return quillon_config_reload_credentials(handle()); }
  // Sets whether each connect and each bulk download does so when a file has changed; at first false.
  result<> set_live_credentials(bool is_live) noexcept { return quillon_config_set_live_credentials(handle(), is_live); }
  // Sets how many days before its end the client's certificate counts as about to expire; at first 14, 0: never. Returns:
  // QUILLON_STATUS_OK, or QUILLON_STATUS_INVALID_ARGS for a negative number
  result<> set_expiry_warning_days(int days) noexcept { return quillon_config_set_expiry_warning_days(handle(), days); }
  // Tells which credentials are in force, when they end, and why others were refused. Thread: any.
  result<quillon_credentials_info> credentials() const noexcept {
    quillon_credentials_info info = {};
    info.size = sizeof info;
    const QUILLON_STATUS status = quillon_config_get_credentials_info(handle(), &info);
    if (status != QUILLON_STATUS_OK) return status;
    return info;
  }

  // Fills an OpenSSL SSL_CTX * from the configuration, as the library does where nobody else does: client certificate, key,
  // trusted CAs, verification. Faults are logged, and end the handshake later.
  void fill_tls_context(void *ssl_ctx, bool is_bulk_download = false) const noexcept {
    quillon_config_fill_ssl_ctx(handle(), ssl_ctx, is_bulk_download);
  }

 private:
  using text_setter = QUILLON_STATUS (*)(quillon_config *, const char *);

  explicit config(std::shared_ptr<quillon_config> handle) noexcept : handle_(std::move(handle)) {}

  // A configuration that owns what was created; shared_ptr frees it when it cannot.
  static result<config> owned(quillon_config *created) noexcept {
    if (created == nullptr) return QUILLON_STATUS_MALLOC_ERROR;
    return detail::guarded(
        [&]() -> result<config> { return config(std::shared_ptr<quillon_config>(created, quillon_config_destroy)); });
  }

  result<> set(text_setter setter, std::string_view text) noexcept {
    return detail::with_texts([&](const char *copy) { return setter(handle(), copy); }, text);
  }

  result<> apply(const settings &chosen) noexcept {
    const struct {
      std::string_view text;
      text_setter setter;
    } texts[] = {{chosen.user, quillon_config_set_user_name},
                 {chosen.certificate, quillon_config_set_client_cert_chain_filename},
                 {chosen.key, quillon_config_set_client_cert_key_filename},
                 {chosen.server_ca, quillon_config_set_server_cert_chain_filename},
                 {chosen.bulk_server_ca, quillon_config_set_bulk_server_cert_chain_filename},
                 {chosen.description, quillon_config_set_description}};
    result<> done = set_send_timeout(chosen.send_timeout);
    for (const auto &each : texts) {
      if (done && !each.text.empty()) done = set(each.setter, each.text);
    }
    if (done && !chosen.key_password.empty()) done = set_key_password(chosen.key_password);
    if (done && !chosen.hosts.empty()) done = set_hosts(chosen.hosts);
    if (done && !chosen.groups.empty()) done = set_groups(chosen.groups);
    return done;
  }

  std::shared_ptr<quillon_config> handle_;
};

}  // namespace quillon

#endif

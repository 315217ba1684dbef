// The services of the grid: quillon::capability, quillon::dynamic_capability.
#ifndef QUILLON_CAPABILITY_HPP
#define QUILLON_CAPABILITY_HPP

#include <quillon/detail.hpp>
#include <quillon/xml.hpp>

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quillon {

class connection;

// What the controller's catalogue holds of a capability, for capability::propose and capability::modify.
struct definition {
  std::string name = {};                  // of the capability
  std::string version = {};               // such as "1.0"
  std::vector<std::string> reading = {};  // the methods of its publishers that read
  std::vector<std::string> writing = {};  // those that write
  std::string description = {};           // for people
  std::string platform = {};              // the vendor's platform
};

// What plain and dynamic capabilities have in common: a service of the grid, named by a name in an XML namespace, that is
// subscribed to, published and queried. The list of its publishers is kept current while it is subscribed. Any threads may use it
// at once, but moving and destroying is for one of them, alone. When it is destroyed it is announced no more, on any connection;
// a handler may do so.
class any_capability {
 public:
  any_capability(any_capability &&) noexcept = default;
  any_capability &operator=(any_capability &&other) noexcept {
    // The filter of the old one goes after it, and no sooner.
    any_capability old(std::move(*this));
    std::swap(filter_, other.filter_);
    std::swap(handle_, other.handle_);
    if (&other == this) {
      filter_ = std::move(old.filter_);
      handle_ = std::move(old.handle_);
    }
    return *this;
  }
  any_capability(const any_capability &) = delete;
  any_capability &operator=(const any_capability &) = delete;

  // The capability for functions of quillon.h; NULL after a move. It stays this object's.
  quillon_capability *handle() const noexcept { return handle_.get(); }

  // Sets the filter, of which every subscribe request carries a copy; an empty element clears it. One thread at a time.
  result<> set_filter(xml::element filter) noexcept {
    const QUILLON_STATUS status = quillon_capability_set_filter(handle(), filter.handle());
    if (status == QUILLON_STATUS_OK) filter_ = std::move(filter);
    return status;
  }

  // The JIDs of the publishers that are known now.
  result<std::vector<std::string>> publishers() const noexcept {
    if (handle() == nullptr) return QUILLON_STATUS_INVALID_ARGS;
    const detail::owner<quillon_array, quillon_array_destroy> copies(quillon_capability_copy_jids(handle()));
    if (copies == nullptr) return QUILLON_STATUS_MALLOC_ERROR;
    return detail::guarded([&]() -> result<std::vector<std::string>> {
      std::vector<std::string> jids;
      for (int32_t i = 0; i < quillon_array_size(copies.get()); ++i) {
        const auto *const jid = static_cast<const quillon_string *>(quillon_array_get(copies.get(), i));
        jids.emplace_back(quillon_string_cstr(jid), quillon_string_length(jid));
      }
      return jids;
    });
  }

 protected:
  using owner = detail::owner<quillon_capability, quillon_capability_destroy>;
  using name_setter = QUILLON_STATUS (*)(const quillon_capability *, const char *);

  explicit any_capability(owner handle) noexcept : handle_(std::move(handle)) {}
  ~any_capability() = default;

  // Makes a capability and names it.
  static QUILLON_STATUS make(std::string_view uri, std::string_view name, name_setter set_name, owner &made) noexcept {
    return detail::with_texts(
        [&](const char *uri_text, const char *name_text) {
          quillon_capability *created = nullptr;
          QUILLON_STATUS status = quillon_capability_create(&created);
          made.reset(created);
          if (status == QUILLON_STATUS_OK) status = quillon_capability_set_namespace(created, uri_text);
          if (status == QUILLON_STATUS_OK) status = set_name(created, name_text);
          return status;
        },
        uri, name);
  }

 private:
  xml::element filter_;  // the library reads it as long as the capability is there
  owner handle_;
};

// A capability whose topic is its name followed by "-1.0".
class capability : public any_capability {
 public:
  // Makes a capability of that name, 1 to 65536 bytes, in that namespace.
  // Returns: it, or QUILLON_STATUS_INVALID_ARGS for a text that is empty, too long, or has a zero in it
  static result<capability> create(std::string_view namespace_uri, std::string_view name) noexcept {
    owner made;
    const QUILLON_STATUS status = make(namespace_uri, name, quillon_capability_set_name, made);
    if (status != QUILLON_STATUS_OK) return status;
    return capability(std::move(made));
  }

  // Subscribes to the notifications and learns the publishers. The capability is remembered until it is destroyed, and announced
  // again after every connect; without a connection that is all that is done.
  // Blocks:  while connected, until the controller answers, at most the send time-out.
  // Thread:  any but the event loop's.
  // Returns: QUILLON_STATUS_OK, or as quillon_capability_subscribe: above all QUILLON_STATUS_NOT_AUTHORIZED when the controller
  //          does not allow it, and QUILLON_STATUS_SEND_TIMEOUT when it did not answer in time
  inline result<> subscribe(connection &over) const noexcept;
  // Announces the client as a publisher, and remembers and blocks as subscribe does. What the controller answers is not read.
  // Returns: QUILLON_STATUS_OK, or as quillon_capability_publish
  inline result<> publish(connection &over) const noexcept;

  // Proposes a new capability to the controller, whose name is that of the definition; of this one only the namespace is used.
  // Blocks:  until the controller answers, at most the send time-out.
  // Thread:  any but the event loop's.
  // Returns: QUILLON_STATUS_OK
  //          QUILLON_STATUS_PROPOSE_CAPABILITY_ERROR  the controller refused; the log tells its reason
  //          QUILLON_STATUS_NO_CONNECTION             not connected to the grid; nothing was sent
  //          and what quillon_capability_propose returns
  inline result<> propose(connection &over, const definition &proposed) const noexcept;
  // Changes the definition of an existing capability; the same in all else, but that a refusal is
  // QUILLON_STATUS_MODIFY_CAPABILITY_ERROR.
  inline result<> modify(connection &over, const definition &changed) const noexcept;

 private:
  using any_capability::any_capability;
};

// A capability whose topic is its name as it stands.
class dynamic_capability : public any_capability {
 public:
  // As capability::create.
  static result<dynamic_capability> create(std::string_view namespace_uri, std::string_view name) noexcept {
    owner made;
    const QUILLON_STATUS status = make(namespace_uri, name, quillon_dynamic_capability_set_name, made);
    if (status != QUILLON_STATUS_OK) return status;
    return dynamic_capability(std::move(made));
  }

  // As capability::subscribe. After a reconnect it is announced in the plain form.
  inline result<> subscribe(connection &over) const noexcept;
  // As capability::publish. After a reconnect it is announced in the plain form.
  inline result<> publish(connection &over) const noexcept;

  // Asks the controller for all publishers and adds those of this capability to its list; from then on their changes are
  // followed. Blocks:  until the controller answers, at most the send time-out. Thread:  any but the event loop's. Returns:
  // QUILLON_STATUS_OK         also when there was no answer
  //          QUILLON_STATUS_UNKNOWN    a JID of the answer cannot be kept
  //          QUILLON_STATUS_XML_ERROR  the request could not be built, or the answer names a publisher without a JID
  inline result<> refresh_publishers(connection &over) noexcept;

 private:
  using any_capability::any_capability;
};

}  // namespace quillon

#endif

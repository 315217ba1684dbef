// Large XML documents, item by item: quillon::bulk_download.
#ifndef QUILLON_BULK_DOWNLOAD_HPP
#define QUILLON_BULK_DOWNLOAD_HPP

#include <quillon/config.hpp>
#include <quillon/detail.hpp>
#include <quillon/xml.hpp>

#include <cstddef>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace quillon {

// Fetches a large XML document from an HTTPS service and hands it out item by item; an item is an element two levels below the
// root. A thread of the library transfers while the application reads, and waits for a reader that is slow.
//
//   for (auto &item : download) use(item);
//   if (!download.outcome()) complain(download.outcome().text(), download.error_details());
//
// HTTP statuses are not looked at: an error page is a document without items. A document that breaks off ends there without a
// failure. The limits are those of quillon_bulkdownload. One thread at a time.
class bulk_download {
 public:
  class iterator;

  // Makes a download for the configuration, which it shares and which has to have a user name. It reads the certificates at each
  // open.
  // Returns: it, or QUILLON_STATUS_INVALID_ARGS for a configuration without a user name
  static result<bulk_download> create(const config &settings_of) noexcept {
    return detail::guarded([&]() -> result<bulk_download> {
      auto made = std::make_unique<state>();
      const QUILLON_STATUS status = quillon_bulkdownload_create(&made->handle, settings_of.handle());
      if (status != QUILLON_STATUS_OK) return status;
      made->configuration = settings_of.share();
      return bulk_download(std::move(made));
    });
  }

  // The download for functions of quillon.h; NULL after a move. It stays this object's, whose destructor closes it. What
  // quillon_bulkdownload_next is called for past this object, outcome() does not know.
  quillon_bulkdownload *handle() const noexcept { return state_ != nullptr ? state_->handle : nullptr; }

  // Sets the service's URL, 1 to 65536 bytes. What is set while a download is open may still reach its transfer, and holds from
  // the next open on.
  result<> set_url(std::string_view url) noexcept {
    return detail::with_texts([&](const char *text) { return quillon_bulkdownload_set_url(handle(), text); }, url);
  }

  // Sets the request, which is written as XML at once.
  // Returns: QUILLON_STATUS_OK
  //          QUILLON_STATUS_INVALID_ARGS  the element is more than 65536 bytes as XML
  //          QUILLON_STATUS_WB_ERROR      it is empty or cannot be written
  result<> set_request(xml::view request) noexcept { return quillon_bulkdownload_set_request(handle(), request.handle()); }

  // Lets the function prepare the TLS context, an OpenSSL SSL_CTX *, of each transfer, instead of the configuration. A context
  // that does not verify accepts every certificate that bears the host's name. When it throws, the configuration fills the
  // context after all. On the transfer thread.
  result<> on_tls_context(std::function<void(void *ssl_ctx)> fill) noexcept {
    if (state_ == nullptr || !fill) return QUILLON_STATUS_INVALID_ARGS;
    return detail::guarded([&]() -> result<> {
      return state_->handlers.add(
          detail::filled_at_least_from(state_->configuration, true, std::move(fill)), [&](void *argument) {
            quillon_bulkdownload_set_ssl_ctx_cb_user_data(handle(), argument);
            quillon_bulkdownload_set_ssl_ctx_cb(handle(), [](quillon_bulkdownload *, void *ssl_ctx, void *user_data) {
              detail::handler<void(void *)>::call(user_data, ssl_ctx);
            });
            return QUILLON_STATUS_OK;
          });
    });
  }

  // Starts the transfer and returns; how it goes is told by next, or by the iteration. After a close it may be called again.
  // Returns: QUILLON_STATUS_OK
  //          QUILLON_STATUS_INVALID_ARGS  there is no request, or the download is open already
  //          QUILLON_STATUS_REST_ERROR    the transfer thread could not be started
  result<> open() noexcept {
    const QUILLON_STATUS status = quillon_bulkdownload_open(handle());
    if (status == QUILLON_STATUS_OK) state_->failure = QUILLON_STATUS_OK;
    return status;
  }

  // The next item, and an empty element at the end of the data. Items that came before a failure are all handed out first. Text
  // that stands before a child, indentation too, is found at the beginning of the child's text.
  // Blocks:  until an item is whole, without a limit.
  // Returns: the item, or
  //          QUILLON_STATUS_XML_ERROR     the document is not well-formed, or beyond the limits
  //          QUILLON_STATUS_REST_ERROR, QUILLON_STATUS_REST_INIT_ERROR, QUILLON_STATUS_MALLOC_ERROR  the transfer failed
  //          QUILLON_STATUS_INVALID_ARGS  the download is not open
  result<xml::element> next() noexcept {
    if (state_ == nullptr) return QUILLON_STATUS_INVALID_ARGS;
    wb_dom_node *item = nullptr;
    const QUILLON_STATUS status = quillon_bulkdownload_next(handle(), &item);
    const bool is_new = state_->failure == QUILLON_STATUS_OK;
    if (is_new) state_->failure = status;
    // A fault of the XML is told before the items that were whole by then.
    if (is_new && status == QUILLON_STATUS_XML_ERROR && item == nullptr) quillon_bulkdownload_next(handle(), &item);
    if (item == nullptr && state_->failure != QUILLON_STATUS_OK) return state_->failure;
    return xml::element::adopt(item);
  }

  // What the download has come to so far: success, or the failure that next or the iteration met since it was opened.
  result<> outcome() const noexcept { return state_ != nullptr ? state_->failure : QUILLON_STATUS_INVALID_ARGS; }

  // What the HTTP library says of the last transfer; faults of the XML are not told.
  result<std::string> error_details() const noexcept {
    char details[256];
    const QUILLON_STATUS status = quillon_bulkdownload_get_error_details(handle(), details, sizeof details);
    if (status != QUILLON_STATUS_OK) return status;
    return detail::guarded([&]() -> result<std::string> { return std::string(details); });
  }

  // Ends the download, breaking the transfer off if it is still under way. Items stay.
  // Blocks:  for about a second at most, whatever the server does; longer only while an on_tls_context function is running.
  // Returns: QUILLON_STATUS_OK
  //          QUILLON_STATUS_INVALID_ARGS  the download is not open
  //          QUILLON_STATUS_REST_ERROR    the transfer thread could not be joined; the download is closed all the same
  result<> close() noexcept { return quillon_bulkdownload_close(handle()); }

  // The items that are left, from the next one on: to be iterated once. The loop ends at the end of the data and at a failure,
  // and outcome() tells which.
  inline iterator begin() noexcept;
  // The end of all iterations.
  std::default_sentinel_t end() const noexcept { return {}; }

 private:
  // Behind a pointer, which stays while the object moves.
  struct state {
    state() = default;
    ~state() {
      if (handle != nullptr) quillon_bulkdownload_destroy(&handle);
    }
    state(const state &) = delete;
    state &operator=(const state &) = delete;

    std::shared_ptr<quillon_config> configuration;
    detail::handler_list handlers;
    quillon_bulkdownload *handle = nullptr;
    QUILLON_STATUS failure = QUILLON_STATUS_OK;  // the first since open
  };

  explicit bulk_download(std::unique_ptr<state> made) noexcept : state_(std::move(made)) {}

  std::unique_ptr<state> state_;
};

// A step through the items of a download, which has to outlive it and stay where it is. It owns the item at which it stands,
// which may be moved out of it.
class bulk_download::iterator {
 public:
  using iterator_concept = std::input_iterator_tag;
  using value_type = xml::element;
  using difference_type = std::ptrdiff_t;

  // Stands at the next item of the download.
  explicit iterator(bulk_download &download) noexcept : download_(&download) { ++*this; }

  xml::element &operator*() const noexcept { return item_; }
  xml::element *operator->() const noexcept { return &item_; }
  iterator &operator++() noexcept {
    result<xml::element> next = download_->next();
    is_end_ = !next || !*next;
    item_ = is_end_ ? xml::element() : *std::move(next);
    return *this;
  }
  void operator++(int) noexcept { ++*this; }
  bool operator==(std::default_sentinel_t) const noexcept { return is_end_; }

 private:
  bulk_download *download_;
  mutable xml::element item_;
  bool is_end_ = false;
};

inline bulk_download::iterator bulk_download::begin() noexcept { return iterator(*this); }

}  // namespace quillon

#endif

// Queries that nobody waits for: how they end, and what they are cancelled with. They are begun by quillon::connection.
#ifndef QUILLON_ASYNC_HPP
#define QUILLON_ASYNC_HPP

#include <quillon/detail.hpp>
#include <quillon/xml.hpp>

#include <chrono>
#include <coroutine>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <utility>

namespace quillon {

// How a call ended, with what quillon_query_result tells; all of it is the receiver's.
struct query_end {
  QUILLON_QUERY_OUTCOME outcome = QUILLON_QUERY_OUTCOME_NOT_SENT;  // what is known of the request
  QUILLON_STATUS status = QUILLON_STATUS_UNKNOWN;                  // why
  std::string publisher = {};  // the full JID that answered or refused, else the one asked last; empty when none was
  xml::element response = {};  // the payload of the answer; empty unless the outcome is ANSWERED

  // True when a publisher answered.
  bool ok() const noexcept { return outcome == QUILLON_QUERY_OUTCOME_ANSWERED; }
  // The same.
  explicit operator bool() const noexcept { return ok(); }
};

// Receives the end of a call, exactly once, on the connection's completion thread: see quillon_query_done_cb. What it throws is
// logged and goes no further.
using query_handler = std::function<void(query_end)>;

// A call that was begun. Letting go of it changes nothing for the call.
class pending_query {
 public:
  // Ends the call if it has not ended yet, as quillon_pending_query_cancel: its handler runs as always. Thread: any.
  result<> cancel() noexcept { return quillon_pending_query_cancel(handle_.get()); }

  // Takes over a handle of quillon.h.
  static pending_query adopt(quillon_pending_query *handle) noexcept {
    pending_query adopted;
    adopted.handle_.reset(handle);
    return adopted;
  }

 private:
  detail::owner<quillon_pending_query, quillon_pending_query_destroy> handle_;
};

namespace detail {

// Begins a call as a function of quillon.h does.
using begin_query = std::function<QUILLON_STATUS(wb_dom_node *request, uint32_t milliseconds, quillon_query_done_cb, void *,
                                                 quillon_pending_query **)>;

inline uint32_t whole_milliseconds(std::chrono::milliseconds time) noexcept {
  return time.count() <= 0 ? 0 : time.count() >= UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(time.count());
}

// Without memory for it the publisher stays unknown: the end has to be told all the same.
inline query_end end_of(const quillon_query_result &told) noexcept {
  query_end end{.outcome = told.outcome, .status = told.status};
  static_cast<void>(guarded([&] {
    if (told.publisher != nullptr) end.publisher = told.publisher;
    return QUILLON_STATUS_OK;
  }));
  if (told.response != nullptr && wb_dom_context_retain(wb_dom_get_context(told.response), nullptr))
    end.response = xml::element::adopt(told.response);
  return end;
}

// The handler is kept until its one call.
inline result<pending_query> ask_later(const begin_query &begin, xml::element request, std::chrono::milliseconds within,
                                       query_handler done) noexcept {
  using kept = handler<void(query_end)>;
  if (!request || !done) return request ? QUILLON_STATUS_INVALID_ARGS : QUILLON_STATUS_XML_ERROR;
  return guarded([&]() -> result<pending_query> {
    auto keeping = std::make_unique<std::shared_ptr<kept>>(std::make_shared<kept>(std::move(done)));
    const auto call = [](const quillon_query_result *told, void *argument) {
      const std::unique_ptr<std::shared_ptr<kept>> called(static_cast<std::shared_ptr<kept> *>(argument));
      kept::call(called->get(), end_of(*told));
    };
    quillon_pending_query *pending = nullptr;
    const QUILLON_STATUS status = begin(request.handle(), whole_milliseconds(within), call, keeping.get(), &pending);
    if (status != QUILLON_STATUS_OK) return status;
    static_cast<void>(keeping.release());  // the call's now, as the request is
    static_cast<void>(request.release());
    return pending_query::adopt(pending);
  });
}

}  // namespace detail

// What a coroutine awaits; the call begins with co_await, once, and the coroutine goes on where handlers run, on the completion
// thread, or at once when nothing could be begun. It must not be destroyed before that.
class [[nodiscard]] awaited_query {
 public:
  // Of quillon::connection.
  awaited_query(detail::begin_query begin, xml::element request, std::chrono::milliseconds within) noexcept
      : begin_(std::move(begin)), request_(std::move(request)), within_(within) {}

  // False: the call is yet to begin.
  bool await_ready() const noexcept { return false; }
  // Begins the call. False when that fails: the coroutine then goes on at once.
  bool await_suspend(std::coroutine_handle<> waiting) noexcept {
    const detail::begin_query begin = std::move(begin_);  // it is called here still when the coroutine may have gone on
    const auto begun = detail::guarded([&]() -> result<pending_query> {
      return detail::ask_later(begin, std::move(request_), within_, [this, waiting](query_end end) {
        end_ = std::move(end);
        waiting.resume();
      });
    });
    // When it was begun, the coroutine may have gone on already, and this object with it.
    if (!begun.ok()) end_.status = begun.status();
    return begun.ok();
  }
  // How the call ended. What could not be begun is NOT_SENT, with the status of quillon_connection_query_async.
  query_end await_resume() noexcept { return std::move(end_); }

 private:
  detail::begin_query begin_;
  xml::element request_;
  std::chrono::milliseconds within_;
  query_end end_;
};

}  // namespace quillon

#endif

// One session with the grid, and what keeps it up: quillon::connection, quillon::reconnection, quillon::token.
#ifndef QUILLON_CONNECTION_HPP
#define QUILLON_CONNECTION_HPP

#include <quillon/async.hpp>
#include <quillon/capability.hpp>
#include <quillon/config.hpp>
#include <quillon/detail.hpp>
#include <quillon/statistics.hpp>
#include <quillon/xml.hpp>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace quillon {

// The application's handle on one session with the grid. Any threads may use it at once, but moving and destroying is for one of
// them, alone; set the handlers before connecting.
//
// Handlers are functions of any kind; what they capture has to outlive the connection. None runs after the connection was
// destroyed, except the one that destroys it, which ends in peace. A capture of a connection itself has to bear that connection
// objects are moved. What a handler throws is logged and goes no further.
//
// Calls that block may not be made on the event loop, a thread of the library on which the handlers of on_disconnect and
// on_tls_context run: such a call fails at once, with an error logged.
class connection {
 public:
  // Makes a connection, bringing the library up if need be; connects nothing yet. It shares the configuration.
  // Returns: it, or QUILLON_STATUS_QUILLON_ERROR, QUILLON_STATUS_WB_ERROR, QUILLON_STATUS_EVENT_ERROR as
  //          quillon_connection_create
  static result<connection> create(const config &settings_of) noexcept {
    if (settings_of.handle() == nullptr) return QUILLON_STATUS_INVALID_ARGS;
    return detail::guarded([&]() -> result<connection> {
      auto made = std::make_unique<state>();
      quillon_connection *created = nullptr;
      QUILLON_STATUS status = quillon_connection_create(&created);
      made->handle.reset(created);
      made->configuration = settings_of.share();
      if (status == QUILLON_STATUS_OK) status = quillon_connection_set_config(created, settings_of.handle());
      if (status != QUILLON_STATUS_OK) return status;
      return connection(std::move(made));
    });
  }

  // Moving keeps the session, the handlers and handle().
  connection(connection &&) noexcept = default;
  // The old session of the target ends as with the destructor.
  connection &operator=(connection &&) noexcept = default;
  connection(const connection &) = delete;
  connection &operator=(const connection &) = delete;
  // Drops the session, if one is up, without waiting for the server, and makes every call that waits on the connection return.
  // Disconnect first to leave in order.
  // Blocks:  until the handlers that are running have returned, but for one that destroys the connection itself.
  // Thread:  any; every handler may do so.
  ~connection() = default;

  // The connection for functions of quillon.h; NULL after a move. It stays this object's.
  quillon_connection *handle() const noexcept { return state_ != nullptr ? state_->handle.get() : nullptr; }

  // Calls when the connection has become part of the grid: on the thread that connects, before connect returns.
  result<> on_connect(std::function<void()> handler) noexcept {
    using called = detail::handler<void()>;
    return set(std::move(handler), quillon_connection_set_connect_cb_user_data, quillon_connection_set_connect_cb,
               [](quillon_connection *, void *argument) { called::call(argument); });
  }

  // Calls when the session, or the attempt at one, has ended, with the reason: see quillon_connection_disconnect_cb. On the event
  // loop: it must return soon and may not block on the connection; it may destroy it.
  result<> on_disconnect(std::function<void(QUILLON_STATUS)> handler) noexcept {
    return set(std::move(handler), quillon_connection_set_disconnect_cb_user_data, quillon_connection_set_disconnect_cb,
               call_with_status);
  }

  // Calls when the controller says something of the account: CONNECTION_DENIED or ACCOUNT_PENDING, on the thread that connects;
  // ACCOUNT_DISABLED, ACCOUNT_DELETED, ACCOUNT_AUTHORIZATION_CHANGED, each before the library disconnects, or ACCOUNT_ENABLED, on
  // the connection's notification thread. It may destroy the connection.
  result<> on_account(std::function<void(QUILLON_STATUS)> handler) noexcept {
    return set(std::move(handler), quillon_connection_set_account_cb_user_data, quillon_connection_set_account_cb,
               call_with_status);
  }

  // Lets the function prepare the TLS context, an OpenSSL SSL_CTX *, of each connection attempt, instead of the configuration:
  // certificate, key, trusted CAs, verification. A context that does not verify accepts every server. When it throws, the
  // configuration fills the context after all. On the event loop.
  result<> on_tls_context(std::function<void(void *ssl_ctx)> fill) noexcept {
    if (state_ == nullptr || !fill) return QUILLON_STATUS_INVALID_ARGS;
    return detail::guarded([&]() -> result<> {
      return set(
          detail::filled_at_least_from(state_->configuration, false, std::move(fill)),
          quillon_connection_set_ssl_ctx_cb_user_data, quillon_connection_set_ssl_ctx_cb,
          [](quillon_connection *, void *ssl_ctx, void *argument) { detail::handler<void(void *)>::call(argument, ssl_ctx); });
    });
  }

  // Answers the queries whose payload has that expanded name, instead of an earlier handler; letters of either case are the
  // same. The handler runs on the request-handler thread, one request at a time, in the order of arrival; the request is gone
  // when it returns. Its element is the answer; an empty one sends none, and so does a handler that throws: the asking client
  // then waits for its time-out. Returns: QUILLON_STATUS_OK
  //          QUILLON_STATUS_INVALID_ARGS   the handler or the name is empty
  //          QUILLON_STATUS_QUILLON_ERROR  the name is too long or could not be stored
  result<> on_query(std::string_view payload_name, std::function<xml::element(xml::view request)> handler) noexcept {
    return add(quillon_connection_register_query_handler, payload_name, std::move(handler),
               [](wb_dom_node *request, void *argument) {
                 return detail::handler<xml::element(xml::view)>::call(argument, xml::view(request)).release();
               });
  }

  // Receives the notifications whose payload has that expanded name; letters of either case are the same. All handlers of a name
  // run, in the order of registration, on the notification thread, one notification at a time in the order of arrival. The
  // payload is gone when the last one returns: who wants it longer takes a copy(). Returns: QUILLON_STATUS_OK
  //          QUILLON_STATUS_INVALID_ARGS  the handler or the name is empty
  //          QUILLON_STATUS_MALLOC_ERROR  memory is exhausted, or the name is too long
  //          QUILLON_STATUS_WB_ERROR      the handler could not be stored
  result<> on_notification(std::string_view payload_name, std::function<void(xml::view payload)> handler) noexcept {
    return add(quillon_connection_register_notification_handler, payload_name, std::move(handler), call_with_view);
  }

  // Receives updates of the registered capabilities, on the notification thread; updates that come without a handler are dropped.
  result<> on_catalogue_update(std::function<void(xml::view update)> handler) noexcept {
    if (state_ == nullptr) return QUILLON_STATUS_INVALID_ARGS;
    return state_->handlers.add(std::move(handler), [&](void *argument) {
      return quillon_connection_register_topic_notification_handler(handle(), call_with_view, argument);
    });
  }

  // Shows each stanza that is sent or received, and each other element of the stream, as XML with its secrets hidden: see
  // quillon_stanza_trace_cb. On the event loop, in the order of the stream: it must return soon, may not block on the connection
  // and may not destroy it. An empty function: nobody is shown anything any more.
  result<> on_stanza(std::function<void(QUILLON_TRACE_DIRECTION, std::string_view xml)> handler) noexcept {
    if (state_ == nullptr || !handler) return quillon_connection_set_stanza_trace(handle(), nullptr, nullptr);
    return state_->handlers.add(std::move(handler), [&](void *argument) {
      using called = detail::handler<void(QUILLON_TRACE_DIRECTION, std::string_view)>;
      return quillon_connection_set_stanza_trace(
          handle(),
          [](quillon_connection *, QUILLON_TRACE_DIRECTION direction, const char *xml, size_t length, void *kept) {
            called::call(kept, direction, std::string_view(xml, length));
          },
          argument);
    });
  }

  // Joins the grid: an XMPP session with the host whose turn it is, then the controller's approval of the account, then the
  // subscriptions and publications again. Each call tries the next host. Connected already, it does nothing. A session that an
  // earlier connect left up is ended first, which may block as long as a disconnect.
  // Blocks:  up to 50 seconds for the session, the send time-out for each answer of the controller, and without a limit while the
  //          account is pending. disconnect and the destructor on another thread end it.
  // Thread:  any but the event loop's; one connect at a time, others wait for it.
  // Returns: QUILLON_STATUS_OK
  //          QUILLON_STATUS_CONNECTION_ERROR   no session; or the account was not enabled after "pending"; or a disconnect came
  //          QUILLON_STATUS_CONNECTION_DENIED  the controller denied the account
  //          QUILLON_STATUS_SEND_TIMEOUT       the controller did not answer
  //          QUILLON_STATUS_INVALID_ARGS       there is no user name or host
  //          and what else quillon_connection_connect returns
  result<> connect() noexcept { return quillon_connection_connect(handle()); }

  // Ends the session, or the connect that is under way, and waits for its end.
  // Blocks:  up to the send time-out for the event loop and 50 seconds for the end, which the on_disconnect handler is part of.
  // Thread:  any but the event loop's.
  // Returns: QUILLON_STATUS_OK, also without a session
  result<> disconnect() noexcept { return quillon_connection_disconnect(handle()); }

  // Leaves the grid within the time: sends no query any more, lets those under way end, answers the requests that have arrived,
  // and disconnects. What is left then is cut short. No handler runs afterwards, until it connects again: see
  // quillon_connection_drain.
  // Blocks:  until all has ended, at most so long and what disconnect takes; longer only for handlers that are running.
  // Thread:  any but the event loop's; every other handler may call it.
  // Returns: QUILLON_STATUS_OK, or QUILLON_STATUS_SEND_TIMEOUT when something was cut short, or a handler on the event loop does
  //          not return and the session has not ended yet
  result<> drain(std::chrono::milliseconds within) noexcept {
    return quillon_connection_drain(handle(), detail::whole_milliseconds(within));
  }

  // Drains and connects again, so that the credentials in force are shown: see quillon_connection_renew.
  // Blocks:  as drain and connect. Thread: any but the event loop's and those of the handlers.
  // Returns: as connect, or QUILLON_STATUS_NO_CONNECTION when it was not part of the grid
  result<> renew(std::chrono::milliseconds within) noexcept {
    return quillon_connection_renew(handle(), detail::whole_milliseconds(within));
  }

  // True while the connection is part of the grid: false while its account is pending. Thread: any.
  bool is_connected() const noexcept { return quillon_connection_is_connected(handle()); }

  // Asks a publisher of the capability, beginning with the one that answered last; each further one is asked when the one before
  // did not answer in time or answered with an XMPP error.
  // Blocks:  until an answer, at most the send time-out for each publisher and 2 seconds more while the event loop is held up.
  // Thread:  any but the event loop's.
  // Returns: the payload of the answer, or
  //          QUILLON_STATUS_CAPABILITY_NOT_FOUND  no publisher is known
  //          QUILLON_STATUS_SEND_TIMEOUT          the last publisher did not answer in time; any may still have seen the request
  //          QUILLON_STATUS_XMPP_ERROR            the last publisher, or the server, refused the request
  //          QUILLON_STATUS_XML_ERROR             the request is empty: it could not be built
  //          and what else quillon_query_call returns
  result<xml::element> query(const any_capability &asked, xml::element request) noexcept {
    if (handle() == nullptr || asked.handle() == nullptr) return QUILLON_STATUS_INVALID_ARGS;
    return ask(std::move(request), [&](wb_dom_node *payload, wb_dom_node **answer) {
      return quillon_connection_query(handle(), asked.handle(), payload, answer);
    });
  }

  // Asks the controller. Blocks and returns as query, but that there is one to ask.
  result<xml::element> query_controller(xml::element request) noexcept {
    if (handle() == nullptr) return QUILLON_STATUS_INVALID_ARGS;
    return ask(std::move(request), [&](wb_dom_node *payload, wb_dom_node **answer) {
      return quillon_connection_query_controller(handle(), payload, answer);
    });
  }

  // Begins to ask the publishers of the capability, which happens within the time, and calls the handler exactly once with what
  // became of it: see quillon_connection_query_async.
  // Thread:  any; it does not block.
  // Returns: what the call can be cancelled with, which nobody need keep, or, and then nothing was begun and the handler is not
  //          called, QUILLON_STATUS_INVALID_ARGS, QUILLON_STATUS_XML_ERROR (the request is empty), QUILLON_STATUS_NO_CONNECTION
  //          (the connection was drained), QUILLON_STATUS_PTHREAD_ERROR or QUILLON_STATUS_MALLOC_ERROR
  result<pending_query> query_async(const any_capability &asked, xml::element request, std::chrono::milliseconds within,
                                    query_handler done) noexcept {
    return detail::guarded([&] { return detail::ask_later(beginner(asked), std::move(request), within, std::move(done)); });
  }

  // The same, asking the controller.
  result<pending_query> query_controller_async(xml::element request, std::chrono::milliseconds within,
                                               query_handler done) noexcept {
    return detail::guarded([&] { return detail::ask_later(beginner(), std::move(request), within, std::move(done)); });
  }

  // The same with a future for the end, which must not be waited for in a handler of such a query.
  result<std::future<query_end>> query_future(const any_capability &asked, xml::element request,
                                              std::chrono::milliseconds within) noexcept {
    return detail::guarded([&] { return promised(beginner(asked), std::move(request), within); });
  }

  // The same, asking the controller.
  result<std::future<query_end>> query_controller_future(xml::element request, std::chrono::milliseconds within) noexcept {
    return detail::guarded([&] { return promised(beginner(), std::move(request), within); });
  }

  // The same for a coroutine: query_end end = co_await connection.query_awaited(weather, request, 5s). The connection and the
  // capability have to stay until the co_await has begun the call. Throws std::bad_alloc.
  awaited_query query_awaited(const any_capability &asked, xml::element request, std::chrono::milliseconds within) {
    return {beginner(asked), std::move(request), within};
  }

  // The same, asking the controller.
  awaited_query query_controller_awaited(xml::element request, std::chrono::milliseconds within) {
    return {beginner(), std::move(request), within};
  }

  // Asks the controller for the registered capabilities. Blocks as query_controller.
  // Returns: its answer, or QUILLON_STATUS_NO_CONNECTION when nothing could be sent, and what query_controller returns
  result<xml::element> capabilities() noexcept {
    wb_dom_node *answer = nullptr;
    const QUILLON_STATUS status = quillon_connection_query_capabilities(handle(), &answer);
    return answered(status, answer);
  }

  // Asks the controller for the status of one capability, in that version, or any for an empty text. As capabilities.
  result<xml::element> capability_status(std::string_view name, std::string_view version = {}) noexcept {
    wb_dom_node *answer = nullptr;
    const QUILLON_STATUS status = detail::with_texts(
        [&](const char *name_text, const char *version_text) {
          return quillon_connection_query_capability_status(handle(), name_text, *version_text != '\0' ? version_text : nullptr,
                                                            &answer);
        },
        name, version);
    return answered(status, answer);
  }

  // Publishes a notification on the capability's topic. No answer is awaited: success means that the session took the
  // notification, not that the service accepted it.
  // Blocks:  not while a session is up; otherwise at most the send time-out.
  // Thread:  any.
  // Returns: QUILLON_STATUS_OK
  //          QUILLON_STATUS_SEND_ERROR  there is no session, or it did not take the notification
  //          QUILLON_STATUS_UNKNOWN     the event loop does not run: there was no connect yet
  //          QUILLON_STATUS_XML_ERROR   the payload is empty: it could not be built
  result<> notify(const any_capability &topic, xml::element payload) noexcept {
    if (handle() == nullptr || topic.handle() == nullptr) return QUILLON_STATUS_INVALID_ARGS;
    if (!payload) return QUILLON_STATUS_XML_ERROR;
    return quillon_connection_notify(handle(), topic.handle(), payload.release());
  }

  // Tells how a handler queue is used: what waits in it, the most that ever waited, and what was dropped since it was full.
  // Thread: any, handlers too. Returns: QUILLON_STATUS_INVALID_ARGS for a value that is no queue
  result<quillon_handler_queue_usage> handler_queue_usage(QUILLON_HANDLER_QUEUE queue) const noexcept {
    quillon_handler_queue_usage usage = {};
    const QUILLON_STATUS status = quillon_connection_get_handler_queue_usage(handle(), queue, &usage);
    if (status != QUILLON_STATUS_OK) return status;
    return usage;
  }

  // What the connection has counted since it was made. Thread: any, handlers too; it does not block.
  result<connection_statistics> statistics() const noexcept {
    connection_statistics read = {};
    read.size = sizeof(quillon_statistics);
    const QUILLON_STATUS status = quillon_connection_get_statistics(handle(), &read);
    if (status != QUILLON_STATUS_OK) return status;
    return read;
  }

  // Asks the controller whether the user may perform the operation of the capability. True only when it says so: a refusal and a
  // missing answer are false as well, and only the log tells them apart.
  // Blocks:  until the controller answers, at most the send time-out.
  // Thread:  any but the event loop's; a query handler may ask.
  bool is_authorized(std::string_view capability_name, std::string_view operation, std::string_view user) noexcept {
    bool allowed = false;
    const QUILLON_STATUS status = detail::with_texts(
        [&](const char *capability_text, const char *operation_text, const char *user_text) {
          allowed = quillon_connection_is_authorized(handle(), capability_text, operation_text, user_text);
          return QUILLON_STATUS_OK;
        },
        capability_name, operation, user);
    return status == QUILLON_STATUS_OK && allowed;
  }

 private:
  // Behind a pointer, which stays while the object moves; the C connection ends first and what it uses after it.
  struct state {
    std::shared_ptr<quillon_config> configuration;
    detail::handler_list handlers;
    detail::owner<quillon_connection, quillon_connection_destroy> handle;
  };

  explicit connection(std::unique_ptr<state> made) noexcept : state_(std::move(made)) {}

  static void call_with_status(quillon_connection *, QUILLON_STATUS status, void *argument) noexcept {
    detail::handler<void(QUILLON_STATUS)>::call(argument, status);
  }
  static void call_with_view(wb_dom_node *node, void *argument) noexcept {
    detail::handler<void(xml::view)>::call(argument, xml::view(node));
  }

  template <typename Signature, typename Callback>
  result<> set(std::function<Signature> handler, QUILLON_STATUS (*set_user_data)(const quillon_connection *, void *),
               QUILLON_STATUS (*set_callback)(const quillon_connection *, Callback),
               std::type_identity_t<Callback> callback) noexcept {
    if (state_ == nullptr) return QUILLON_STATUS_INVALID_ARGS;
    return state_->handlers.add(std::move(handler), [&](void *argument) {
      const QUILLON_STATUS status = set_user_data(handle(), argument);
      return status == QUILLON_STATUS_OK ? set_callback(handle(), callback) : status;
    });
  }

  template <typename Signature, typename Callback>
  result<> add(QUILLON_STATUS (*register_with)(quillon_connection *, const char *, const char *, Callback, void *),
               std::string_view payload_name, std::function<Signature> handler,
               std::type_identity_t<Callback> callback) noexcept {
    if (state_ == nullptr) return QUILLON_STATUS_INVALID_ARGS;
    const detail::split_name name(payload_name, {});
    return state_->handlers.add(std::move(handler), [&](void *argument) {
      return detail::with_texts(
          [&](const char *uri, const char *local) { return register_with(handle(), uri, local, callback, argument); }, name.uri,
          name.local);
    });
  }

  static result<xml::element> answered(QUILLON_STATUS status, wb_dom_node *answer) noexcept {
    xml::element owned = xml::element::adopt(answer);
    if (status != QUILLON_STATUS_OK) return status;
    return owned;
  }

  template <typename Send>
  static result<xml::element> ask(xml::element request, Send &&send) noexcept {
    if (!request) return QUILLON_STATUS_XML_ERROR;
    wb_dom_node *answer = nullptr;
    wb_dom_node *const payload = request.release();
    const QUILLON_STATUS status = send(payload, &answer);
    // With these two the request was not consumed.
    if (status == QUILLON_STATUS_CAPABILITY_NOT_FOUND || status == QUILLON_STATUS_INVALID_ARGS) xml::element::adopt(payload);
    return answered(status, answer);
  }

  detail::begin_query beginner(const any_capability &asked) const {
    return [asking = handle(), of = asked.handle()](wb_dom_node *request, uint32_t milliseconds, quillon_query_done_cb done,
                                                    void *argument, quillon_pending_query **pending) {
      return quillon_connection_query_async(asking, of, request, milliseconds, done, argument, pending);
    };
  }

  detail::begin_query beginner() const {
    return [asking = handle()](wb_dom_node *request, uint32_t milliseconds, quillon_query_done_cb done, void *argument,
                               quillon_pending_query **pending) {
      return quillon_connection_query_controller_async(asking, request, milliseconds, done, argument, pending);
    };
  }

  static result<std::future<query_end>> promised(const detail::begin_query &begin, xml::element request,
                                                 std::chrono::milliseconds within) {
    const auto promise = std::make_shared<std::promise<query_end>>();
    std::future<query_end> future = promise->get_future();
    const auto begun =
        detail::ask_later(begin, std::move(request), within, [promise](query_end end) { promise->set_value(std::move(end)); });
    if (!begun.ok()) return begun.status();
    return future;
  }

  std::unique_ptr<state> state_;
};

inline result<> capability::subscribe(connection &over) const noexcept {
  return quillon_capability_subscribe(handle(), over.handle());
}

inline result<> capability::publish(connection &over) const noexcept {
  return quillon_capability_publish(handle(), over.handle());
}

inline result<> dynamic_capability::subscribe(connection &over) const noexcept {
  return quillon_dynamic_capability_subscribe(handle(), over.handle());
}

inline result<> dynamic_capability::publish(connection &over) const noexcept {
  return quillon_dynamic_capability_publish(handle(), over.handle());
}

inline result<> dynamic_capability::refresh_publishers(connection &over) noexcept {
  return quillon_dynamic_capability_refresh_publisher_jids(handle(), over.handle());
}

namespace detail {

// Sends a definition with the function of quillon.h that proposes or modifies.
template <typename Send>
QUILLON_STATUS send_definition(const quillon_capability *capability, quillon_connection *connection, const definition &sent,
                               Send &&send) noexcept {
  return with_list(sent.reading, [&](const char **reading, int reading_count) {
    return with_list(sent.writing, [&](const char **writing, int writing_count) {
      return with_texts(
          [&](const char *name, const char *version, const char *description, const char *platform) {
            return send(capability, connection, name, version, reading, reading_count, writing, writing_count, description,
                        platform);
          },
          std::string_view(sent.name), std::string_view(sent.version), std::string_view(sent.description),
          std::string_view(sent.platform));
    });
  });
}

}  // namespace detail

inline result<> capability::propose(connection &over, const definition &proposed) const noexcept {
  return detail::send_definition(handle(), over.handle(), proposed, quillon_capability_propose);
}

inline result<> capability::modify(connection &over, const definition &changed) const noexcept {
  return detail::send_definition(handle(), over.handle(), changed, quillon_capability_modify);
}

// A thread that keeps a connection up: it connects at once, and then looks every 60 seconds whether the connection is down and
// connects again, each time to the next host. Declare it after its connection, which has to outlive it.
class reconnection {
 public:
  // Makes the object for that connection, which may be moved; the thread does not run yet.
  static result<reconnection> create(const connection &kept_up) noexcept {
    if (kept_up.handle() == nullptr) return QUILLON_STATUS_INVALID_ARGS;
    quillon_reconnection *created = nullptr;
    const QUILLON_STATUS status = quillon_reconnection_create(&created, kept_up.handle());
    if (status != QUILLON_STATUS_OK) return status;
    reconnection made(created);
    return detail::guarded([&]() -> result<reconnection> {
      made.handlers_ = std::make_unique<detail::handler_list>();
      return std::move(made);
    });
  }

  reconnection(reconnection &&) noexcept = default;
  reconnection &operator=(reconnection &&other) noexcept {
    handle_ = std::move(other.handle_);  // first, since the thread that this ends calls the handlers
    handlers_ = std::move(other.handlers_);
    return *this;
  }
  reconnection(const reconnection &) = delete;
  reconnection &operator=(const reconnection &) = delete;
  ~reconnection() = default;

  // The object for functions of quillon.h; NULL after a move. It stays this object's, whose destructor stops the thread and waits
  // up to 5 seconds for it, unless it runs on that thread itself.
  quillon_reconnection *handle() const noexcept { return handle_.get(); }

  // Starts the thread; on one that runs it does nothing. The handlers that connecting calls run on that thread.
  // Blocks:  up to 5 seconds when a thread that was stopped is still leaving.
  // Returns: QUILLON_STATUS_OK, or QUILLON_STATUS_PTHREAD_ERROR when the system has no thread to give
  result<> start() noexcept { return quillon_reconnection_start(handle()); }

  // Tells the thread to leave and disconnects as connection::disconnect does; nothing when the thread does not run.
  // Thread:  any but the event loop's.
  result<> stop() noexcept { return quillon_reconnection_stop(handle()); }

  // Sets the delays: the first, how each further one grows, in percent of the one before, and their ceiling. This setter and the
  // next two make it hear at once that a session has ended. See quillon_reconnection_set_delays.
  // Thread:  any, also while it runs, as all of these.
  // Returns: QUILLON_STATUS_OK, or QUILLON_STATUS_INVALID_ARGS for a first delay of 0, a growth below 100 or a lower ceiling
  result<> set_delays(std::chrono::milliseconds first, unsigned growth_percent, std::chrono::milliseconds ceiling) noexcept {
    return quillon_reconnection_set_delays(handle(), detail::whole_milliseconds(first), growth_percent,
                                           detail::whole_milliseconds(ceiling));
  }
  // Sets whether each wait is a random part of its delay; at first false.
  result<> set_jitter(bool is_full) noexcept { return quillon_reconnection_set_jitter(handle(), is_full); }
  // Sets whether the other hosts are tried at once when one is lost or cannot be reached; at first false.
  result<> set_next_host_at_once(bool is_at_once) noexcept {
    return quillon_reconnection_set_next_host_at_once(handle(), is_at_once);
  }
  // Calls for each outage once, however many attempts fail, and for its end, on the reconnection's thread: see
  // quillon_reconnection_set_report_cb. It may destroy this object.
  result<> on_report(std::function<void(const quillon_reconnection_report &)> handler) noexcept {
    if (handlers_ == nullptr) return QUILLON_STATUS_INVALID_ARGS;
    return handlers_->add(std::move(handler), [&](void *argument) {
      const auto call = [](const quillon_reconnection_report *report, void *kept) {
        detail::handler<void(const quillon_reconnection_report &)>::call(kept, *report);
      };
      return quillon_reconnection_set_report_cb(handle(), call, argument);
    });
  }

 private:
  explicit reconnection(quillon_reconnection *created) noexcept : handle_(created) {}

  std::unique_ptr<detail::handler_list> handlers_;  // outlives the handle, whose thread calls them
  detail::owner<quillon_reconnection, quillon_reconnection_destroy> handle_;
};

// A token that proves to other services who the client is. Declare it after its connection, which has to outlive it.
class token {
 public:
  // Makes a token of that connection, which may be moved; sends nothing.
  static result<token> create(const connection &of) noexcept {
    if (of.handle() == nullptr) return QUILLON_STATUS_INVALID_ARGS;
    quillon_authentication_token *created = nullptr;
    const QUILLON_STATUS status = quillon_authentication_token_create(&created, of.handle());
    if (status != QUILLON_STATUS_OK) return status;
    return token(created);
  }

  // The token for functions of quillon.h; NULL after a move. It stays this object's, whose destructor wipes it.
  quillon_authentication_token *handle() const noexcept { return handle_.get(); }

  // The text, which lives as long as the object and never changes: a new token needs a new object. It is a secret.
  // Blocks:  until the controller answers, at most the send time-out; not at all once there is a text.
  // Thread:  any but the event loop's; several at once all get the same text.
  // Returns: the text, or QUILLON_STATUS_UNKNOWN when there is none to be had, of which the log tells why; the next call asks
  // again
  result<std::string_view> text() const noexcept {
    const char *const secret = quillon_authentication_token_get(handle());
    if (secret == nullptr) return QUILLON_STATUS_UNKNOWN;
    return std::string_view(secret);
  }

 private:
  explicit token(quillon_authentication_token *created) noexcept : handle_(created) {}

  detail::owner<quillon_authentication_token, quillon_authentication_token_destroy> handle_;
};

}  // namespace quillon

#endif

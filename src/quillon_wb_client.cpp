// Three operations on the XMPP client for threads that are not the event loop's.
//
// While the session is up a stanza goes to the client at once: the client takes it from any thread and gathers what is sent in
// one pass of the loop into one write. Otherwise, and for a disconnect, which only the loop may do, the operation is put on the
// work queue and runs when the loop does. The caller waits for it only as long as its time-out says; the operation outlives the
// caller, and an outcome that comes later is dropped.
#include "quillon_wb_client.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <new>

#include "connection_private.h"
#include "guard.h"
#include "monitor_wait.h"
#include "owners.h"
#include "pthread_lock.h"
#include "stanza_builder.h"

namespace {

// What the client's own time-out may be late by before the caller stops believing in it: then something holds the loop up.
constexpr std::chrono::seconds kTimeoutGrace{2};

constexpr char kInvalidData[] = "Invalid send record";

// One operation, shared by the caller who waits for it and the loop that carries it out.
struct Operation {
  qlk::MonitorPtr monitor;
  std::shared_ptr<qlk::ClientGate> gate;
  unsigned timeout_seconds = 0;

  std::mutex mutex;
  qlk::NodePtr request;  // under mutex from here on, until it is sent
  bool sent = false;
  qlk::SteadyClock::time_point due;  // when it is sent: the end of the time-out
  bool given_up = false;
  bool finished = false;
  QUILLON_STATUS status = QUILLON_STATUS_UNKNOWN;
  qlk::SendFate fate = qlk::SendFate::not_sent;
  qlk::NodePtr response;

  // Any thread; what comes after the first outcome, or after the caller has gone, is dropped. Whoever calls it holds a reference.
  void finish(QUILLON_STATUS outcome, qlk::NodePtr reply = nullptr) {
    {
      const std::lock_guard lock(mutex);
      if (given_up || finished) return;
      finished = true;
      status = outcome;
      fate = fate_of_locked(outcome);
      response = std::move(reply);
    }
    {
      const qlk::PthreadLock lock(monitor->mutex);
      monitor->is_notified = true;
    }
    // Outside the lock, so that the thread that wakes need not wait for it at once.
    pthread_cond_signal(&monitor->cond);
  }

  // It is about to be sent, which may finish it at any moment. False when it is not wanted any more.
  bool begin_sending() {
    const std::lock_guard lock(mutex);
    if (given_up || finished) return false;
    sent = true;
    due = qlk::SteadyClock::now() + std::chrono::seconds(timeout_seconds);
    return true;
  }

  void refuse_to_send() {
    {
      const std::lock_guard lock(mutex);
      sent = false;
    }
    finish(QUILLON_STATUS_UNKNOWN);
  }

 private:
  // The end of the session has the status of a time-out: the time tells them apart.
  qlk::SendFate fate_of_locked(QUILLON_STATUS outcome) const {
    if (outcome == QUILLON_STATUS_OK) return qlk::SendFate::answered;
    if (!sent) return qlk::SendFate::not_sent;
    const bool is_over = outcome == QUILLON_STATUS_SEND_TIMEOUT && qlk::SteadyClock::now() >= due;
    return is_over ? qlk::SendFate::timed_out : qlk::SendFate::lost;
  }
};
using OperationPtr = std::shared_ptr<Operation>;

// How an IQ's answer finds who asked. Made before the IQ is sent, freed by the client's one callback.
struct Asked {
  qlk::SendDone done;
  void *arg;
};

void _iq_response_callback(wb_dom_node *result, void *arg) {
  const std::unique_ptr<Asked> asked(static_cast<Asked *>(arg));
  if (result != nullptr && wb_dom_context_retain(wb_dom_get_context(result), nullptr)) {
    return asked->done(asked->arg, QUILLON_STATUS_OK, result);
  }
  wb_log(WB_LOG_ERROR, "_iq_response_callback timeout");
  asked->done(asked->arg, QUILLON_STATUS_SEND_TIMEOUT, nullptr);
}

// Hands the IQ to the client; false, logged, when it is refused: done is not called then.
bool track(qlk::ClientGate &gate, qlk::NodePtr iq, unsigned timeout_seconds, qlk::SendDone done, void *arg) {
  std::unique_ptr<Asked> asked(new (std::nothrow) Asked{done, arg});
  wb_err err = {};
  bool tracked = false;
  if (asked != nullptr) {
    gate.use([&](wb_client *client) {
      tracked = wb_client_track_iq(client, iq.release(), _iq_response_callback, asked.get(), timeout_seconds, &err);
    });
  }
  if (tracked) {
    static_cast<void>(asked.release());  // the callback's now
  } else {
    wb_log_err(WB_LOG_ERROR, err.code != WB_ERR_NONE ? &err : nullptr, "_send_and_wait_cb");
  }
  return tracked;
}

bool send(qlk::ClientGate &gate, qlk::NodePtr stanza, wb_err *err) {
  bool sent = false;
  gate.use([&](wb_client *client) { sent = wb_client_send_stanza(client, stanza.release(), err); });
  return sent;
}

// For a SendDone whose argument is an operation that it holds.
void on_reply(void *arg, QUILLON_STATUS status, wb_dom_node *reply) {
  const std::unique_ptr<OperationPtr> operation(static_cast<OperationPtr *>(arg));
  (*operation)->finish(status, qlk::NodePtr(reply));
}

void track_operation(const OperationPtr &operation, qlk::NodePtr iq) {
  if (!operation->begin_sending()) return;
  std::unique_ptr<OperationPtr> holder(new (std::nothrow) OperationPtr(operation));
  if (holder != nullptr && track(*operation->gate, std::move(iq), operation->timeout_seconds, on_reply, holder.get())) {
    static_cast<void>(holder.release());  // on_reply's now
    return;
  }
  operation->refuse_to_send();
}

void send_operation(Operation &operation, qlk::NodePtr stanza) {
  wb_err err = {};
  if (send(*operation.gate, std::move(stanza), &err)) return operation.finish(QUILLON_STATUS_OK);
  wb_log_err(WB_LOG_ERROR, &err, "_send_and_forget_cb");
  operation.finish(QUILLON_STATUS_SEND_ERROR);
}

// ---- What the loop runs

using LoopHandler = void (*)(const OperationPtr &operation);

struct LoopItem {
  OperationPtr operation;
  LoopHandler handler;
};

void run_item(void *arg, bool cancelled) {
  const std::unique_ptr<LoopItem> item(static_cast<LoopItem *>(arg));
  if (!cancelled) item->handler(item->operation);
}

// Sends the request if it is still wanted.
template <typename Send>
void send_if_wanted(const OperationPtr &operation, Send &&send_request) {
  std::unique_lock lock(operation->mutex);
  if (operation->given_up || operation->request == nullptr) return;
  qlk::NodePtr request = std::move(operation->request);
  lock.unlock();
  send_request(std::move(request));
}

void _send_and_wait_cb(const OperationPtr &operation) {
  send_if_wanted(operation, [&](qlk::NodePtr request) { track_operation(operation, std::move(request)); });
}

void _send_and_forget_cb(const OperationPtr &operation) {
  send_if_wanted(operation, [&](qlk::NodePtr request) { send_operation(*operation, std::move(request)); });
}

// Runs also when the caller has given up: it stands in the queue before whatever connects next, so it can only end the session it
// was meant for.
void _disconnect_cb(const OperationPtr &operation) {
  operation->gate->use_on_loop([](wb_client *client) { wb_client_disconnect(client, WB_ERR_NONE); });
  operation->finish(QUILLON_STATUS_OK);
}

bool put(const qlk::EventLoop &loop, const OperationPtr &operation, LoopHandler handler) {
  auto item = std::make_unique<LoopItem>(LoopItem{operation, handler});
  wb_err err = {};
  if (!wb_workq_put(loop.queue(), run_item, item.get(), &err)) {
    wb_log_err(WB_LOG_ERROR, &err, "cannot hand an operation to the event loop");
    return false;
  }
  static_cast<void>(item.release());  // the queue's now
  return true;
}

}  // namespace

struct _quillon_data {
  quillon_monitor *send_monitor;  // the operation's
  quillon_connection *connection;
  wb_dom_node *request;  // borrowed
  QUILLON_STATUS status;
  wb_dom_node *response;
  OperationPtr operation;  // private addition
  qlk::SendFate fate;      // private addition
};

namespace {

// Ends the operation when the connection is destroyed or the library shut down. Made before anything is sent or queued, since it
// takes memory.
class WokenByDestroy {
 public:
  explicit WokenByDestroy(Operation &operation)
      : waiting_(*operation.gate, [&operation] { operation.finish(QUILLON_STATUS_UNKNOWN); }) {
    if (!waiting_) operation.finish(QUILLON_STATUS_UNKNOWN);
  }

 private:
  const qlk::ClientGate::Waiting waiting_;
};

// Waits for the outcome, at most until the deadline, and takes it over. False on a time-out: the caller waits no more, and a
// request that the loop has not taken yet is never sent.
bool await(quillon_data &data, qlk::SteadyClock::time_point deadline) {
  Operation &operation = *data.operation;
  qlk::wait_notified(*operation.monitor, deadline);
  const std::lock_guard lock(operation.mutex);
  if (!operation.finished) {
    operation.given_up = true;
    operation.request.reset();
    if (operation.sent) operation.fate = qlk::SendFate::timed_out;
  }
  data.status = operation.status;
  data.fate = operation.fate;
  data.response = operation.response.release();
  return operation.finished;
}

qlk::SteadyClock::time_point after(int seconds) { return qlk::SteadyClock::now() + std::chrono::seconds(std::max(seconds, 0)); }

// A wait on the loop's own thread would be for itself.
bool is_on_loop(const quillon_data &data, const char *operation) {
  if (!data.connection->extra->loop->is_loop_thread()) return false;
  wb_log(WB_LOG_ERROR, "%s cannot wait on the event loop thread", operation);
  return true;
}

QUILLON_STATUS make_operation(quillon_data &data) {
  auto operation = std::make_shared<Operation>();
  quillon_monitor *monitor = nullptr;
  if (const QUILLON_STATUS status = quillon_monitor_create(&monitor); status != QUILLON_STATUS_OK) return status;
  operation->monitor.reset(monitor);
  data.send_monitor = monitor;
  data.operation = std::move(operation);
  return QUILLON_STATUS_OK;
}

void begin(quillon_data &data, wb_dom_node *request) {
  if (data.operation->gate != nullptr && make_operation(data) != QUILLON_STATUS_OK) throw std::bad_alloc();  // used before
  data.request = request;
  data.status = QUILLON_STATUS_UNKNOWN;
  data.fate = qlk::SendFate::not_sent;
  data.response = nullptr;
  data.operation->gate = data.connection->extra->gate;
  data.operation->timeout_seconds = static_cast<unsigned>(std::max(qlk::send_timeout_seconds(*data.connection), 0));
  quillon_monitor_clear(data.send_monitor);
}

QUILLON_STATUS send_and_wait(quillon_data &data, qlk::NodePtr iq) {
  begin(data, iq.get());
  const OperationPtr operation = data.operation;
  const WokenByDestroy woken(*operation);
  const auto seconds = static_cast<int>(operation->timeout_seconds);
  qlk::SteadyClock::time_point deadline = after(seconds);
  if (data.connection->is_xmpp_connected) {
    deadline += kTimeoutGrace;
    track_operation(operation, std::move(iq));
  } else {
    operation->request = std::move(iq);
    if (!put(*data.connection->extra->loop, operation, _send_and_wait_cb)) return QUILLON_STATUS_SEND_ERROR;
  }
  if (await(data, deadline)) return data.status;
  wb_log(WB_LOG_ERROR, "send and wait: the event loop did not answer within %d seconds", seconds);
  return QUILLON_STATUS_SEND_TIMEOUT;
}

QUILLON_STATUS send_and_forget(quillon_data &data, qlk::NodePtr stanza) {
  begin(data, stanza.get());
  const OperationPtr operation = data.operation;
  if (data.connection->is_xmpp_connected) {
    send_operation(*operation, std::move(stanza));
    return operation->status;
  }
  if (is_on_loop(data, "a send without a session")) return QUILLON_STATUS_SEND_ERROR;
  const WokenByDestroy woken(*operation);
  operation->request = std::move(stanza);
  if (!put(*data.connection->extra->loop, operation, _send_and_forget_cb)) return QUILLON_STATUS_SEND_ERROR;
  await(data, after(qlk::send_timeout_seconds(*data.connection)));
  return data.status;
}

}  // namespace

void qlk::send_async(quillon_connection &connection, wb_dom_node *iq, unsigned timeout_seconds, SendDone done, void *arg) {
  NodePtr request(iq);
  if (!connection.is_xmpp_connected) return done(arg, QUILLON_STATUS_NO_CONNECTION, nullptr);
  if (!track(*connection.extra->gate, std::move(request), timeout_seconds, done, arg)) done(arg, QUILLON_STATUS_UNKNOWN, nullptr);
}

QUILLON_STATUS qlk::send_and_wait(quillon_connection &connection, NodePtr iq, NodePtr &reply, SendFate &fate) {
  fate = SendFate::not_sent;
  quillon_data *data = nullptr;
  if (const QUILLON_STATUS status = quillon_wb_client_create(&data, &connection); status != QUILLON_STATUS_OK) return status;
  const std::unique_ptr<quillon_data, decltype(&quillon_wb_client_destroy)> owned(data, quillon_wb_client_destroy);
  wb_dom_node *received = nullptr;
  const QUILLON_STATUS status = quillon_wb_client_send_and_wait(data, iq.release(), &received);
  reply.reset(received);
  fate = data->fate;
  return status;
}

bool qlk::send_stanza(const quillon_connection &connection, wb_dom_node *stanza, wb_err *err) {
  return send(*connection.extra->gate, NodePtr(stanza), err);
}

QUILLON_STATUS quillon_wb_client_create(quillon_data **data, quillon_connection *connection) {
  qlk::trace(__func__);
  if (data == nullptr) return qlk::refuse(kInvalidData);
  *data = nullptr;
  return qlk::guarded(__func__, [&]() -> QUILLON_STATUS {
    auto created = std::make_unique<_quillon_data>();
    created->connection = connection;
    created->status = QUILLON_STATUS_UNKNOWN;
    created->fate = qlk::SendFate::not_sent;
    const QUILLON_STATUS status = make_operation(*created);
    if (status == QUILLON_STATUS_OK) *data = created.release();
    return status;
  });
}

void quillon_wb_client_destroy(quillon_data *data) {
  qlk::trace(__func__);
  delete data;
}

QUILLON_STATUS quillon_wb_client_send_and_wait(quillon_data *data, wb_dom_node *iq_req, wb_dom_node **iq_result) {
  qlk::trace(__func__);
  if (iq_result != nullptr) *iq_result = nullptr;
  if (data == nullptr || data->connection == nullptr) return qlk::refuse(kInvalidData);
  if (iq_req == nullptr) return qlk::refuse("request is null");
  return qlk::guarded(__func__, [&]() -> QUILLON_STATUS {
    qlk::NodePtr iq(iq_req);
    if (is_on_loop(*data, "a send that waits")) return QUILLON_STATUS_SEND_ERROR;
    data->status = send_and_wait(*data, std::move(iq));
    if (iq_result != nullptr) {
      *iq_result = data->response;
    } else {
      const qlk::NodePtr unwanted(std::exchange(data->response, nullptr));
    }
    return data->status;
  });
}

QUILLON_STATUS quillon_wb_client_send_and_forget(quillon_data *data, wb_dom_node *node) {
  qlk::trace(__func__);
  if (data == nullptr) return qlk::refuse(kInvalidData);
  if (node == nullptr) return qlk::refuse("request is null");
  return qlk::guarded(__func__, [&]() -> QUILLON_STATUS {
    qlk::NodePtr stanza(node);
    if (data->connection == nullptr) return QUILLON_STATUS_UNKNOWN;
    return data->status = send_and_forget(*data, std::move(stanza));
  });
}

QUILLON_STATUS quillon_wb_client_disconnect(quillon_data *data) {
  qlk::trace(__func__);
  if (data == nullptr || data->connection == nullptr) return qlk::refuse(kInvalidData);
  return qlk::guarded(__func__, [&]() -> QUILLON_STATUS {
    if (is_on_loop(*data, "a disconnect")) return data->status = QUILLON_STATUS_SEND_ERROR;
    begin(*data, nullptr);
    const WokenByDestroy woken(*data->operation);
    if (!put(*data->connection->extra->loop, data->operation, _disconnect_cb)) return data->status = QUILLON_STATUS_SEND_ERROR;
    const bool done = await(*data, after(qlk::send_timeout_seconds(*data->connection)));
    return data->status = done ? QUILLON_STATUS_OK : QUILLON_STATUS_SEND_TIMEOUT;
  });
}

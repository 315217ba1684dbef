// The thread owns what it needs: a share of the object, and a hold on the connection. So it may be left behind by a stop or a
// destroy that cannot wait for it, also by one that it calls itself out of a callback, and the connection may be destroyed while
// it runs.
//
// A stop ends what the thread is doing, but the thread may be just about to connect. That connect looks at the run flag once a
// disconnect can see it, so either it sees the flag or the disconnect ends it.
#include "quillon_reconnection.h"

#include <list>
#include <memory>

#include "connection_private.h"
#include "guard.h"
#include "monitor_wait.h"
#include "pthread_lock.h"
#include "signals_blocked.h"

namespace qlk {

std::atomic<int> reconnection_wait_seconds = 60;

}  // namespace qlk

namespace {

// How long start and destroy wait for a thread that was told to leave. Only a callback of the application can hold it up for
// longer.
constexpr std::chrono::seconds kLeavingTime{5};

// One run of the thread, from start to stop.
struct Run {
  explicit Run(quillon_connection &kept) : connection(kept), hold(kept) {}

  quillon_connection &connection;
  const qlk::ConnectionHold hold;
  std::atomic<bool> keep_running = true;
  std::atomic<bool> finished = false;
};

}  // namespace

struct _quillon_reconnection {
  quillon_connection *connection = nullptr;  // borrowed
  pthread_t thread = {};
  std::atomic<bool> keepRunning = false;
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
  // Private additions
  std::shared_ptr<Run> run;                     // under mutex: the one that stop ends
  bool has_thread = false;                      // under mutex: thread is to be joined
  std::shared_ptr<Run> thread_run;              // under mutex: what that thread runs
  std::shared_ptr<_quillon_reconnection> self;  // the application's share

  ~_quillon_reconnection() {
    pthread_cond_destroy(&cond);
    pthread_mutex_destroy(&mutex);
  }
};

namespace {

using ReconnectionPtr = std::shared_ptr<_quillon_reconnection>;

struct Start {
  ReconnectionPtr reconnection;
  std::shared_ptr<Run> run;
};

bool is_expected(QUILLON_STATUS status) {
  return status == QUILLON_STATUS_OK || status == QUILLON_STATUS_CONNECTION_ERROR || status == QUILLON_STATUS_CONNECTION_TIMEOUT;
}

void connect_if_down(Run &run) {
  if (quillon_connection_is_connected(&run.connection)) return;
  const QUILLON_STATUS status =
      qlk::guarded("quillon_connection_connect", [&] { return qlk::connect(run.connection, &run.keep_running); });
  if (!is_expected(status)) wb_log(WB_LOG_ERROR, "_reconnection_thread error %s", quillon_status_get_message(status));
}

void wait_for_next_pass(_quillon_reconnection &reconnection, const Run &run) {
  const timespec until = qlk::to_timespec(qlk::SteadyClock::now() + std::chrono::seconds(qlk::reconnection_wait_seconds));
  const qlk::PthreadLock lock(reconnection.mutex);
  while (run.keep_running) {
    if (pthread_cond_clockwait(&reconnection.cond, &reconnection.mutex, CLOCK_MONOTONIC, &until) == ETIMEDOUT) return;
  }
}

void *_reconnection_thread(void *arg) {
  const std::unique_ptr<Start> start(static_cast<Start *>(arg));
  Run &run = *start->run;
  wb_log(WB_LOG_INFO, "_reconnection_thread starts");
  while (run.keep_running && !run.connection.extra->destroyed) {
    connect_if_down(run);
    wait_for_next_pass(*start->reconnection, run);
  }
  wb_log(WB_LOG_INFO, "_reconnection_thread exits");
  const qlk::PthreadLock lock(start->reconnection->mutex);
  run.finished = true;
  pthread_cond_broadcast(&start->reconnection->cond);
  return nullptr;
}

// Waits for the thread of a run that was stopped and joins it; when it cannot be waited for it is left to itself.
void join_or_leave(_quillon_reconnection &reconnection) {
  bool finished = false;
  pthread_t thread = {};
  {
    const qlk::PthreadLock lock(reconnection.mutex);
    if (!reconnection.has_thread) return;
    thread = reconnection.thread;
    const timespec until = qlk::to_timespec(qlk::SteadyClock::now() + kLeavingTime);
    const bool is_self = pthread_equal(thread, pthread_self()) != 0;
    while (!is_self && !reconnection.thread_run->finished) {
      if (pthread_cond_clockwait(&reconnection.cond, &reconnection.mutex, CLOCK_MONOTONIC, &until) == ETIMEDOUT) break;
    }
    finished = reconnection.thread_run->finished;
    reconnection.has_thread = false;
    reconnection.thread_run.reset();
  }
  if (finished) {
    pthread_join(thread, nullptr);
  } else {
    pthread_detach(thread);
  }
}

QUILLON_STATUS start_thread(_quillon_reconnection &reconnection) {
  auto run = std::make_shared<Run>(*reconnection.connection);
  auto start = std::make_unique<Start>(Start{reconnection.self, run});
  const qlk::PthreadLock lock(reconnection.mutex);
  reconnection.keepRunning = true;
  const qlk::SignalsBlocked blocked;
  if (pthread_create(&reconnection.thread, nullptr, _reconnection_thread, start.get()) != 0) {
    reconnection.keepRunning = false;
    wb_log(WB_LOG_ERROR, "pthread_create failed");
    return QUILLON_STATUS_PTHREAD_ERROR;
  }
  static_cast<void>(start.release());  // the thread's now
  reconnection.run = run;
  reconnection.thread_run = std::move(run);
  reconnection.has_thread = true;
  return QUILLON_STATUS_OK;
}

// Tells the thread to leave; null when it does not run.
std::shared_ptr<Run> stop_run(_quillon_reconnection &reconnection) {
  const qlk::PthreadLock lock(reconnection.mutex);
  std::shared_ptr<Run> run = std::move(reconnection.run);
  if (run == nullptr) return nullptr;
  reconnection.keepRunning = false;
  run->keep_running = false;
  pthread_cond_broadcast(&reconnection.cond);
  return run;
}

}  // namespace

QUILLON_STATUS quillon_reconnection_create(quillon_reconnection **reconnection, quillon_connection *connection) {
  qlk::trace(__func__);
  if (reconnection == nullptr) return qlk::refuse("reconnection is null");
  *reconnection = nullptr;
  if (connection == nullptr) {
    wb_log(WB_LOG_ERROR, "Invalid connection object");
    return QUILLON_STATUS_QUILLON_ERROR;
  }
  const QUILLON_STATUS status = qlk::guarded(__func__, [&]() -> QUILLON_STATUS {
    auto created = std::make_shared<_quillon_reconnection>();
    created->connection = connection;
    created->self = created;
    *reconnection = created.get();
    return QUILLON_STATUS_OK;
  });
  if (status == QUILLON_STATUS_MALLOC_ERROR) wb_log(WB_LOG_ERROR, "malloc failed");
  return status;
}

QUILLON_STATUS quillon_reconnection_start(quillon_reconnection *reconnection) {
  qlk::trace(__func__);
  if (reconnection == nullptr) return qlk::refuse("reconnection is null");
  return qlk::guarded(__func__, [&]() -> QUILLON_STATUS {
    if (reconnection->keepRunning) {
      wb_log(WB_LOG_WARN, "the reconnection thread runs already");
      return QUILLON_STATUS_OK;
    }
    join_or_leave(*reconnection);
    return start_thread(*reconnection);
  });
}

QUILLON_STATUS quillon_reconnection_stop(quillon_reconnection *reconnection) {
  qlk::trace(__func__);
  if (reconnection == nullptr) return qlk::refuse("reconnection is null");
  const std::shared_ptr<Run> run = stop_run(*reconnection);
  if (run == nullptr) {
    wb_log(WB_LOG_WARN, "keepRunning is false");
    return QUILLON_STATUS_OK;
  }
  quillon_connection_disconnect(&run->connection);
  return QUILLON_STATUS_OK;
}

QUILLON_STATUS quillon_reconnection_destroy(quillon_reconnection *reconnection) {
  qlk::trace(__func__);
  if (reconnection == nullptr) return qlk::refuse("reconnection is null");
  if (const std::shared_ptr<Run> run = stop_run(*reconnection)) quillon_connection_disconnect(&run->connection);
  join_or_leave(*reconnection);
  const ReconnectionPtr last = std::move(reconnection->self);
  return QUILLON_STATUS_OK;
}

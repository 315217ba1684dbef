// The thread owns what it needs: a share of the object, and a hold on the connection. So it may be left behind by a stop or a
// destroy that cannot wait for it, also by one that it calls itself out of a callback, and the connection may be destroyed while
// it runs.
//
// A stop ends what the thread is doing, but the thread may be just about to connect. That connect looks at the run flag once a
// disconnect can see it, so either it sees the flag or the disconnect ends it.
//
// A thread waits on its connection's condition, so that it hears of a session's end as well as of a stop.
#include "quillon_reconnection.h"

#include <sys/random.h>

#include <algorithm>
#include <memory>
#include <optional>

#include "connection_private.h"
#include "guard.h"
#include "monitor_wait.h"
#include "pthread_lock.h"
#include "reconnection_backoff.h"
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
  qlk::ReconnectionPolicy policy;                      // under mutex
  quillon_reconnection_report_cb report_cb = nullptr;  // under mutex, as its argument
  void *report_user_data = nullptr;
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

qlk::ReconnectionPolicy policy_of(_quillon_reconnection &reconnection) {
  const qlk::PthreadLock lock(reconnection.mutex);
  return reconnection.policy;
}

// From 0 up to but not including 1.
double chance() {
  uint32_t bits = 0;
  if (getrandom(&bits, sizeof bits, GRND_NONBLOCK) != sizeof bits) bits = static_cast<uint32_t>(clock());
  return bits / 4294967296.0;
}

// What the thread does from its start on.
class Keeper {
 public:
  explicit Keeper(const Start &start) : reconnection_(*start.reconnection), run_(*start.run) {}

  bool goes_on() const { return run_.keep_running && !run_.connection.extra->destroyed; }
  void pass() {
    const qlk::ReconnectionPolicy policy = policy_of(reconnection_);
    connect_if_down();
    const bool is_up = quillon_connection_is_connected(&run_.connection);
    if (is_up && (attempts_ > 0 || told_ == QUILLON_RECONNECTION_STATE_DOWN)) report_up();
    if (!policy.is_prompt) return wait_for_next_look(is_up);
    if (is_up) wait_for_loss(policy);
    if (goes_on()) wait_after_failure();
  }

 private:
  using Milliseconds = std::chrono::milliseconds;

  void connect_if_down() {
    wait_until(std::nullopt, [this] { return run_.connection.extra->leaving == 0; });
    if (!goes_on() || quillon_connection_is_connected(&run_.connection)) return;
    ++attempts_;
    status_ = qlk::guarded("quillon_connection_connect", [&] { return qlk::connect(run_.connection, &run_.keep_running); });
    if (!is_expected(status_)) wb_log(WB_LOG_ERROR, "_reconnection_thread error %s", quillon_status_get_message(status_));
  }

  void wait_for_next_look(bool is_up) {
    const std::chrono::seconds pause(qlk::reconnection_wait_seconds);
    if (!is_up) report_down(pause);
    wait_until(qlk::SteadyClock::now() + pause, [] { return false; });
  }

  void wait_for_loss(const qlk::ReconnectionPolicy &policy) {
    const auto joined = qlk::SteadyClock::now();
    wait_until(std::nullopt, [this] { return !run_.connection.is_grid_connected; });
    status_ = QUILLON_STATUS_CONNECTION_ERROR;
    if (qlk::SteadyClock::now() - joined >= policy.ceiling) backoff_.begin_anew();
  }

  void wait_after_failure() {
    qlk::ReconnectionBackoff::Failure failure{.chance = chance()};
    {
      const std::lock_guard lock(run_.connection.extra->mutex);
      failure.hosts = run_.connection.extra->hosts;
      failure.calls_for_restraint = run_.connection.extra->calls_for_restraint;
    }
    const Milliseconds delay = backoff_.after(failure, policy_of(reconnection_));
    if (delay.count() == 0) return;
    report_down(delay);
    wait_until(qlk::SteadyClock::now() + delay, [] { return false; });
  }

  // Until then, without end when there is no time, or until the condition holds, or the thread is to leave.
  template <typename Condition>
  void wait_until(std::optional<qlk::SteadyClock::time_point> time, Condition condition) {
    qlk::ConnectionPrivate &extra = *run_.connection.extra;
    std::unique_lock lock(extra.mutex);
    const auto is_over = [&] { return !goes_on() || condition(); };
    if (time) {
      extra.changed.wait_until(lock, *time, is_over);
    } else {
      extra.changed.wait(lock, is_over);
    }
  }

  // Perhaps it was the application that connected.
  void report_up() {
    status_ = QUILLON_STATUS_OK;
    if (goes_on()) report(QUILLON_RECONNECTION_STATE_UP, Milliseconds(0));
    attempts_ = 0;
  }

  // Once an outage.
  void report_down(Milliseconds next) {
    if (status_ == QUILLON_STATUS_OK) status_ = QUILLON_STATUS_CONNECTION_ERROR;  // it was lost as soon as it was there
    if (told_ != QUILLON_RECONNECTION_STATE_DOWN && goes_on()) report(QUILLON_RECONNECTION_STATE_DOWN, next);
  }

  void report(QUILLON_RECONNECTION_STATE state, Milliseconds next) {
    told_ = state;
    quillon_reconnection_report_cb callback = nullptr;
    void *user_data = nullptr;
    {
      const qlk::PthreadLock lock(reconnection_.mutex);
      callback = reconnection_.report_cb;
      user_data = reconnection_.report_user_data;
    }
    const auto since = std::chrono::duration_cast<Milliseconds>(qlk::SteadyClock::now() - down_since());
    const quillon_reconnection_report report = {.state = state,
                                                .status = status_,
                                                .attempts = attempts_,
                                                .milliseconds = static_cast<uint64_t>(since.count()),
                                                .next_milliseconds = static_cast<uint64_t>(next.count())};
    if (callback != nullptr) callback(&report, user_data);
  }

  qlk::SteadyClock::time_point down_since() const {
    const std::lock_guard lock(run_.connection.extra->mutex);
    return std::max(started_, run_.connection.extra->lost_at);
  }

  _quillon_reconnection &reconnection_;
  Run &run_;
  qlk::ReconnectionBackoff backoff_;
  QUILLON_STATUS status_ = QUILLON_STATUS_OK;  // of the last attempt, or of the session that was lost
  uint32_t attempts_ = 0;                      // since it was lost
  const qlk::SteadyClock::time_point started_ = qlk::SteadyClock::now();
  QUILLON_RECONNECTION_STATE told_ = QUILLON_RECONNECTION_STATE_MAX;  // last; at first nothing
};

void *_reconnection_thread(void *arg) {
  const std::unique_ptr<Start> start(static_cast<Start *>(arg));
  wb_log(WB_LOG_INFO, "_reconnection_thread starts");
  Keeper keeper(*start);
  while (keeper.goes_on()) keeper.pass();
  wb_log(WB_LOG_INFO, "_reconnection_thread exits");
  const qlk::PthreadLock lock(start->reconnection->mutex);
  start->run->finished = true;
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
  std::shared_ptr<Run> run;
  {
    const qlk::PthreadLock lock(reconnection.mutex);
    run = std::move(reconnection.run);
    if (run == nullptr) return nullptr;
    reconnection.keepRunning = false;
    run->keep_running = false;
  }
  qlk::announce_change(run->connection);
  return run;
}

// Whoever sets a policy wants it followed promptly.
template <typename Change>
QUILLON_STATUS change_policy(quillon_reconnection *reconnection, Change change) {
  if (reconnection == nullptr) return qlk::refuse("reconnection is null");
  const qlk::PthreadLock lock(reconnection->mutex);
  change(reconnection->policy);
  reconnection->policy.is_prompt = true;
  return QUILLON_STATUS_OK;
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
  quillon_reconnection_set_report_cb(reconnection, nullptr, nullptr);  // a thread that was left behind tells nobody
  const ReconnectionPtr last = std::move(reconnection->self);
  return QUILLON_STATUS_OK;
}

QUILLON_STATUS quillon_reconnection_set_delays(quillon_reconnection *reconnection, uint32_t first_milliseconds,
                                               uint32_t growth_percent, uint32_t ceiling_milliseconds) {
  qlk::trace(__func__);
  if (first_milliseconds < 1 || growth_percent < 100 || ceiling_milliseconds < first_milliseconds) {
    return QUILLON_STATUS_INVALID_ARGS;
  }
  return change_policy(reconnection, [&](qlk::ReconnectionPolicy &policy) {
    policy.first = std::chrono::milliseconds(first_milliseconds);
    policy.growth_percent = growth_percent;
    policy.ceiling = std::chrono::milliseconds(ceiling_milliseconds);
  });
}

QUILLON_STATUS quillon_reconnection_set_jitter(quillon_reconnection *reconnection, bool is_full) {
  qlk::trace(__func__);
  return change_policy(reconnection, [&](qlk::ReconnectionPolicy &policy) { policy.has_full_jitter = is_full; });
}

QUILLON_STATUS quillon_reconnection_set_next_host_at_once(quillon_reconnection *reconnection, bool is_at_once) {
  qlk::trace(__func__);
  return change_policy(reconnection, [&](qlk::ReconnectionPolicy &policy) { policy.next_host_at_once = is_at_once; });
}

QUILLON_STATUS quillon_reconnection_set_report_cb(quillon_reconnection *reconnection, quillon_reconnection_report_cb callback,
                                                  void *user_data) {
  qlk::trace(__func__);
  if (reconnection == nullptr) return qlk::refuse("reconnection is null");
  const qlk::PthreadLock lock(reconnection->mutex);
  reconnection->report_cb = callback;
  reconnection->report_user_data = user_data;
  return QUILLON_STATUS_OK;
}

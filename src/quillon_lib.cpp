#include "quillon_lib.h"

#include <event2/thread.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <mutex>

#include "client_gate.h"
#include "guard.h"
#include "owners.h"
#include "quillon_grid.h"

namespace qlk {

_quillon_lib_obj *g_Qln_Lib = nullptr;
std::atomic<bool> bLibInitialize = false;

}  // namespace qlk

namespace {

constexpr unsigned kBaseTableBuckets = 7;

// Set in a child that fork made of a process whose library was up. The child has none of its threads, and shares its sockets
// and its epoll instance with the parent: to end anything there would wait for ever, or deafen the parent's loop.
std::atomic<bool> forked_away = false;

// Connections may be created by several threads at once, and each brings the library up. Recursive, because the application's log
// function is called meanwhile and is the application's own code.
std::recursive_mutex lifecycle_mutex;

struct FactoryDelete {
  void operator()(wb_sasl_factory *factory) const { wb_sasl_factory_destroy(factory); }
};
using FactoryPtr = std::unique_ptr<wb_sasl_factory, FactoryDelete>;

// libevent takes lock functions only before the first base is made: one made earlier would stay without locks. Switched on once
// for the process, because libevent reads the setting without a lock of its own. Negative: not supported.
int use_threads() {
  static const int result = evthread_use_pthreads();
  return result;
}

// libevent ends the process when there are no descriptors for a base's signals. So they are looked for first, those for its other
// needs with them.
bool finds_descriptors() {
  std::array<int, 6> found = {};
  for (int &descriptor : found) descriptor = eventfd(0, EFD_CLOEXEC);
  bool all = true;
  for (const int descriptor : found) all = (descriptor >= 0 && close(descriptor) == 0) && all;
  return all;
}

QUILLON_STATUS fail(const char *message, QUILLON_STATUS status) {
  wb_log(WB_LOG_ERROR, "%s", message);
  return status;
}

QUILLON_STATUS fail(const wb_err &err, const char *message, QUILLON_STATUS status = QUILLON_STATUS_WB_ERROR) {
  wb_log_err(WB_LOG_ERROR, &err, message);
  return status;
}

bool put_text(wb_htable *table, const char *key, const char *text, wb_err *err) {
  return wb_htable_put(table, key, const_cast<char *>(text), nullptr, err);
}

bool make_factory(wb_htable *config, FactoryPtr &out, wb_err *err) {
  wb_sasl_factory *factory = nullptr;
  wb_sasl_mech *mech = nullptr;
  if (!wb_sasl_factory_create(config, &factory, err)) return false;
  out.reset(factory);
  if (!quillon_sasl_mech_external_create(config, &mech, err)) return false;
  if (wb_sasl_factory_add_mech(factory, mech, err)) return true;
  wb_sasl_mech_destroy(mech);
  return false;
}

// What a failure half-way leaves is freed by its owner.
QUILLON_STATUS build(_quillon_lib_obj &lib) {
  wb_err err = {};
  if (!finds_descriptors()) return fail("no descriptors are left for an event base", QUILLON_STATUS_WB_ERROR);
  const int threads = use_threads();
  qlk::EventBasePtr base(event_base_new());
  if (base == nullptr) return fail("could not initialize event base", QUILLON_STATUS_WB_ERROR);
  wb_htable *created_table = nullptr;
  if (!wb_htable_create(kBaseTableBuckets, wb_strcase_hashcode, wb_strcase_compare, &created_table, &err)) {
    return fail(err, "could not create hashtable");
  }
  qlk::TablePtr table(created_table);
  if (!wb_htable_put(table.get(), "selector", base.get(), nullptr, &err))
    return fail(err, "error populating configuration htable");
  wb_workq *created_queue = nullptr;
  if (!wb_workq_create(table.get(), &created_queue, &err)) return fail(err, "could not create workq");
  qlk::WorkQueuePtr queue(created_queue);
  if (!put_text(table.get(), "streamtype", "socket", &err) || !put_text(table.get(), "domain", GRID_DOMAIN, &err) ||
      !put_text(table.get(), "client_reconnect_countdown", "0", &err)) {
    return fail(err, "error populating configuration htable");
  }
  if (threads < 0) return fail("evthread_use_pthreads not supported", QUILLON_STATUS_WB_ERROR);
  if (evthread_make_base_notifiable(base.get()) < 0) return fail("evthread_make_base_notifiable failed", QUILLON_STATUS_WB_ERROR);
  qlk::EventPtr send_event(event_new(base.get(), -1, EV_WRITE, qlk::_wakeup_callback, nullptr));
  if (send_event == nullptr) return fail("event_new error", QUILLON_STATUS_EVENT_ERROR);
  FactoryPtr factory;
  if (!make_factory(table.get(), factory, &err)) return fail(err, "SASL create error");
  if (!wb_htable_put(table.get(), "client_sasl_factory", factory.get(), wb_sasl_factory_htable_cleaner, &err)) {
    return fail(err, "SASL config error");
  }
  static_cast<void>(factory.release());  // the table's now

  lib.eventBase = base.get();
  lib.send_event = send_event.get();
  lib.wb_workq_ = queue.get();
  lib.loop = qlk::EventLoop::create(std::move(base), std::move(send_event), std::move(queue));
  if (lib.loop == nullptr) return fail("event_new error", QUILLON_STATUS_EVENT_ERROR);
  lib.wb_base_config = table.release();
  return QUILLON_STATUS_OK;
}

void watch_forks() {
  static const int result = pthread_atfork(nullptr, nullptr, [] { forked_away = qlk::g_Qln_Lib != nullptr; });
  if (result != 0) wb_log(WB_LOG_WARN, "a child process that exits may disturb the sessions of this one");
}

// Once for the process, however often the library comes up.
void shut_down_at_exit() {
  static const int result = std::atexit(quillon_shutdown);
  if (result != 0) wb_log(WB_LOG_ERROR, "atexit failed to register quillon_shutdown");
}

void remove_base_entries(wb_htable *table) {
  for (const char *key : {"selector", "streamtype", "domain", "client_reconnect_countdown", "client_sasl_factory"}) {
    wb_htable_remove(table, key);
  }
}

}  // namespace

_quillon_lib_obj::~_quillon_lib_obj() {
  if (wb_base_config == nullptr) return;
  remove_base_entries(wb_base_config);
  wb_htable_destroy(wb_base_config);
}

std::shared_ptr<_quillon_lib_obj> qlk::library() {
  const std::lock_guard lock(lifecycle_mutex);
  return g_Qln_Lib != nullptr ? g_Qln_Lib->self : nullptr;
}

bool qlk::is_forked_away() { return forked_away; }

void qlk::shut_down_before_openssl() {
  static std::atomic<bool> registered = false;
  if (!registered.exchange(true) && std::atexit(quillon_shutdown) != 0) registered = false;
}

void qlk::_wakeup_callback(int fd, short events, void *arg) {
  wb_log(WB_LOG_TRACE, "->: %s; args=(fd='%d', events='%d', arg='%p' \n)", __func__, fd, events, arg);
}

QUILLON_STATUS quillon_init(void) {
  qlk::trace(__func__);
  if (qlk::is_forked_away()) return fail("the library belongs to the process that was forked", QUILLON_STATUS_WB_ERROR);
  return qlk::guarded(__func__, [&]() -> QUILLON_STATUS {
    const std::lock_guard lock(lifecycle_mutex);
    if (qlk::bLibInitialize) {
      wb_log(WB_LOG_WARN, "quillon library is already initialized");
      return QUILLON_STATUS_OK;
    }
    wb_log_set_ndc_enabled(false);
    auto built = std::make_unique<_quillon_lib_obj>();
    if (const QUILLON_STATUS status = build(*built); status != QUILLON_STATUS_OK) return status;
    watch_forks();
    const std::shared_ptr<_quillon_lib_obj> lib = std::move(built);
    lib->self = lib;
    qlk::g_Qln_Lib = lib.get();
    qlk::bLibInitialize = true;
    shut_down_at_exit();
    wb_log(WB_LOG_TRACE, "quillon library has been initialized successfully");
    return QUILLON_STATUS_OK;
  });
}

void quillon_shutdown(void) {
  if (qlk::is_forked_away()) return;  // before the log, whose lock another thread may have held at the fork
  qlk::trace(__func__);
  qlk::guarded_void(__func__, [&] {
    const std::lock_guard lock(lifecycle_mutex);
    if (qlk::g_Qln_Lib == nullptr) return wb_log(WB_LOG_INFO, "quillon library is already uninitialized");
    std::shared_ptr<_quillon_lib_obj> lib = std::move(std::exchange(qlk::g_Qln_Lib, nullptr)->self);
    // Before anything goes that a session still up might be using, on the loop or on a thread that sends.
    qlk::ClientGate::close_all();
    lib->loop->close();
    if (lib->loop.use_count() > 1) wb_log(WB_LOG_WARN, "the event loop stays until the last connection is destroyed");
    lib.reset();
    wb_tls_terminate();
    qlk::bLibInitialize = false;
    wb_log(WB_LOG_INFO, "quillon library has been uninitialized");
  });
}

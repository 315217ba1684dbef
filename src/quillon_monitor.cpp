// Nothing here throws. Each wait is one wait, not a loop over the flag: who waits must bear a spurious wake-up.
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "guard.h"
#include "owners.h"
#include "pthread_lock.h"

QUILLON_STATUS quillon_monitor_create(quillon_monitor **out) {
  qlk::trace(__func__);
  if (out == nullptr) return qlk::refuse("monitor is null");
  *out = nullptr;
  qlk::MallocPtr<quillon_monitor> monitor(static_cast<quillon_monitor *>(std::calloc(1, sizeof(quillon_monitor))));
  if (monitor == nullptr) return qlk::out_of_memory(__func__);
  // With default attributes these two cannot fail but for a shortage of what the system keeps them in.
  if (pthread_mutex_init(&monitor->mutex, nullptr) != 0) return qlk::out_of_memory(__func__);
  if (pthread_cond_init(&monitor->cond, nullptr) != 0) {
    pthread_mutex_destroy(&monitor->mutex);
    return qlk::out_of_memory(__func__);
  }
  *out = monitor.release();
  return QUILLON_STATUS_OK;
}

void quillon_monitor_destroy(quillon_monitor *monitor) {
  qlk::trace(__func__);
  if (monitor == nullptr) return wb_log(WB_LOG_ERROR, "%s monitor is null ...", __func__);
  pthread_cond_destroy(&monitor->cond);
  pthread_mutex_destroy(&monitor->mutex);
  std::free(monitor);
}

void quillon_monitor_wait(quillon_monitor *monitor) {
  qlk::trace(__func__);
  if (monitor == nullptr) return;
  const qlk::PthreadLock lock(monitor->mutex);
  if (!monitor->is_notified) pthread_cond_wait(&monitor->cond, &monitor->mutex);
}

bool quillon_monitor_timedwait(quillon_monitor *monitor, int seconds) {
  qlk::trace(__func__);
  if (monitor == nullptr) return false;
  const timespec deadline = {std::time(nullptr) + seconds, 0};
  const qlk::PthreadLock lock(monitor->mutex);
  return monitor->is_notified || pthread_cond_timedwait(&monitor->cond, &monitor->mutex, &deadline) != ETIMEDOUT;
}

void quillon_monitor_notify(quillon_monitor *monitor) {
  qlk::trace(__func__);
  if (monitor == nullptr) return;
  const qlk::PthreadLock lock(monitor->mutex);
  monitor->is_notified = true;
  pthread_cond_signal(&monitor->cond);
}

void quillon_monitor_clear(quillon_monitor *monitor) {
  qlk::trace(__func__);
  if (monitor == nullptr) return;
  const qlk::PthreadLock lock(monitor->mutex);
  monitor->is_notified = false;
}

void quillon_monitor_set_user_data(quillon_monitor *monitor, void *user_data) {
  qlk::trace(__func__);
  if (monitor != nullptr) std::atomic_ref<void *>(monitor->user_data).store(user_data, std::memory_order_release);
}

void *quillon_monitor_get_user_data(quillon_monitor *monitor) {
  qlk::trace(__func__);
  return monitor != nullptr ? std::atomic_ref<void *>(monitor->user_data).load(std::memory_order_acquire) : nullptr;
}

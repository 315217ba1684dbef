#include "bulk_transfers.h"

#include <openssl/ssl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <vector>

#include "guard.h"
#include "pthread_lock.h"

namespace {

// curl looks once a second whether it is to go on; longer than that an exit waits only for a callback of the application's.
constexpr std::chrono::seconds kPatience{3};

struct Transfers {
  const pid_t process = getpid();
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<qlk::ThrdsSharedData *> under_way;  // under mutex, as what follows
  bool is_exiting = false, is_watched = false;    // watched: the exit will be known
};

// Never destroyed: threads may still come here when the process has begun to destroy its statics.
Transfers &transfers() {
  static auto *const all = new Transfers();
  return *all;
}

void break_off() {
  Transfers &all = transfers();
  if (getpid() != all.process) return;  // a child by fork has no such threads, and its lock may be one of theirs
  std::unique_lock lock(all.mutex);
  all.is_exiting = true;
  for (qlk::ThrdsSharedData *shared : all.under_way) qlk::stop_transfer(*shared);
  all.changed.wait_for(lock, kPatience, [&] { return all.under_way.empty(); });
}

// What is registered last runs first at exit, so OpenSSL has to be up before.
bool watch_exit_locked(Transfers &all) {
  if (!all.is_watched) all.is_watched = OPENSSL_init_ssl(0, nullptr) == 1 && std::atexit(break_off) == 0;
  return all.is_watched;
}

}  // namespace

void qlk::stop_transfer(ThrdsSharedData &shared) {
  const PthreadLock lock(shared.mutex);
  shared.stopWrite = true;
  pthread_cond_signal(&shared.notFull);
}

qlk::BulkTransfer::BulkTransfer(ThrdsSharedData &shared) : shared_(shared) {
  Transfers &all = transfers();
  bool is_watched = false;
  {
    const std::lock_guard lock(all.mutex);
    all.under_way.push_back(&shared);
    is_admitted_ = !all.is_exiting;
    is_watched = watch_exit_locked(all);
  }
  if (!is_watched) wb_log(WB_LOG_WARN, "an exit will not wait for this bulk download");
}

qlk::BulkTransfer::~BulkTransfer() {
  OPENSSL_thread_stop();  // else OpenSSL does that at the thread's end, perhaps when it has cleaned up
  Transfers &all = transfers();
  const std::lock_guard lock(all.mutex);
  std::erase(all.under_way, &shared_);
  all.changed.notify_all();
}

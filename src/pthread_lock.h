// Holds a POSIX mutex for the length of a scope, also when the thread that waits under it is cancelled.
#pragma once

#include <pthread.h>

namespace qlk {

class PthreadLock {
 public:
  explicit PthreadLock(pthread_mutex_t &mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
  ~PthreadLock() { pthread_mutex_unlock(&mutex_); }
  PthreadLock(const PthreadLock &) = delete;
  PthreadLock &operator=(const PthreadLock &) = delete;

 private:
  pthread_mutex_t &mutex_;
};

}  // namespace qlk

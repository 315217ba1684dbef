// Signals of the application are for its own threads: a thread started while this lives blocks them. The signals of a fault come
// to the thread that is at fault, and an application's handler for them is to hear of faults on the library's threads, too.
#pragma once

#include <signal.h>

namespace qlk {

class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t blocked;
    sigfillset(&blocked);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT}) sigdelset(&blocked, fault);
    pthread_sigmask(SIG_BLOCK, &blocked, &previous_);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }
  SignalsBlocked(const SignalsBlocked &) = delete;
  SignalsBlocked &operator=(const SignalsBlocked &) = delete;

 private:
  sigset_t previous_;
};

}  // namespace qlk

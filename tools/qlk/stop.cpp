#include "stop.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>

#include "failure.h"
#include "terminal.h"

namespace tool {

namespace {

constexpr std::chrono::milliseconds kActAgain{200};

sigset_t wanted_signals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction now = {};
    if (sigaction(number, nullptr, &now) == 0 && now.sa_handler != SIG_IGN) sigaddset(&set, number);
  }
  return set;
}

void raise_event(const Descriptor &event) {
  const uint64_t one = 1;
  static_cast<void>(!write(event.get(), &one, sizeof one));  // only a full counter refuses, and that one is readable
}

}  // namespace

Stop::Stop() : requested_(eventfd(0, EFD_CLOEXEC)), quit_(eventfd(0, EFD_CLOEXEC)) {
  const sigset_t set = wanted_signals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  signals_ = Descriptor(signalfd(-1, &set, SFD_CLOEXEC));
  if (!signals_ || !requested_ || !quit_) throw Failure(ExitCode::failed, "cannot wait for signals");
  watcher_ = std::thread(&Stop::watch, this);
  actor_ = std::thread(&Stop::act, this);
}

Stop::~Stop() {
  {
    const std::lock_guard lock(mutex_);
    quitting_ = true;
  }
  changed_.notify_all();
  raise_event(quit_);
  watcher_.join();
  actor_.join();
}

void Stop::check() const {
  if (requested()) throw Stopped{signal()};
}

bool Stop::wait_for(std::chrono::milliseconds time) const {
  pollfd waited = {descriptor(), POLLIN, 0};
  poll(&waited, 1, static_cast<int>(time.count()));
  return requested();
}

void Stop::set_action(std::function<void()> action) {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return !acting_; });
  action_ = std::move(action);
  changed_.notify_all();
}

void Stop::watch() {
  int patience = -1;  // milliseconds, once the end was requested
  for (;;) {
    pollfd waited[] = {{quit_.get(), POLLIN, 0}, {signals_.get(), POLLIN, 0}};
    const int ready = poll(waited, 2, patience);
    if (waited[0].revents != 0) return;
    if (ready == 0) end_now();
    signalfd_siginfo info = {};
    if (waited[1].revents == 0 || read(signals_.get(), &info, sizeof info) != sizeof info) continue;
    if (requested()) end_now();
    if (info.ssi_signo == SIGINT) end_interrupted_line();
    signal_ = static_cast<int>(info.ssi_signo);
    raise_event(requested_);
    {
      const std::lock_guard lock(mutex_);
      changed_.notify_all();
    }
    patience = patience_ms_;
  }
}

void Stop::act() {
  std::unique_lock lock(mutex_);
  while (!quitting_) {
    if (!requested() || action_ == nullptr) {
      changed_.wait(lock);
      continue;
    }
    acting_ = true;
    const auto action = action_;
    lock.unlock();
    action();
    lock.lock();
    acting_ = false;
    changed_.notify_all();
    changed_.wait_for(lock, kActAgain);
  }
}

void Stop::end_now() const {
  restore_terminal();
  // What was printed before goes out, unless that is what blocks.
  if (ftrylockfile(stdout) == 0) fflush_unlocked(stdout);
  _exit(128 + signal());
}

}  // namespace tool

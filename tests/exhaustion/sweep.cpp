#include "sweep.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <qlk/testpeer/wait.hpp>
#include <random>

#include "oom.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace exhaustion {

namespace {

// Under the address sanitizer: whether there are blocks that nobody points to any more. It prints them.
bool leaks() {
#if defined(__SANITIZE_ADDRESS__)
  return __lsan_do_recoverable_leak_check() != 0;
#else
  return false;
#endif
}

// ---- Threads that cannot be had

std::atomic<bool> threads_count = false;
std::atomic<long> threads_wanted = 0, threads_refused = 0, first_refused = 0, last_refused = 0;

struct Start {
  void *(*run)(void *);
  void *argument;
};

void *run_thread(void *given) {
  const Start start = *static_cast<Start *>(given);
  {
    const oom::process::Exempt exempt;
    delete static_cast<Start *>(given);
  }
  oom::process::enter_thread();
  return start.run(start.argument);
}

bool refuse_thread() {
  if (!threads_count) return false;
  const long number = ++threads_wanted;
  if (number < first_refused || number > last_refused) return false;
  ++threads_refused;
  return true;
}

Shortage of_threads(const char *name, bool lasts) {
  return {.name = name,
          .lasts = lasts,
          .begin =
              [lasts](long spared) {
                first_refused = spared + 1;
                last_refused = lasts ? LONG_MAX : spared + 1;
                threads_wanted = threads_refused = 0;
                threads_count = true;
              },
          .end =
              [] {
                threads_count = false;
                return threads_wanted.load();
              },
          .unmet = [] { return threads_refused.load(); }};
}

// ---- Descriptors that cannot be had

size_t count_entries(const char *folder) {
  size_t count = 0;
  for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator(folder)) ++count;
  return count;
}

// The numbers below the limit that are still free are as many as are to be had.
void leave_descriptors(long spared) {
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  if (spared >= 0) {
    rlim_t number = 0;
    for (long free = 0; free < spared || fcntl(static_cast<int>(number), F_GETFD) >= 0; ++number)
      if (fcntl(static_cast<int>(number), F_GETFD) < 0) ++free;
    limit.rlim_cur = number;
  }
  setrlimit(RLIMIT_NOFILE, &limit);
}

// ---- Memory

Shortage of_memory(const char *name, bool lasts) {
  return {.name = name,
          .lasts = lasts,
          .begin = [lasts](long spared) { oom::process::begin(spared + 1, lasts ? LONG_MAX : spared + 1); },
          .end = oom::process::end,
          .unmet = oom::process::failed,
          .explain = [] { oom::process::print_last_failure(STDERR_FILENO); }};
}

// ---- One sweep

// What is held at the end of a round. Threads and memory go a little after the call that gave them up.
struct Holdings {
  long memory = 0;
  size_t descriptors = 0, threads = 0;

  static Holdings now() {
    const oom::process::Exempt exempt;
    return {oom::process::live(), count_entries("/proc/self/fd"), count_entries("/proc/self/task")};
  }
  bool exceed(const Holdings &other) const {
    return memory > other.memory || descriptors > other.descriptors || threads > other.threads;
  }
};

// What grows in each of so many rounds is lost, and not kept for later use.
constexpr int kRepeats = 6;
constexpr long kPlenty = LONG_MAX - 1;
constexpr std::chrono::milliseconds kLeaving(300), kAnswerTime(12'000);
constexpr std::chrono::seconds kSlow(10);  // a round is told of for its time alone
// How many seconds the rounds of a sweep may take in a test, by the time that an undisturbed one takes.
constexpr double kShort = 0.3;

class Sweep {
 public:
  Sweep(const Flow &flow, const Shortage &shortage) : flow_(flow), shortage_(shortage) {}

  void run() {
    for (int i = 0; i < 3 && !testing::Test::HasFailure(); ++i) round(kPlenty);
    if (testing::Test::HasFailure()) return;
    tally_ = {.requests = tally_.requests};
    const auto [offset, step] = choose_rounds();
    testpeer::eventually(kLeaving, [] { return false; });  // threads leave, and what they have
    baseline_ = Holdings::now();
    for (long spared = offset; spared < tally_.requests && !testing::Test::HasFailure(); spared += step) {
      round(spared);
      ++tally_.rounds;
      if (!testing::Test::HasFailure()) look_for_losses(spared);
    }
    EXPECT_FALSE(leaks()) << flow_.name << ", " << shortage_.name;
    print(offset, step);
  }

  static void run_first(const std::string &name, const std::function<Flow()> &make, const Shortage &shortage) {
    const Flow named{.name = name};
    Sweep sweep(named, shortage);
    sweep.child_round(make, kPlenty);
    sweep.tally_ = {.requests = sweep.tally_.requests};
    const auto [offset, step] = sweep.choose_rounds();
    for (long spared = offset; spared < sweep.tally_.requests && !testing::Test::HasFailure(); spared += step)
      sweep.child_round(make, spared);
    sweep.print(offset, step);
  }

 private:
  struct Rounds {
    long offset, step;
  };

  // All of them, a slice, or as many as fit into a test.
  Rounds choose_rounds() const {
    const char *form = std::getenv("QLK_EXHAUSTION");
    Rounds slice = {};
    if (form != nullptr && std::sscanf(form, "%ld %ld", &slice.offset, &slice.step) == 2) return slice;
    if (form != nullptr && std::string_view(form) == "full") return {0, 1};
    const double all = static_cast<double>(tally_.requests) * std::chrono::duration<double>(duration_).count();
    const long step = std::max(1L, static_cast<long>(all / kShort));
    return {static_cast<long>(std::random_device()() % static_cast<unsigned long>(step)), step};
  }

  void round(long spared) {
    const Clock::time_point begun = Clock::now();
    flow_.prepare();
    const Clock::time_point start = Clock::now();
    shortage_.begin(spared);
    const QUILLON_STATUS status = flow_.act();
    const long asked_for = shortage_.end();
    if (spared == kPlenty) tally_.requests = asked_for;
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
    const long unmet = shortage_.unmet();
    EXPECT_LT(took, kDeadline);
    const bool is_documented = status == QUILLON_STATUS_OK || status == QUILLON_STATUS_MALLOC_ERROR ||
                               std::find(flow_.statuses.begin(), flow_.statuses.end(), status) != flow_.statuses.end();
    EXPECT_TRUE(is_documented) << "status " << status;
    if (unmet == 0) {
      EXPECT_EQ(QUILLON_STATUS_OK, status) << "without a failure";
    }
    flow_.verify(status);
    tally_.failures += unmet > 0 ? 1 : 0;
    if (unmet > 0) ++tally_.statuses[status];
    tally_.longest = std::max(tally_.longest, took);
    duration_ = Clock::now() - begun;
    if (!testing::Test::HasFailure() && took < kSlow) return;
    std::fprintf(stderr, "%s, %s, %ld spared, status %d, %lld ms\n", flow_.name.c_str(), shortage_.name, spared,
                 static_cast<int>(status), static_cast<long long>(took.count()));
    shortage_.explain();
  }

  void child_round(const std::function<Flow()> &make, long spared) {
    const Clock::time_point begun = Clock::now();
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    const pid_t child = fork();
    if (child == 0) {
      const Flow flow = make();
      Sweep inner(flow, shortage_);
      inner.round(spared);
      EXPECT_TRUE(!leaks() || flow.may_leave()) << spared << " spared";
      const Tally &tally = inner.tally_;
      const long told[] = {tally.requests, tally.failures, tally.statuses.empty() ? 0 : tally.statuses.begin()->first,
                           tally.longest.count()};
      const bool is_told = write(ends[1], told, sizeof told) == sizeof told;
      std::fflush(nullptr);
      _exit(is_told && !testing::Test::HasFailure() ? 0 : 1);
    }
    close(ends[1]);
    long told[4] = {};
    const bool is_told = read(ends[0], told, sizeof told) == sizeof told;
    close(ends[0]);
    int end = 0;
    waitpid(child, &end, 0);
    EXPECT_TRUE(is_told && end == 0) << flow_.name << ", " << shortage_.name << ", " << spared << " spared: ended by " << end;
    if (spared == kPlenty) tally_.requests = told[0];
    ++tally_.rounds;
    tally_.failures += told[1];
    if (told[1] > 0) ++tally_.statuses[static_cast<QUILLON_STATUS>(told[2])];
    tally_.longest = std::max(tally_.longest, std::chrono::milliseconds(told[3]));
    duration_ = Clock::now() - begun;
  }

  // What is kept for later use, by OpenSSL for example, is kept once. What is lost is lost each time.
  void look_for_losses(long spared) {
    for (int again = 0; again < kRepeats; ++again) {
      if (flow_.may_leave()) {
        baseline_ = Holdings::now();
        return;
      }
      // A call that failed after it had asked leaves its question with the session until the answer's time is over.
      const auto patience = again == kRepeats - 1 ? kAnswerTime : kLeaving;
      if (testpeer::eventually(patience, [this] { return !Holdings::now().exceed(baseline_); })) return;
      const Holdings after = Holdings::now();
      if (again == kRepeats - 1) {
        ADD_FAILURE() << flow_.name << ", " << shortage_.name << ", " << spared << " spared: each round leaves "
                      << after.memory - baseline_.memory << " blocks, "
                      << static_cast<long>(after.descriptors) - static_cast<long>(baseline_.descriptors) << " descriptors, "
                      << static_cast<long>(after.threads) - static_cast<long>(baseline_.threads) << " threads";
        shortage_.explain();
      }
      baseline_ = after;
      round(spared);
    }
  }

  void print(long offset, long step) const {
    std::string statuses;
    for (const auto &[status, count] : tally_.statuses) {
      statuses += (statuses.empty() ? "" : ", ") + std::to_string(count) + " × " + std::to_string(status);
    }
    std::printf("| %s | %s | %ld | %ld from %ld by %ld | %ld | %s | %lld ms |\n", flow_.name.c_str(), shortage_.name,
                tally_.requests, tally_.rounds, offset, step, tally_.failures, statuses.c_str(),
                static_cast<long long>(tally_.longest.count()));
    std::fflush(stdout);
  }

  const Flow &flow_;
  const Shortage &shortage_;
  Tally tally_;
  Clock::duration duration_{};
  Holdings baseline_;
};

}  // namespace

Shortage one_allocation() { return of_memory("one allocation", false); }
Shortage all_further_allocations() { return of_memory("all further allocations", true); }
Shortage one_thread() { return of_threads("one thread", false); }
Shortage all_further_threads() { return of_threads("all further threads", true); }

// The system counts none: a few are enough for every flow.
Shortage all_further_descriptors() {
  constexpr long kEnough = 16;
  static long left;
  return {.name = "all further descriptors",
          .lasts = true,
          .begin = [](long spared) { leave_descriptors(left = spared == kPlenty ? -1 : spared); },
          .end =
              [] {
                leave_descriptors(-1);
                return kEnough + 1;
              },
          .unmet = [] { return left < 0 || left == kEnough ? 0L : 1L; }};
}

void sweep(const Flow &flow, const Shortage &shortage) { Sweep(flow, shortage).run(); }

void sweep_first(const std::string &name, const std::function<Flow()> &make, const Shortage &shortage) {
  Sweep::run_first(name, make, shortage);
}

}  // namespace exhaustion

// The library's threads come through here, as those of the libraries below it do.
extern "C" int pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*start)(void *), void *argument) {
  using Function = int (*)(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
  static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "pthread_create"));
  if (exhaustion::refuse_thread()) return EAGAIN;
  const oom::process::Exempt exempt;
  auto *given = new exhaustion::Start{start, argument};
  const int error = real(thread, attributes, exhaustion::run_thread, given);
  if (error != 0) delete given;
  return error;
}

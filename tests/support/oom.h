// Makes allocations fail on purpose: counts those that a piece of code makes, then fails each in turn. Covers malloc and what
// stands on it, operator new included.
//
// The functions of oom look at the calling thread alone; those of oom::process at all threads, for code that has threads of its
// own: what OpenSSL, libevent, expat and curl allocate counts there too. It stands before the address sanitizer's allocator as
// well as before the C library's. Under the thread sanitizer all of it is switched off, and the sweeps are not built:
// QLK_HAS_OOM.
#pragma once

#if defined(__SANITIZE_ADDRESS__)
#define QLK_HAS_OOM 1
#define QLK_TELLS_MEMORY 0
#elif defined(__SANITIZE_THREAD__)
#define QLK_HAS_OOM 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QLK_HAS_OOM 1
#define QLK_TELLS_MEMORY 0
#elif __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define QLK_HAS_OOM 0
#endif
#endif
#ifndef QLK_HAS_OOM
#define QLK_HAS_OOM 1
#endif
// Whether resident memory and mallinfo2 tell what the program holds. A sanitizer's own bookkeeping grows.
#ifndef QLK_TELLS_MEMORY
#define QLK_TELLS_MEMORY QLK_HAS_OOM
#endif

#if QLK_HAS_OOM

namespace oom {

long allocations();  // made by this thread so far
long live();         // made and not yet freed by this thread; memory that changes threads makes it meaningless
// Shows the block to the function, with the argument, just before this thread frees it: once.
void on_free(const void *memory, void (*look)(const void *memory, void *arg), void *arg);
void fail_nth(long nth);  // 1: the next; 0: none

// The number of allocations that the body makes.
template <typename Body>
long count(Body &&body) {
  const long before = allocations();
  body();
  return allocations() - before;
}

// While it lives, the nth allocation fails, and only that one.
class FailNth {
 public:
  explicit FailNth(long nth) { fail_nth(nth); }
  ~FailNth() { fail_nth(0); }
  FailNth(const FailNth &) = delete;
  FailNth &operator=(const FailNth &) = delete;
};

}  // namespace oom

namespace oom::process {

// The allocations of all threads count from 1; the first to fail and the last. None fails: last before first.
void begin(long first, long last);
// None fails any more. The number that were counted.
long end();
// Its own code runs on the calling thread from here on. Under the address sanitizer nothing of what a thread allocates before
// counts: it is the sanitizer's. begin calls it.
void enter_thread();
// How many have failed since the last begin.
long failed();
// Made and not yet freed by all threads.
long live();
// What the thread allocates while it lives neither counts nor fails: for what belongs to the test.
class Exempt {
 public:
  Exempt();
  ~Exempt();
  Exempt(const Exempt &) = delete;
  Exempt &operator=(const Exempt &) = delete;
};
// Writes the calls that led to the last failure to the descriptor.
void print_last_failure(int descriptor);

}  // namespace oom::process

#endif

#include "oom.h"

#if QLK_HAS_OOM

#include <execinfo.h>
#include <malloc.h>

#include <atomic>
#include <cerrno>
#include <cstddef>

// The C library's allocator under the names that stay when malloc itself is replaced, as it is here.
extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *memory, size_t size);
void *__libc_memalign(size_t alignment, size_t size);
void __libc_free(void *memory);
}

namespace {

// ---- Of one thread

thread_local long made = 0;
thread_local long freed = 0;
thread_local long fail_at = 0;

struct Watch {
  const void *memory;
  void (*look)(const void *memory, void *arg);
  void *arg;
};
thread_local Watch watched = {nullptr, nullptr, nullptr};

// ---- Of the process

std::atomic<bool> counts = false;
std::atomic<long> counted_in_process = 0, failed_in_process = 0, live_in_process = 0;
std::atomic<long> first_to_fail = 1, last_to_fail = 0;
thread_local int exemptions = 0;

constexpr int kFramesMax = 48;
void *frames_of_failure[kFramesMax];
std::atomic<int> frame_count = 0;

bool fails_in_process() {
  if (!counts || exemptions > 0) return false;
  const long number = ++counted_in_process;
  if (number < first_to_fail || number > last_to_fail) return false;
  const oom::process::Exempt exempt;  // the walk of the stack may allocate
  if (++failed_in_process == 1) frame_count = backtrace(frames_of_failure, kFramesMax);
  return true;
}

bool fails_now() {
  const bool fails_here = fail_at != 0 && --fail_at == 0;
  if (!fails_here && !fails_in_process()) return false;
  errno = ENOMEM;
  return true;
}

void *counted(void *memory) {
  if (memory != nullptr) {
    ++made;
    ++live_in_process;
  }
  return memory;
}

void count_free() {
  ++freed;
  --live_in_process;
}

}  // namespace

long oom::allocations() { return made; }
long oom::live() { return made - freed; }
void oom::fail_nth(long nth) { fail_at = nth; }
void oom::on_free(const void *memory, void (*look)(const void *memory, void *arg), void *arg) { watched = {memory, look, arg}; }

void oom::process::begin(long first, long last) {
  first_to_fail = first;
  last_to_fail = last;
  counted_in_process = 0;
  failed_in_process = 0;
  counts = true;
}

long oom::process::end() {
  counts = false;
  return counted_in_process;
}

long oom::process::failed() { return failed_in_process; }
long oom::process::live() { return live_in_process; }
oom::process::Exempt::Exempt() { ++exemptions; }
oom::process::Exempt::~Exempt() { --exemptions; }
void oom::process::print_last_failure(int descriptor) { backtrace_symbols_fd(frames_of_failure, frame_count, descriptor); }

extern "C" {

void *malloc(size_t size) { return fails_now() ? nullptr : counted(__libc_malloc(size)); }

void *calloc(size_t count, size_t size) { return fails_now() ? nullptr : counted(__libc_calloc(count, size)); }

void *realloc(void *memory, size_t size) {
  if (fails_now()) return nullptr;
  void *grown = counted(__libc_realloc(memory, size));
  if (memory != nullptr && (grown != nullptr || size == 0)) count_free();
  return grown;
}

void *memalign(size_t alignment, size_t size) { return fails_now() ? nullptr : counted(__libc_memalign(alignment, size)); }

void *aligned_alloc(size_t alignment, size_t size) { return memalign(alignment, size); }

int posix_memalign(void **out, size_t alignment, size_t size) {
  void *memory = memalign(alignment, size);
  if (memory == nullptr) return ENOMEM;
  *out = memory;
  return 0;
}

void free(void *memory) {
  if (memory == nullptr) return;
  count_free();
  if (memory == watched.memory) {
    const Watch found = watched;
    watched = {nullptr, nullptr, nullptr};
    found.look(memory, found.arg);
  }
  __libc_free(memory);
}

}  // extern "C"

#endif

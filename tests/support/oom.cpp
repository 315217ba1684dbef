#include "oom.h"

#if QLK_HAS_OOM

#include <execinfo.h>
#include <malloc.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>

// The allocator under the names that stay when malloc itself is replaced, as it is here: the address sanitizer's where there is
// one, so that it sees every block, or else the C library's.
#ifdef QLK_HAS_ADDRESS_SANITIZER
#define ALLOCATOR(function) __interceptor_##function
#else
#define ALLOCATOR(function) __libc_##function
#endif
extern "C" {
void *ALLOCATOR(malloc)(size_t size);
void *ALLOCATOR(calloc)(size_t count, size_t size);
void *ALLOCATOR(realloc)(void *memory, size_t size);
void *ALLOCATOR(memalign)(size_t alignment, size_t size);
void ALLOCATOR(free)(void *memory);
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
#ifdef QLK_HAS_ADDRESS_SANITIZER
thread_local bool entered = false;
#else
thread_local bool entered = true;
#endif

constexpr int kFramesMax = 48;
void *frames_of_failure[kFramesMax];
std::atomic<int> frame_count = 0;

bool fails_in_process() {
  if (!counts || !entered || exemptions > 0) return false;
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
  enter_thread();
  counts = true;
}

long oom::process::end() {
  counts = false;
  return counted_in_process;
}

void oom::process::enter_thread() { entered = true; }
long oom::process::failed() { return failed_in_process; }
long oom::process::live() { return live_in_process; }
oom::process::Exempt::Exempt() { ++exemptions; }
oom::process::Exempt::~Exempt() { --exemptions; }
void oom::process::print_last_failure(int descriptor) { backtrace_symbols_fd(frames_of_failure, frame_count, descriptor); }

extern "C" {

void *malloc(size_t size) { return fails_now() ? nullptr : counted(ALLOCATOR(malloc)(size)); }

void *calloc(size_t count, size_t size) { return fails_now() ? nullptr : counted(ALLOCATOR(calloc)(count, size)); }

void *realloc(void *memory, size_t size) {
  if (fails_now()) return nullptr;
  void *grown = counted(ALLOCATOR(realloc)(memory, size));
  if (memory != nullptr && (grown != nullptr || size == 0)) count_free();
  return grown;
}

void *memalign(size_t alignment, size_t size) { return fails_now() ? nullptr : counted(ALLOCATOR(memalign)(alignment, size)); }

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
  ALLOCATOR(free)(memory);
}

#ifdef QLK_HAS_ADDRESS_SANITIZER

// What the dynamic linker allocates is not looked at: the sanitizer knows it by who calls malloc, and that is always us here.
const char *__lsan_default_suppressions() { return "leak:ld-linux\n"; }
const char *__lsan_default_options() { return "print_suppressions=0"; }

// What the sanitizer does without coming by malloc, and the C and the C++ library with it.

char *strdup(const char *text) {
  const size_t size = std::strlen(text) + 1;
  void *copy = malloc(size);
  return copy != nullptr ? static_cast<char *>(std::memcpy(copy, text, size)) : nullptr;
}

char *strndup(const char *text, size_t length_max) {
  const size_t length = strnlen(text, length_max);
  char *copy = static_cast<char *>(malloc(length + 1));
  if (copy == nullptr) return nullptr;
  copy[length] = '\0';
  return static_cast<char *>(std::memcpy(copy, text, length));
}

#endif

}  // extern "C"

#ifdef QLK_HAS_ADDRESS_SANITIZER

void *operator new(size_t size, const std::nothrow_t &) noexcept { return malloc(size > 0 ? size : 1); }
void *operator new[](size_t size, const std::nothrow_t &) noexcept { return operator new(size, std::nothrow); }
void *operator new(size_t size, std::align_val_t alignment, const std::nothrow_t &) noexcept {
  return memalign(static_cast<size_t>(alignment), size > 0 ? size : 1);
}
void *operator new[](size_t size, std::align_val_t alignment, const std::nothrow_t &) noexcept {
  return operator new(size, alignment, std::nothrow);
}

void *operator new(size_t size) {
  if (void *memory = operator new(size, std::nothrow)) return memory;
  throw std::bad_alloc();
}
void *operator new[](size_t size) { return operator new(size); }
void *operator new(size_t size, std::align_val_t alignment) {
  if (void *memory = operator new(size, alignment, std::nothrow)) return memory;
  throw std::bad_alloc();
}
void *operator new[](size_t size, std::align_val_t alignment) { return operator new(size, alignment); }

void operator delete(void *memory) noexcept { free(memory); }
void operator delete[](void *memory) noexcept { free(memory); }
void operator delete(void *memory, size_t) noexcept { free(memory); }
void operator delete[](void *memory, size_t) noexcept { free(memory); }
void operator delete(void *memory, const std::nothrow_t &) noexcept { free(memory); }
void operator delete[](void *memory, const std::nothrow_t &) noexcept { free(memory); }
void operator delete(void *memory, std::align_val_t) noexcept { free(memory); }
void operator delete[](void *memory, std::align_val_t) noexcept { free(memory); }
void operator delete(void *memory, size_t, std::align_val_t) noexcept { free(memory); }
void operator delete[](void *memory, size_t, std::align_val_t) noexcept { free(memory); }
void operator delete(void *memory, std::align_val_t, const std::nothrow_t &) noexcept { free(memory); }
void operator delete[](void *memory, std::align_val_t, const std::nothrow_t &) noexcept { free(memory); }

#endif

#endif

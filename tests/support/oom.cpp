#include "oom.h"

#if QLK_HAS_OOM

#include <cerrno>
#include <cstddef>

// The C library's allocator under the names that stay when malloc itself is replaced, as it is here.
extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *memory, size_t size);
void __libc_free(void *memory);
}

namespace {

thread_local long made = 0;
thread_local long freed = 0;
thread_local long fail_at = 0;

struct Watch {
  const void *memory;
  void (*look)(const void *memory, void *arg);
  void *arg;
};
thread_local Watch watched = {nullptr, nullptr, nullptr};

bool fails_now() {
  if (fail_at == 0 || --fail_at != 0) return false;
  errno = ENOMEM;
  return true;
}

void *counted(void *memory) {
  if (memory != nullptr) ++made;
  return memory;
}

}  // namespace

long oom::allocations() { return made; }
long oom::live() { return made - freed; }
void oom::fail_nth(long nth) { fail_at = nth; }
void oom::on_free(const void *memory, void (*look)(const void *memory, void *arg), void *arg) { watched = {memory, look, arg}; }

extern "C" {

void *malloc(size_t size) { return fails_now() ? nullptr : counted(__libc_malloc(size)); }

void *calloc(size_t count, size_t size) { return fails_now() ? nullptr : counted(__libc_calloc(count, size)); }

void *realloc(void *memory, size_t size) {
  if (fails_now()) return nullptr;
  void *grown = __libc_realloc(memory, size);
  if (grown != nullptr) ++made;
  if (memory != nullptr && (grown != nullptr || size == 0)) ++freed;
  return grown;
}

void free(void *memory) {
  if (memory == nullptr) return;
  ++freed;
  if (memory == watched.memory) {
    const Watch found = watched;
    watched = {nullptr, nullptr, nullptr};
    found.look(memory, found.arg);
  }
  __libc_free(memory);
}

}  // extern "C"

#endif

// Memory that is handed out by moving a pointer and freed all at once.
#pragma once

#include <cstddef>
#include <cstdint>

namespace wb {

class Arena {
 public:
  // Begins with room that belongs to somebody else; blocks of its own follow when that is used up.
  Arena(char *begin, char *end) : next_(begin), end_(end) {}
  ~Arena();
  Arena(const Arena &) = delete;
  Arena &operator=(const Arena &) = delete;

  // Never null: throws std::bad_alloc. Aligned for pointers.
  void *allocate(size_t size) {
    size = round_up(size);
    if (size > static_cast<size_t>(end_ - next_)) return allocate_block(size);
    void *const memory = next_;
    next_ += size;
    return memory;
  }

  // Room for bytes that may be appended to later.
  char *allocate_bytes(size_t size);

  // Gives bytes from allocate_bytes that are being appended to more room, at least wanted: in place where they end the arena,
  // else they move. The used ones are kept, capacity is what there was and becomes what there is. Long ones get a block to
  // themselves which grows by half its size, so that appending piece by piece takes linear time and wastes no more than that
  // half.
  char *grow(char *bytes, size_t used, size_t &capacity, size_t wanted);

  // A copy of the bytes with a zero behind them.
  char *copy(const char *bytes, size_t length);

  // What its own blocks take, in bytes.
  size_t reserved() const { return reserved_; }

  static constexpr size_t round_up(size_t size) { return (size + (sizeof(void *) - 1)) & ~(sizeof(void *) - 1); }

 private:
  struct Block {
    Block *next;
  };

  void *allocate_block(size_t size);
  char *allocate_own(size_t size);

  char *next_;
  char *end_;
  Block *blocks_ = nullptr;
  size_t block_size_ = 1032;  // the largest that glibc keeps at hand per thread
  size_t reserved_ = 0;
};

}  // namespace wb

#include "arena.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

constexpr size_t kBlockSizeMax = 64u << 10;
// From this size on a request gets a block to itself.
constexpr size_t kOwnBlockMin = 4096;

}  // namespace

wb::Arena::~Arena() {
  for (Block *block = blocks_; block != nullptr;) {
    Block *const next = block->next;
    std::free(block);
    block = next;
  }
}

char *wb::Arena::allocate_own(size_t size) {
  auto *const block = size <= SIZE_MAX - sizeof(Block) ? static_cast<Block *>(std::malloc(sizeof(Block) + size)) : nullptr;
  if (block == nullptr) throw std::bad_alloc();
  block->next = blocks_;
  blocks_ = block;
  reserved_ += sizeof(Block) + size;
  return reinterpret_cast<char *>(block + 1);
}

void *wb::Arena::allocate_block(size_t size) {
  if (size >= kOwnBlockMin) return allocate_own(size);
  const size_t room = std::max(block_size_, size + sizeof(Block)) - sizeof(Block);
  char *const memory = allocate_own(room);
  block_size_ = std::min(block_size_ * 2, kBlockSizeMax);
  next_ = memory + size;
  end_ = memory + room;
  return memory;
}

char *wb::Arena::allocate_bytes(size_t size) {
  return size >= kOwnBlockMin ? allocate_own(size) : static_cast<char *>(allocate(size));
}

char *wb::Arena::grow(char *bytes, size_t used, size_t &capacity, size_t wanted) {
  const size_t generous = round_up(std::max(wanted, capacity + capacity / 2));
  if (capacity >= kOwnBlockMin) {
    Block **link = &blocks_;
    while (reinterpret_cast<char *>(*link + 1) != bytes) link = &(*link)->next;
    auto *const block = static_cast<Block *>(std::realloc(*link, sizeof(Block) + generous));
    if (block == nullptr) throw std::bad_alloc();
    *link = block;
    reserved_ += generous - capacity;
    capacity = generous;
    return reinterpret_cast<char *>(block + 1);
  }
  const bool is_last = bytes + capacity == next_;
  if (is_last && wanted < kOwnBlockMin - sizeof(void *) && wanted - capacity <= static_cast<size_t>(end_ - next_)) {
    capacity = std::min(round_up(wanted), static_cast<size_t>(end_ - bytes));
    next_ = bytes + capacity;
    return bytes;
  }
  const bool to_own = generous >= kOwnBlockMin;
  char *const moved = to_own ? allocate_own(generous) : static_cast<char *>(allocate_block(generous));
  std::memcpy(moved, bytes, used);
  if (is_last && to_own) next_ = bytes;
  capacity = generous;
  return moved;
}

char *wb::Arena::copy(const char *bytes, size_t length) {
  char *const memory = allocate_bytes(length + 1);
  std::memcpy(memory, bytes, length);
  memory[length] = 0;
  return memory;
}

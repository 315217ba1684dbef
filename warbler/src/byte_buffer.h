// Bytes that are written one after the other, in memory that a C caller can be handed.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

namespace wb {

class ByteBuffer {
 public:
  ByteBuffer() = default;
  // Begins with room that belongs to the caller and outlives the buffer; what does not fit moves to memory of its own.
  ByteBuffer(char *room, size_t size) : data_(room), capacity_(size), room_(room) {}
  ~ByteBuffer() {
    if (data_ != room_) std::free(data_);
  }
  ByteBuffer(const ByteBuffer &) = delete;
  ByteBuffer &operator=(const ByteBuffer &) = delete;

  const char *data() const { return data_; }
  size_t size() const { return size_; }
  std::string_view view() const { return {data_, size_}; }

  // Room for that many more bytes. Throws std::bad_alloc.
  void reserve(size_t more) {
    if (more > capacity_ - size_) enlarge(more);
  }

  void append(const char *bytes, size_t length) { end_at(put(room(length), bytes, length)); }
  void append(std::string_view bytes) { append(bytes.data(), bytes.size()); }
  void append(char byte) {
    reserve(1);
    data_[size_++] = byte;
  }

  // Room for so many more bytes, for who writes them himself, from where this points to, and then tells where they end.
  char *room(size_t more) {
    reserve(more);
    return data_ + size_;
  }
  void end_at(const char *end) { size_ = static_cast<size_t>(end - data_); }

  // Copies to where there is room; returns the place behind.
  static char *put(char *to, const char *bytes, size_t length) {
    // Most pieces are names of a few letters, for which a call costs more than the copy.
    if (length > 16) {
      std::memcpy(to, bytes, length);
    } else if (length >= 8) {
      copy_ends<8>(to, bytes, length);
    } else if (length >= 4) {
      copy_ends<4>(to, bytes, length);
    } else {
      for (size_t i = 0; i < length; ++i) to[i] = bytes[i];
    }
    return to + length;
  }
  static char *put(char *to, std::string_view bytes) { return put(to, bytes.data(), bytes.size()); }

  // Forgets what was written behind that size; the room stays.
  void truncate(size_t size) { size_ = std::min(size_, size); }

  // The bytes with a zero behind them, to be freed with free(); the buffer is empty afterwards. Not for one with the caller's
  // room.
  char *release() {
    append('\0');
    char *const bytes = data_;
    data_ = nullptr;
    size_ = capacity_ = 0;
    return bytes;
  }

 private:
  // Between once and twice so many bytes, as two pieces that may overlap.
  template <size_t kPiece>
  static void copy_ends(char *to, const char *bytes, size_t length) {
    char last[kPiece];
    std::memcpy(last, bytes + length - kPiece, kPiece);
    std::memcpy(to, bytes, kPiece);
    std::memcpy(to + length - kPiece, last, kPiece);
  }

  void enlarge(size_t more) {
    if (more > SIZE_MAX / 4 || size_ > SIZE_MAX / 4) throw std::bad_alloc();
    const size_t capacity = std::max({size_ + more, capacity_ * 2, kSmallest});
    const bool is_room = data_ != nullptr && data_ == room_;
    auto *const memory = static_cast<char *>(is_room ? std::malloc(capacity) : std::realloc(data_, capacity));
    if (memory == nullptr) throw std::bad_alloc();
    if (is_room) std::memcpy(memory, data_, size_);
    data_ = memory;
    capacity_ = capacity;
  }

  static constexpr size_t kSmallest = 1024;
  char *data_ = nullptr;
  size_t size_ = 0;
  size_t capacity_ = 0;
  char *room_ = nullptr;
};

}  // namespace wb

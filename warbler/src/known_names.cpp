#include "known_names.h"

#include <array>
#include <atomic>
#include <mutex>

namespace wb {

namespace {

constexpr size_t kTextsMax = 1024;  // names and the forms in which they are written
constexpr size_t kSlots = 2 * kTextsMax;
constexpr size_t kTextBytesMax = 256;  // of one; longer ones are hardly vocabulary
constexpr size_t kAddresses = 256;

// A name in one of the forms in which it is written.
struct Known {
  const char *text;
  uint32_t length;
  uint32_t hash;
  const Name *name;
};

// Looked up without a lock: a record is complete before it is seen, and never changes.
class KnownNames {
 public:
  // Most names are literals, so that what an address held the last time is compared first.
  const Name *find(const char *text) {
    std::atomic<const Known *> &last = by_address_[slot_of(text)];
    const Known *known = last.load(std::memory_order_acquire);
    if (known != nullptr && std::strcmp(known->text, text) == 0) return known->name;
    known = find_text(text);
    if (known == nullptr) return nullptr;
    last.store(known, std::memory_order_release);
    return known->name;
  }

 private:
  static size_t slot_of(const char *text) {
    const auto address = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(text));
    return (address * 0x9E3779B97F4A7C15u) >> 56;
  }

  const Known *find_text(std::string_view text) {
    const uint32_t hash = hash_bytes(text.data(), text.size());
    for (size_t at = hash % kSlots;; at = (at + 1) % kSlots) {
      const Known *const known = slots_[at].load(std::memory_order_acquire);
      if (known == nullptr) return text.size() <= kTextBytesMax ? add(text, hash) : nullptr;
      if (is_text(*known, text, hash)) return known;
    }
  }

  static bool is_text(const Known &known, std::string_view text, uint32_t hash) {
    return known.hash == hash && known.length == text.size() && std::memcmp(known.text, text.data(), text.size()) == 0;
  }

  // Waits for nobody, so that a child of a fork finds no lock that its parent's threads hold for ever.
  const Known *add(std::string_view text, uint32_t hash) {
    const std::unique_lock lock(mutex_, std::try_to_lock);
    if (!lock || count_ == kTextsMax) return nullptr;
    size_t at = hash % kSlots;
    for (; const Known *const known = slots_[at].load(std::memory_order_relaxed); at = (at + 1) % kSlots) {
      if (is_text(*known, text, hash)) return known;
    }
    NameParts parts;
    const Name *const name = split_name(text, parts) ? names_.checked_name(arena_, parts) : nullptr;
    if (name == nullptr) return nullptr;
    const char *const copy = arena_.copy(text.data(), text.size());
    const auto *const made = new (arena_.allocate(sizeof(Known))) Known{copy, static_cast<uint32_t>(text.size()), hash, name};
    slots_[at].store(made, std::memory_order_release);
    ++count_;
    return made;
  }

  std::array<std::atomic<const Known *>, kSlots> slots_{};
  static_assert(kAddresses == 1u << (64 - 56));
  std::array<std::atomic<const Known *>, kAddresses> by_address_{};
  std::mutex mutex_;
  Arena arena_{nullptr, nullptr};
  NameStore names_;
  size_t count_ = 0;
};

}  // namespace

const Name *known_name(const char *text) {
  // Never destroyed: other threads may build to the very end of the process.
  static KnownNames &names = *new KnownNames;
  return names.find(text);
}

}  // namespace wb

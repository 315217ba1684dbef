// Interned names: within one store equal names are one record, so that the fast paths compare pointers.
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>

#include "arena.h"

namespace wb {

uint64_t random_word();

inline uint64_t load_bytes(const char *at, size_t count) {
  uint64_t word = 0;
  std::memcpy(&word, at, count);
  return word;
}

inline uint64_t mix(uint64_t a, uint64_t b) {
  __extension__ using Wide = unsigned __int128;
  const Wide product = static_cast<Wide>(a) * b;
  return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
}

// Hash of bytes that a peer may have chosen: the seed is the process's own secret. Hashes of all stores can be compared.
inline uint32_t hash_bytes(const char *bytes, size_t length) {
  static const uint64_t seed = random_word();
  uint64_t hash = seed ^ (length * 0x9FB21C651E98DF25u);
  while (length > 8) {
    hash = mix(hash ^ load_bytes(bytes, 8), 0xD6E8FEB86659FD93u);
    bytes += 8;
    length -= 8;
  }
  uint64_t last = 0;
  if (length >= 4) {
    last = load_bytes(bytes, 4) | (load_bytes(bytes + length - 4, 4) << 32);
  } else if (length > 0) {
    last = load_bytes(bytes, 1) | (load_bytes(bytes + length / 2, 1) << 8) | (load_bytes(bytes + length - 1, 1) << 16);
  }
  hash = mix(hash ^ last, 0xA0761D6478BD642Fu);
  return static_cast<uint32_t>(hash ^ (hash >> 32));
}

// A namespace URI or a prefix.
struct Symbol {
  Symbol *next;
  Symbol *follower;  // the parser's: the URI that was declared after this one
  const char *text;
  uint32_t length;
  uint32_t hash;

  std::string_view view() const { return {text, length}; }
};

inline bool same(const Symbol *a, const Symbol *b) {
  return a == b || (a->hash == b->hash && a->length == b->length && std::memcmp(a->text, b->text, a->length) == 0);
}

// An expanded name. All texts end with a zero.
struct Name {
  Name *next;
  const Symbol *uri;
  const char *ename;  // "{uri}local"
  const char *local;  // the end of ename
  uint32_t ename_length;
  uint32_t local_length;
  uint32_t hash;
  uint64_t mark;  // the parser's: the last element on which it saw an attribute of this name
};

inline bool same(const Name *a, const Name *b) {
  return a == b ||
         (a->hash == b->hash && a->ename_length == b->ename_length && std::memcmp(a->ename, b->ename, a->ename_length) == 0);
}

// A name in the two halves in which it is compared.
struct NameParts {
  std::string_view uri;
  std::string_view local;
};

// Splits "{uri}local", "uri|local" or "local". False when a brace is not closed. The local part is not checked.
bool split_name(std::string_view name, NameParts &out);

inline bool equals(const Name &name, const NameParts &parts) {
  return name.local_length == parts.local.size() && name.uri->length == parts.uri.size() &&
         std::memcmp(name.local, parts.local.data(), parts.local.size()) == 0 &&
         std::memcmp(name.uri->text, parts.uri.data(), parts.uri.size()) == 0;
}

// A chained hash table of records that carry their link and hash themselves. Its memory, like theirs, is an arena's.
template <typename Record>
class Index {
 public:
  Record *first(uint32_t hash) const { return size_ != 0 ? buckets_[hash & (size_ - 1)] : nullptr; }

  void insert(Arena &arena, Record *record) {
    if (count_ >= size_) enlarge(arena);
    Record *&head = buckets_[record->hash & (size_ - 1)];
    record->next = head;
    head = record;
    ++count_;
  }

  uint32_t count() const { return count_; }

 private:
  void enlarge(Arena &arena) {
    const uint32_t size = size_ != 0 ? size_ * 2 : 8;
    auto **const buckets = static_cast<Record **>(arena.allocate(size * sizeof(Record *)));
    std::memset(buckets, 0, size * sizeof(Record *));
    for (uint32_t i = 0; i < size_; ++i) {
      for (Record *record = buckets_[i]; record != nullptr;) {
        Record *const next = record->next;
        record->next = buckets[record->hash & (size - 1)];
        buckets[record->hash & (size - 1)] = record;
        record = next;
      }
    }
    buckets_ = buckets;
    size_ = size;
  }

  Record **buckets_ = nullptr;
  uint32_t size_ = 0;
  uint32_t count_ = 0;
};

class NameStore {
 public:
  // The record of the text, made if it is new. Throws std::bad_alloc.
  Symbol *symbol(Arena &arena, std::string_view text);
  Symbol *symbol(Arena &arena, std::string_view text, uint32_t hash);

  // The record of a name whose URI is from this store and whose local part is known to be a name. Throws std::bad_alloc.
  Name *name(Arena &arena, const Symbol *uri, std::string_view local, uint32_t local_hash);

  // The record of a name from outside, or null when it is no XML name. Throws std::bad_alloc.
  const Name *checked_name(Arena &arena, const NameParts &parts);

  // The record of a name of another store.
  const Name *imported(Arena &arena, const Name &name);

  uint32_t count() const { return names_.count() + symbols_.count(); }

 private:
  template <typename SameUri>
  Name *find(uint32_t hash, std::string_view local, SameUri same_uri) const;

  Index<Symbol> symbols_;
  Index<Name> names_;
};

}  // namespace wb

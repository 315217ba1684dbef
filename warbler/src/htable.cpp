#include <warbler/htable.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "guard.h"

namespace {

struct Entry {
  Entry *next;
  unsigned hash;
  const void *key;
  void *value;
  wb_htable_cleaner cleaner;
};

constexpr unsigned kDefaultBuckets = 7;

unsigned fold_case(unsigned char c) { return c >= 'A' && c <= 'Z' ? c + 32u : c; }

// FNV-1a: short keys, no secret to keep. Tables whose keys a peer chooses do not exist.
unsigned hash_step(unsigned hash, unsigned byte) { return (hash ^ byte) * 16777619u; }
constexpr unsigned kHashSeed = 2166136261u;

}  // namespace

struct wb_htable {
  wb_htable_hashfunc hash;
  wb_htable_cmpfunc compare;
  std::vector<Entry *> buckets;
  unsigned count = 0;
  size_t buckets_min;

  // The link that holds the entry of the key, or the null link where it would be.
  Entry **find(const void *key, unsigned hashed) {
    Entry **link = &buckets[hashed % buckets.size()];
    while (*link != nullptr && ((*link)->hash != hashed || compare((*link)->key, key) != 0)) link = &(*link)->next;
    return link;
  }

  void rehash(size_t size) {
    std::vector<Entry *> fresh(size, nullptr);
    for (Entry *entry : buckets) {
      while (entry != nullptr) {
        Entry *next = entry->next;
        Entry *&head = fresh[entry->hash % size];
        entry->next = head;
        head = entry;
        entry = next;
      }
    }
    buckets.swap(fresh);
  }

  void grow_if_crowded() {
    if (count > buckets.size() * 2) rehash(buckets.size() * 2 + 1);
  }

  void shrink_if_sparse() {
    if (buckets.size() / 2 >= buckets_min && count < buckets.size() / 4) rehash(std::max(buckets.size() / 2, buckets_min));
  }
};

bool wb_htable_create(unsigned buckets, wb_htable_hashfunc hash, wb_htable_cmpfunc compare, wb_htable **out, wb_err *err) {
  return wb::guarded(err, __func__, [&] {
    if (out == nullptr) return WB_FAIL(err, WB_ERR_INVALID_ARG, "no place for the table");
    *out = nullptr;
    if (hash == nullptr || compare == nullptr) return WB_FAIL(err, WB_ERR_INVALID_ARG, "no hash or comparison function");
    auto table = std::make_unique<wb_htable>();
    table->hash = hash;
    table->compare = compare;
    table->buckets_min = buckets != 0 ? buckets : kDefaultBuckets;
    table->buckets.resize(table->buckets_min, nullptr);
    *out = table.release();
    return true;
  });
}

bool wb_htable_put(wb_htable *table, const void *key, void *value, wb_htable_cleaner cleaner, wb_err *err) {
  return wb::guarded(err, __func__, [&] {
    if (table == nullptr) return WB_FAIL(err, WB_ERR_INVALID_ARG, "no table");
    const unsigned hashed = table->hash(key);
    if (Entry *present = *table->find(key, hashed); present != nullptr) {
      const Entry old = *present;
      present->key = key;
      present->value = value;
      present->cleaner = cleaner;
      if (old.cleaner != nullptr) old.cleaner(true, true, const_cast<void *>(old.key), old.value);
      return true;
    }
    auto entry = std::make_unique<Entry>(Entry{nullptr, hashed, key, value, cleaner});
    table->grow_if_crowded();
    *table->find(key, hashed) = entry.release();
    ++table->count;
    return true;
  });
}

void *wb_htable_get(wb_htable *table, const void *key) {
  if (table == nullptr) return nullptr;
  const Entry *entry = *table->find(key, table->hash(key));
  return entry != nullptr ? entry->value : nullptr;
}

void wb_htable_remove(wb_htable *table, const void *key) {
  if (table == nullptr) return;
  Entry **link = table->find(key, table->hash(key));
  const std::unique_ptr<Entry> entry(*link);
  if (entry == nullptr) return;
  *link = entry->next;
  --table->count;
  // Without memory for a smaller table the old one serves on.
  wb::guarded(nullptr, __func__, [&] {
    table->shrink_if_sparse();
    return true;
  });
  if (entry->cleaner != nullptr) entry->cleaner(false, true, const_cast<void *>(entry->key), entry->value);
}

unsigned wb_htable_get_count(wb_htable *table) { return table != nullptr ? table->count : 0; }

void wb_htable_destroy(wb_htable *table) {
  if (table == nullptr) return;
  for (Entry *entry : table->buckets) {
    while (entry != nullptr) {
      const std::unique_ptr<Entry> owned(entry);
      entry = owned->next;
      if (owned->cleaner != nullptr) owned->cleaner(false, true, const_cast<void *>(owned->key), owned->value);
    }
  }
  delete table;
}

bool wb_htable_walk(wb_htable *table, wb_htable_walkfunc walk, void *arg, wb_err *err) {
  if (table == nullptr || walk == nullptr) return WB_FAIL(err, WB_ERR_INVALID_ARG, "no table or function");
  for (const Entry *entry : table->buckets) {
    for (; entry != nullptr; entry = entry->next) {
      if (!walk(table, entry->key, entry->value, arg)) return WB_FAIL(err, WB_ERR_NONE, nullptr);
    }
  }
  return true;
}

unsigned wb_str_hashcode(const void *key) {
  unsigned hash = kHashSeed;
  for (auto *c = static_cast<const unsigned char *>(key); *c != 0; ++c) hash = hash_step(hash, *c);
  return hash;
}

int wb_str_compare(const void *a, const void *b) {
  return std::strcmp(static_cast<const char *>(a), static_cast<const char *>(b));
}

unsigned wb_strcase_hashcode(const void *key) {
  unsigned hash = kHashSeed;
  for (auto *c = static_cast<const unsigned char *>(key); *c != 0; ++c) hash = hash_step(hash, fold_case(*c));
  return hash;
}

int wb_strcase_compare(const void *a, const void *b) {
  auto *left = static_cast<const unsigned char *>(a);
  auto *right = static_cast<const unsigned char *>(b);
  while (*left != 0 && fold_case(*left) == fold_case(*right)) ++left, ++right;
  return static_cast<int>(fold_case(*left)) - static_cast<int>(fold_case(*right));
}

unsigned wb_int_hashcode(const void *key) {
  const auto value = reinterpret_cast<uintptr_t>(key);
  return static_cast<unsigned>(value ^ (value >> 32));
}

int wb_int_compare(const void *a, const void *b) { return a == b ? 0 : (a < b ? -1 : 1); }

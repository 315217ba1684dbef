// The names that one parser has met, as they are written on the wire and as they expand, with the namespace bindings in force.
#pragma once

#include <algorithm>
#include <atomic>
#include <new>

#include "names.h"

namespace wb {

// A prefix and what it is bound to now; null: nothing.
struct Prefix {
  Prefix *next;
  uint32_t hash;
  const Symbol *symbol;
  const Symbol *bound;
};

// A name as it is written. What it last expanded to is kept: it holds while the prefix is bound as it was then.
struct QName {
  QName *next;
  QName *follower;        // the name that was met after this one the last time
  QName *other_follower;  // the one that was the follower before
  const char *text;
  Prefix *prefix;    // null: the name has none
  Prefix *declares;  // what an attribute of this name declares; null: nothing
  const char *local;
  uint32_t hash;
  uint32_t length;
  uint32_t local_length;
  uint32_t local_hash;
  const Symbol *element_uri;
  Name *element_name;
  Name *attribute_name;
};

// Contexts that the parser makes hold a reference, since their nodes point at the names. Only the parser changes the table.
//
// They also live in blocks that go round between the parser and whoever releases them: what one thread allocates and another
// frees is what an allocator with caches per thread is worst at.
class NameTable {
 public:
  // What the names take is bounded: a long URI becomes part of each name that it stands before.
  static NameTable *create(size_t bytes_max);
  void retain() { references_.fetch_add(1, std::memory_order_relaxed); }
  void release();

  // A block for a context, which will hold a stanza of usual size. The parser's; throws std::bad_alloc.
  void *take_block();
  // Any thread.
  void give_back_block(void *block) noexcept;

  static constexpr size_t kBlockBytes = 3056;

  // Null when the text is no qualified name; XML has already been checked. Throws std::bad_alloc, as all below.
  // Streams repeat themselves, so the names that came after the last one before are tried first.
  QName *qname(const char *text) {
    QName *const guess = last_qname_->follower;
    if (guess != nullptr && std::strcmp(guess->text, text) == 0) return last_qname_ = guess;
    QName *const other = last_qname_->other_follower;
    last_qname_->other_follower = guess;
    if (other == nullptr || std::strcmp(other->text, text) != 0) return find_qname(text);
    last_qname_->follower = other;
    return last_qname_ = other;
  }

  // The expanded names; null when the prefix is bound to nothing, or when they would take too much.
  Name *element_name(QName &name) {
    const Symbol *const uri = name.prefix != nullptr ? name.prefix->bound : default_.bound;
    if (uri == name.element_uri && uri != nullptr) return name.element_name;
    return expand_element(name, uri);
  }
  Name *attribute_name(QName &name) {
    const Symbol *const uri = name.prefix != nullptr ? name.prefix->bound : no_uri_;
    if (name.attribute_name != nullptr && name.attribute_name->uri == uri) return name.attribute_name;
    return expand_attribute(name, uri);
  }

  // The record of a URI that is being declared.
  const Symbol *uri(const char *text) {
    Symbol *const guess = last_uri_->follower;
    if (guess != nullptr && std::strcmp(guess->text, text) == 0) return last_uri_ = guess;
    return find_uri(text);
  }

  // Whether Namespaces in XML allow the declaration.
  bool may_bind(const Prefix &prefix, const Symbol &uri) const {
    if (uri.length == 0) return &prefix == &default_;
    return (&prefix == xml_) == (&uri == xml_uri_) && &uri != xmlns_uri_;
  }

  // A peer that never repeats a name has made it so large that it should be replaced.
  bool is_full() const {
    return count() - known_count_ > kNamesMax || arena_.reserved() - known_bytes_ > std::max(kBytesMax, known_bytes_);
  }
  // What is there now would be in the next table as well, and makes this one no fuller.
  void take_as_known() {
    known_count_ = count();
    known_bytes_ = arena_.reserved();
  }

  // A name was refused, since all of them would take more than they may.
  bool is_exhausted() const { return exhausted_; }

  // What the names take beyond the first block, in bytes.
  size_t reserved() const { return arena_.reserved(); }

  static constexpr size_t kNamesMax = 4096;
  static constexpr size_t kBytesMax = 256u << 10;

 private:
  struct FreeBlock {
    FreeBlock *next;
  };

  // So many blocks are kept, give or take a few.
  static constexpr unsigned kBlocksKept = 64;

  NameTable(char *begin, char *end, size_t bytes_max);
  ~NameTable();
  static void free_blocks(FreeBlock *first) noexcept;
  uint32_t count() const { return store_.count() + qnames_.count() + prefixes_.count(); }
  bool has_room(const Symbol &uri, const QName &name);
  QName *find_qname(const char *text);
  const Symbol *find_uri(const char *text);
  Prefix *prefix(std::string_view text);
  Name *expand_element(QName &name, const Symbol *uri);
  Name *expand_attribute(QName &name, const Symbol *uri);
  QName *make_qname(std::string_view text, uint32_t hash);

  std::atomic<unsigned> references_{1};
  std::atomic<unsigned> returned_count_{0};
  std::atomic<FreeBlock *> returned_{nullptr};  // only ever taken as a whole
  FreeBlock *free_ = nullptr;                   // the parser's
  Arena arena_;
  NameStore store_;
  Index<QName> qnames_;
  Index<Prefix> prefixes_;
  Symbol *no_uri_;
  Symbol *xml_uri_;
  Symbol *xmlns_uri_;
  Prefix default_;
  Prefix *xml_;
  QName nothing_{};
  QName *last_qname_ = &nothing_;
  Symbol *last_uri_;
  const size_t bytes_max_;
  uint32_t known_count_ = 0;
  size_t known_bytes_ = 0;
  bool exhausted_ = false;
};

}  // namespace wb

#include "name_table.h"

#include <cstdlib>
#include <utility>

#include "xml_text.h"

namespace {

constexpr size_t kFirstBlock = 4000;

}  // namespace

wb::NameTable::NameTable(char *begin, char *end, size_t bytes_max)
    : arena_(begin, end),
      no_uri_(store_.symbol(arena_, "")),
      xml_uri_(store_.symbol(arena_, kXmlUri)),
      xmlns_uri_(store_.symbol(arena_, kXmlnsUri)),
      default_{nullptr, 0, no_uri_, no_uri_},
      xml_(prefix("xml")),
      last_uri_(no_uri_),
      bytes_max_(bytes_max) {
  xml_->bound = xml_uri_;
}

wb::NameTable *wb::NameTable::create(size_t bytes_max) {
  auto *const memory = static_cast<char *>(std::malloc(kFirstBlock));
  if (memory == nullptr) throw std::bad_alloc();
  try {
    return new (memory) NameTable(memory + Arena::round_up(sizeof(NameTable)), memory + kFirstBlock, bytes_max);
  } catch (...) {
    std::free(memory);
    throw;
  }
}

wb::NameTable::~NameTable() {
  free_blocks(free_);
  free_blocks(returned_.load(std::memory_order_relaxed));
}

void wb::NameTable::free_blocks(FreeBlock *first) noexcept {
  while (first != nullptr) std::free(std::exchange(first, first->next));
}

void *wb::NameTable::take_block() {
  if (free_ == nullptr && returned_.load(std::memory_order_relaxed) != nullptr) {
    returned_count_.store(0, std::memory_order_relaxed);
    free_ = returned_.exchange(nullptr, std::memory_order_acquire);
  }
  if (free_ != nullptr) return std::exchange(free_, free_->next);
  void *const block = std::malloc(kBlockBytes);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

void wb::NameTable::give_back_block(void *block) noexcept {
  if (returned_count_.fetch_add(1, std::memory_order_relaxed) >= kBlocksKept) return std::free(block);
  auto *const freed = new (block) FreeBlock{returned_.load(std::memory_order_relaxed)};
  while (!returned_.compare_exchange_weak(freed->next, freed, std::memory_order_release, std::memory_order_relaxed)) {
  }
}

void wb::NameTable::release() {
  if (references_.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  this->~NameTable();
  std::free(this);
}

wb::QName *wb::NameTable::find_qname(const char *text) {
  const size_t length = std::strlen(text);
  const uint32_t hash = hash_bytes(text, length);
  QName *name = qnames_.first(hash);
  while (name != nullptr && !(name->hash == hash && name->length == length && std::memcmp(name->text, text, length) == 0)) {
    name = name->next;
  }
  if (name == nullptr) name = make_qname({text, length}, hash);
  if (name == nullptr) return nullptr;
  last_qname_->follower = name;
  return last_qname_ = name;
}

const wb::Symbol *wb::NameTable::find_uri(const char *text) {
  Symbol *const found = store_.symbol(arena_, text);
  last_uri_->follower = found;
  return last_uri_ = found;
}

wb::QName *wb::NameTable::make_qname(std::string_view text, uint32_t hash) {
  const size_t colon = text.find(':');
  const bool has_prefix = colon != std::string_view::npos;
  const size_t local_at = has_prefix ? colon + 1 : 0;
  const std::string_view local = text.substr(local_at);
  if (colon == 0 || local.find(':') != std::string_view::npos || text.size() > UINT32_MAX / 2) return nullptr;
  if (has_prefix && !begins_name(local)) return nullptr;
  const char *const copy = arena_.copy(text.data(), text.size());
  auto *const made = new (arena_.allocate(sizeof(QName))) QName{};
  made->text = copy;
  made->prefix = has_prefix ? prefix(text.substr(0, colon)) : nullptr;
  if (text == "xmlns") made->declares = &default_;
  // The prefix xmlns itself must not be declared. It stands for nothing, so that the attribute is then refused like others.
  if (text.starts_with("xmlns:") && local != "xmlns") made->declares = prefix(local);
  made->local = copy + local_at;
  made->hash = hash;
  made->length = static_cast<uint32_t>(text.size());
  made->local_length = static_cast<uint32_t>(local.size());
  made->local_hash = hash_bytes(local.data(), local.size());
  qnames_.insert(arena_, made);
  return made;
}

wb::Prefix *wb::NameTable::prefix(std::string_view text) {
  if (text.empty()) return &default_;
  const uint32_t hash = hash_bytes(text.data(), text.size());
  for (Prefix *prefix = prefixes_.first(hash); prefix != nullptr; prefix = prefix->next) {
    if (prefix->hash == hash && prefix->symbol->view() == text) return prefix;
  }
  const Symbol *const symbol = store_.symbol(arena_, text, hash);
  auto *const made = new (arena_.allocate(sizeof(Prefix))) Prefix{nullptr, hash, symbol, nullptr};
  prefixes_.insert(arena_, made);
  return made;
}

bool wb::NameTable::has_room(const Symbol &uri, const QName &name) {
  const size_t wanted = size_t{uri.length} + name.local_length;
  exhausted_ = arena_.reserved() > bytes_max_ || wanted > bytes_max_ - arena_.reserved();
  return !exhausted_;
}

wb::Name *wb::NameTable::expand_element(QName &name, const Symbol *uri) {
  if (uri == nullptr || !has_room(*uri, name)) return nullptr;
  name.element_name = store_.name(arena_, uri, {name.local, name.local_length}, name.local_hash);
  name.element_uri = uri;
  return name.element_name;
}

wb::Name *wb::NameTable::expand_attribute(QName &name, const Symbol *uri) {
  if (uri == nullptr || !has_room(*uri, name)) return nullptr;
  name.attribute_name = store_.name(arena_, uri, {name.local, name.local_length}, name.local_hash);
  return name.attribute_name;
}

#include "name_table.h"

#include <cstdlib>

#include "xml_text.h"

namespace {

constexpr size_t kFirstBlock = 4000;

}  // namespace

wb::NameTable::NameTable(char *begin, char *end)
    : arena_(begin, end), no_uri_(store_.symbol(arena_, "")), default_{nullptr, 0, no_uri_, no_uri_} {
  prefix("xml")->bound = uri(kXmlUri);
}

wb::NameTable *wb::NameTable::create() {
  auto *const memory = static_cast<char *>(std::malloc(kFirstBlock));
  if (memory == nullptr) throw std::bad_alloc();
  try {
    return new (memory) NameTable(memory + Arena::round_up(sizeof(NameTable)), memory + kFirstBlock);
  } catch (...) {
    std::free(memory);
    throw;
  }
}

void wb::NameTable::release() {
  if (references_.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  this->~NameTable();
  std::free(this);
}

wb::QName *wb::NameTable::qname(const char *text) {
  const size_t length = std::strlen(text);
  const uint32_t hash = hash_bytes(text, length);
  for (QName *name = qnames_.first(hash); name != nullptr; name = name->next) {
    if (name->hash == hash && name->length == length && std::memcmp(name->text, text, length) == 0) return name;
  }
  return make_qname({text, length}, hash);
}

wb::QName *wb::NameTable::make_qname(std::string_view text, uint32_t hash) {
  const size_t colon = text.find(':');
  const bool has_prefix = colon != std::string_view::npos;
  const size_t local_at = has_prefix ? colon + 1 : 0;
  const std::string_view local = text.substr(local_at);
  if (colon == 0 || local.find(':') != std::string_view::npos || text.size() > UINT32_MAX / 2) return nullptr;
  if (has_prefix && !begins_name(local)) return nullptr;
  Prefix *const bound_prefix = has_prefix ? prefix(text.substr(0, colon)) : nullptr;
  const char *const copy = arena_.copy(text.data(), text.size());
  auto *const made = new (arena_.allocate(sizeof(QName))) QName{nullptr,
                                                                copy,
                                                                bound_prefix,
                                                                copy + local_at,
                                                                hash,
                                                                static_cast<uint32_t>(text.size()),
                                                                static_cast<uint32_t>(local.size()),
                                                                hash_bytes(local.data(), local.size()),
                                                                nullptr,
                                                                nullptr,
                                                                nullptr};
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

wb::Name *wb::NameTable::expand_element(QName &name, const Symbol *uri) {
  if (uri == nullptr) return nullptr;
  name.element_name = store_.name(arena_, uri, {name.local, name.local_length}, name.local_hash);
  name.element_uri = uri;
  return name.element_name;
}

wb::Name *wb::NameTable::expand_attribute(QName &name, const Symbol *uri) {
  if (uri == nullptr) return nullptr;
  name.attribute_name = store_.name(arena_, uri, {name.local, name.local_length}, name.local_hash);
  return name.attribute_name;
}

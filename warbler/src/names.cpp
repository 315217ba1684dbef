#include "names.h"

#include <random>

#include "xml_text.h"

namespace {

uint32_t combine(uint32_t uri_hash, uint32_t local_hash) { return (uri_hash ^ (uri_hash >> 15)) * 0x9E3779B1u + local_hash; }

wb::Symbol *make_symbol(wb::Arena &arena, std::string_view text, uint32_t hash) {
  auto *const memory = static_cast<char *>(arena.allocate(sizeof(wb::Symbol) + text.size() + 1));
  char *const copy = memory + sizeof(wb::Symbol);
  std::memcpy(copy, text.data(), text.size());
  copy[text.size()] = 0;
  return new (memory) wb::Symbol{nullptr, nullptr, copy, static_cast<uint32_t>(text.size()), hash};
}

wb::Name *make_name(wb::Arena &arena, const wb::Symbol *uri, std::string_view local, uint32_t hash) {
  const size_t length = uri->length + local.size() + 2;
  auto *const memory = static_cast<char *>(arena.allocate(sizeof(wb::Name) + length + 1));
  char *const ename = memory + sizeof(wb::Name);
  char *const tail = ename + uri->length + 2;
  ename[0] = '{';
  std::memcpy(ename + 1, uri->text, uri->length);
  tail[-1] = '}';
  std::memcpy(tail, local.data(), local.size());
  ename[length] = 0;
  return new (memory)
      wb::Name{nullptr, uri, ename, tail, static_cast<uint32_t>(length), static_cast<uint32_t>(local.size()), hash, 0};
}

}  // namespace

uint64_t wb::random_word() {
  std::random_device source;
  return (static_cast<uint64_t>(source()) << 32) | source();
}

bool wb::split_name(std::string_view text, NameParts &out) {
  const bool braced = !text.empty() && text.front() == '{';
  const size_t cut = text.rfind(braced ? '}' : '|');
  if (cut == std::string_view::npos) {
    out = NameParts{text.substr(0, 0), text};
    return !braced;
  }
  out.uri = braced ? text.substr(1, cut - 1) : text.substr(0, cut);
  out.local = text.substr(cut + 1);
  return true;
}

wb::Symbol *wb::NameStore::symbol(Arena &arena, std::string_view text) {
  return symbol(arena, text, hash_bytes(text.data(), text.size()));
}

wb::Symbol *wb::NameStore::symbol(Arena &arena, std::string_view text, uint32_t hash) {
  for (Symbol *symbol = symbols_.first(hash); symbol != nullptr; symbol = symbol->next) {
    if (symbol->hash == hash && symbol->view() == text) return symbol;
  }
  Symbol *const made = make_symbol(arena, text, hash);
  symbols_.insert(arena, made);
  return made;
}

template <typename SameUri>
wb::Name *wb::NameStore::find(uint32_t hash, std::string_view local, SameUri same_uri) const {
  for (Name *name = names_.first(hash); name != nullptr; name = name->next) {
    if (name->hash == hash && same_uri(name->uri) && std::string_view(name->local, name->local_length) == local) return name;
  }
  return nullptr;
}

wb::Name *wb::NameStore::name(Arena &arena, const Symbol *uri, std::string_view local, uint32_t local_hash) {
  const uint32_t hash = combine(uri->hash, local_hash);
  if (Name *const present = find(hash, local, [&](const Symbol *other) { return other == uri; })) return present;
  Name *const made = make_name(arena, uri, local, hash);
  names_.insert(arena, made);
  return made;
}

const wb::Name *wb::NameStore::checked_name(Arena &arena, const NameParts &parts) {
  const uint32_t uri_hash = hash_bytes(parts.uri.data(), parts.uri.size());
  const uint32_t local_hash = hash_bytes(parts.local.data(), parts.local.size());
  const uint32_t hash = combine(uri_hash, local_hash);
  const auto same_uri = [&](const Symbol *other) { return other->hash == uri_hash && other->view() == parts.uri; };
  if (const Name *const present = find(hash, parts.local, same_uri)) return present;
  if (parts.uri == kXmlnsUri || parts.uri.size() + parts.local.size() >= UINT32_MAX / 2) return nullptr;
  if (!is_ncname(parts.local) || !is_xml_text(parts.uri)) return nullptr;
  Name *const made = make_name(arena, symbol(arena, parts.uri, uri_hash), parts.local, hash);
  names_.insert(arena, made);
  return made;
}

const wb::Name *wb::NameStore::imported(Arena &arena, const Name &name) {
  const std::string_view local(name.local, name.local_length);
  if (const Name *const present = find(name.hash, local, [&](const Symbol *other) { return same(other, name.uri); }))
    return present;
  Name *const made = make_name(arena, symbol(arena, name.uri->view(), name.uri->hash), local, name.hash);
  names_.insert(arena, made);
  return made;
}

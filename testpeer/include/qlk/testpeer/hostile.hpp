// XML that no server should send and every client must survive.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace testpeer {

// Bytes to be sent in the place of a stanza.
struct HostileBytes {
  std::string name = {};  // a word, "EntityBomb", for the names of tests
  bool is_big = false;    // more than 100 KiB: not to be sent byte by byte
  // Makes them anew at each call, so that a table of tests need not hold them. They are complete: a client that gets through them
  // is back between two stanzas, unless they are malformed.
  std::string (*bytes)() = nullptr;
};

// One that is as large as is said, in bytes, as a message with one long text.
std::string large_stanza(size_t bytes = 64 * 1024 * 1024);
// A message within which so many elements are nested.
std::string deep_stanza(size_t depth = 100'000);
// A message with so many attributes, each of another name.
std::string crowded_stanza(size_t attributes = 100'000);
// A message of so many elements, each of another name in one namespace whose URI is so long: who writes the URI down with each
// name needs their product.
std::string long_named_stanza(size_t names = 10'000, size_t uri_bytes = 200'000);

// What stands before a stream's head, for Options::prolog: an XML declaration and a document type whose entities, nested, become
// three thousand million characters.
std::string entity_bomb_prolog();

// All of the above as stanzas, in their default sizes, and more: a document type, a comment, a processing instruction, an entity
// that nobody declared, half a character of UTF-8, a byte that is no UTF-8, a character that XML forbids, crossed tags, an
// attribute twice, a prefix that nobody declared, a closing tag too many, text between two stanzas.
std::vector<HostileBytes> hostile_stanzas();

}  // namespace testpeer

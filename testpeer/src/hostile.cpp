#include <qlk/testpeer/hostile.hpp>

namespace testpeer {

namespace {

std::string message(const std::string &content) { return "<message>" + content + "</message>"; }

// Nine levels of ten references each, above a text of three characters.
std::string entity_bomb_type() {
  std::string type = "<!DOCTYPE bomb [<!ENTITY e0 'lol'>";
  for (int level = 1; level <= 9; ++level) {
    type += "<!ENTITY e" + std::to_string(level) + " '";
    for (int i = 0; i < 10; ++i) type += "&e" + std::to_string(level - 1) + ";";
    type += "'>";
  }
  return type + "]>";
}

}  // namespace

std::string large_stanza(size_t bytes) {
  const std::string start = "<message><body>", end = "</body></message>";
  const size_t rest = bytes > start.size() + end.size() ? bytes - start.size() - end.size() : 0;
  return start + std::string(rest, 'x') + end;
}

std::string deep_stanza(size_t depth) {
  std::string stanza;
  stanza.reserve(depth * 7 + 20);
  for (size_t i = 0; i < depth; ++i) stanza += "<a>";
  for (size_t i = 0; i < depth; ++i) stanza += "</a>";
  return message(stanza);
}

std::string crowded_stanza(size_t attributes) {
  std::string stanza = "<message";
  for (size_t i = 0; i < attributes; ++i) stanza += " a" + std::to_string(i) + "=''";
  return stanza + "/>";
}

std::string long_named_stanza(size_t names, size_t uri_bytes) {
  std::string stanza = "<message xmlns='" + std::string(uri_bytes, 'u') + "'>";
  for (size_t i = 0; i < names; ++i) stanza += "<a" + std::to_string(i) + "/>";
  return stanza + "</message>";
}

std::string entity_bomb_prolog() { return "<?xml version='1.0'?>" + entity_bomb_type(); }

std::vector<HostileBytes> hostile_stanzas() {
  return {{"Large", true, [] { return large_stanza(); }},
          {"Deep", true, [] { return deep_stanza(); }},
          {"Crowded", true, [] { return crowded_stanza(); }},
          {"LongNamed", true, [] { return long_named_stanza(); }},
          {"EntityBomb", false, [] { return entity_bomb_type() + message("&e9;"); }},
          {"DocumentType", false, [] { return "<!DOCTYPE stream>" + message(""); }},
          {"Comment", false, [] { return "<!-- nothing -->" + message(""); }},
          {"ProcessingInstruction", false, [] { return "<?nothing to do?>" + message(""); }},
          {"UndeclaredEntity", false, [] { return message("&nothing;"); }},
          {"HalfCharacter", false, [] { return message("\xC3"); }},
          {"OverlongCharacter", false, [] { return message("\xC0\xAF"); }},
          {"NoUtf8", false, [] { return message("\xFF"); }},
          {"ForbiddenCharacter", false, [] { return message("&#1;"); }},
          {"ZeroByte", false, [] { return message(std::string(1, '\0')); }},
          {"CrossedTags", false, [] { return std::string("<message><a><b></a></b></message>"); }},
          {"AttributeTwice", false, [] { return std::string("<message id='1' id='2'/>"); }},
          {"UndeclaredPrefix", false, [] { return std::string("<none:message/>"); }},
          {"ClosingTagTooMany", false, [] { return std::string("<message/></message>"); }},
          {"TextBetweenStanzas", false, [] { return "words" + message(""); }}};
}

}  // namespace testpeer

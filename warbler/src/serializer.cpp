#include "serializer.h"

#include <array>
#include <cstdio>
#include <memory_resource>
#include <vector>

#include "dom_node.h"
#include "guard.h"
#include "namespace_scope.h"
#include "xml_text.h"

namespace {

using wb::as_element;
using wb::as_text;
using wb::Element;
using wb::Symbol;

enum class Class : char { plain, escaped, bad, multibyte };

constexpr std::array<Class, 256> make_classes(bool is_value) {
  std::array<Class, 256> classes{};
  for (size_t c = 0; c < 0x20; ++c) classes[c] = Class::bad;
  for (size_t c = 0x80; c < 256; ++c) classes[c] = Class::multibyte;
  classes['\t'] = classes['\n'] = is_value ? Class::escaped : Class::plain;
  // A carriage return as such would be read as a newline.
  classes['\r'] = classes['&'] = classes['<'] = classes['>'] = Class::escaped;
  if (is_value) classes['"'] = Class::escaped;
  return classes;
}

constexpr std::array<Class, 256> kTextClasses = make_classes(false);
constexpr std::array<Class, 256> kValueClasses = make_classes(true);

constexpr uint64_t all_bytes(uint8_t byte) { return 0x0101010101010101u * byte; }

// Sets the top bit of each byte that is below the limit (at most 0x80), if its own top bit is not set. A byte above such a one
// may be marked too, for nothing.
constexpr uint64_t below(uint64_t word, uint8_t limit) { return (word - all_bytes(limit)) & ~word & all_bytes(0x80); }

// Whether each of the bytes can be written as it is in any place.
bool is_plain_word(uint64_t word) {
  const uint64_t angles = (word | all_bytes('<' ^ '>')) ^ all_bytes('>');
  const uint64_t others = (word | all_bytes('"' ^ '&')) ^ all_bytes('&');
  return ((word & all_bytes(0x80)) | below(word, 0x20) | below(angles, 1) | below(others, 1)) == 0;
}

// Passes over such bytes, eight at a time.
const char *skip_plain_words(const char *at, const char *end) {
  while (end - at >= 8 && is_plain_word(wb::load_bytes(at, 8))) at += 8;
  return at;
}

// Whether all can be written as they are, which is so nearly always. What is no multiple of eight long has bytes that are looked
// at twice.
bool is_plain(const char *bytes, size_t length) {
  if (length >= 8) {
    const char *const last = bytes + length - 8;
    for (; bytes < last; bytes += 8) {
      if (!is_plain_word(wb::load_bytes(bytes, 8))) return false;
    }
    return is_plain_word(wb::load_bytes(last, 8));
  }
  if (length >= 4) return is_plain_word(wb::load_bytes(bytes, 4) | (wb::load_bytes(bytes + length - 4, 4) << 32));
  for (size_t i = 0; i < length; ++i) {
    if (kValueClasses[static_cast<unsigned char>(bytes[i])] != Class::plain) return false;
  }
  return true;
}

std::string_view reference(char c) {
  switch (c) {
    case '&':
      return "&amp;";
    case '<':
      return "&lt;";
    case '>':
      return "&gt;";
    case '"':
      return "&quot;";
    case '\t':
      return "&#9;";
    case '\n':
      return "&#10;";
    default:
      return "&#13;";
  }
}

constexpr size_t kFirstOpen = 16;  // open elements for which there is room at once

Symbol make_symbol(std::string_view text) {
  return Symbol{nullptr, nullptr, text.data(), static_cast<uint32_t>(text.size()), wb::hash_bytes(text.data(), text.size())};
}

// The symbols that every document needs.
struct Constants {
  Symbol none = make_symbol("");
  Symbol xml_prefix = make_symbol("xml");
  Symbol xml_uri = make_symbol(wb::kXmlUri);
  Symbol stream = make_symbol("jabber:client");
};

const Constants &constants() {
  static const Constants made;
  return made;
}

class Writer {
 public:
  Writer(wb::ByteBuffer &out, const Symbol *default_namespace)
      : out_(out), none_(constants().none), scope_(default_namespace, &memory_), open_(&memory_) {
    open_.reserve(kFirstOpen);
  }

  // False when something in the tree cannot be written.
  bool write_tree(const wb_dom_node &root) {
    const wb_dom_node *node = &root;
    for (;;) {
      if (node->is_text) {
        if (!write_text(*as_text(node))) return false;
      } else {
        if (!write_start(*as_element(node))) return false;
        if (const wb_dom_node *const child = as_element(node)->first_child; child != nullptr) {
          node = child;
          continue;
        }
      }
      while (node != &root && node->next == nullptr) {
        node = node->parent;
        write_end(*as_element(node));
      }
      if (node == &root) return true;
      node = node->next;
    }
  }

 private:
  bool write_text(const wb::Text &text) {
    if (!is_plain(text.value, text.length)) return escape(text.value, text.length, kTextClasses);
    out_.append(text.value, text.length);
    return true;
  }

  bool escape(const char *bytes, size_t length, const std::array<Class, 256> &classes) {
    const char *const end = bytes + length;
    const char *at = bytes;
    out_.reserve(length);
    for (;;) {
      const char *const run = at;
      for (;;) {
        at = skip_plain_words(at, end);
        const char *const near = end - at > 8 ? at + 8 : end;
        while (at != near && classes[static_cast<unsigned char>(*at)] == Class::plain) ++at;
        if (at == end) break;
        if (at == near) continue;
        if (classes[static_cast<unsigned char>(*at)] != Class::multibyte) break;
        char32_t c = 0;
        const unsigned count = wb::decode_utf8(at, end, c);
        if (count == 0 || !wb::is_xml_char(c)) return false;
        at += count;
      }
      out_.append(run, static_cast<size_t>(at - run));
      if (at == end) return true;
      if (classes[static_cast<unsigned char>(*at)] == Class::bad) return false;
      out_.append(reference(*at++));
    }
  }

  static size_t name_size(const Symbol *prefix, const wb::Name &name) { return prefix->length + 1 + name.local_length; }

  static char *put_name(char *to, const Symbol *prefix, const wb::Name &name) {
    if (prefix->length != 0) {
      to = wb::ByteBuffer::put(to, prefix->view());
      *to++ = ':';
    }
    return wb::ByteBuffer::put(to, name.local, name.local_length);
  }

  // What ="value" takes when nothing in it is escaped.
  static size_t value_size(size_t length) { return length + 3; }

  // Writes it at the place, where there is room for that.
  bool write_value(char *to, const char *value, size_t length) {
    to = wb::ByteBuffer::put(to, "=\"", 2);
    if (is_plain(value, length)) {
      to = wb::ByteBuffer::put(to, value, length);
    } else {
      out_.end_at(to);
      if (!escape(value, length, kValueClasses)) return false;
      to = out_.room(1);
    }
    *to++ = '"';
    out_.end_at(to);
    return true;
  }

  bool write_declaration(const Symbol *prefix, const Symbol *uri) {
    char *to = wb::ByteBuffer::put(out_.room(7 + prefix->length + value_size(uri->length)), " xmlns", 6);
    if (prefix->length != 0) {
      *to++ = ':';
      to = wb::ByteBuffer::put(to, prefix->view());
    }
    return write_value(to, uri->text, uri->length);
  }

  const Symbol *invented_prefix(unsigned number) {
    const Symbol *&known = invented_[std::min<size_t>(number, invented_.size() - 1)];
    if (number < invented_.size() && known != nullptr) return known;
    char text[16];
    const int length = std::snprintf(text, sizeof text, "ns%u", number);
    const char *const kept = arena_.copy(text, static_cast<size_t>(length));
    const Symbol *const made = new (arena_.allocate(sizeof(Symbol))) Symbol(make_symbol(kept));
    if (number < invented_.size()) known = made;
    return made;
  }

  // A prefix that stands for the namespace here; null when there is none. xml always stands for its own.
  const Symbol *find_prefix(const Symbol *uri) const {
    if (const Symbol *const prefix = scope_.find_prefix(uri)) return prefix;
    return same(uri, &constants().xml_uri) ? &constants().xml_prefix : nullptr;
  }

  // A prefix that stands for nothing here, bound to the namespace from now on.
  const Symbol *invent_prefix(const Symbol *uri) {
    const auto live = static_cast<unsigned>(invented_depths_.size());
    const Symbol *prefix = invented_prefix(live);
    // A tree may carry any number of such prefixes already. The numbers tried here never come again, which bounds the search.
    for (unsigned tries = 1; scope_.is_bound(prefix); ++tries)
      prefix = invented_prefix(tries < 4 ? live + tries : next_number_++);
    scope_.declare(prefix, uri, false, depth_);
    invented_depths_.push_back(depth_);
    return prefix;
  }

  void leave() {
    while (!invented_depths_.empty() && invented_depths_.back() == depth_) invented_depths_.pop_back();
    scope_.leave(depth_--);
  }

  // How the element's name is written; sets declared when that takes a declaration that the element does not carry.
  const Symbol *choose_prefix(const Element &element, const Symbol *&declared) {
    const Symbol *const uri = element.name->uri;
    if (scope_.is_default(uri)) return &none_;
    if (uri->length != 0) {
      if (const Symbol *const prefix = find_prefix(uri)) return prefix;
      if (scope_.is_default_explicit()) return declared = invent_prefix(uri);
    }
    scope_.declare(&none_, uri, false, depth_);
    return declared = &none_;
  }

  bool write_start(const Element &element) {
    ++depth_;
    for (const wb::Declaration *declaration = element.declarations; declaration != nullptr; declaration = declaration->next) {
      scope_.declare(declaration->prefix, declaration->uri, true, depth_);
    }
    const Symbol *declared = nullptr;
    const Symbol *const prefix = choose_prefix(element, declared);
    char *const to = out_.room(1 + name_size(prefix, *element.name));
    *to = '<';
    out_.end_at(put_name(to + 1, prefix, *element.name));
    if (declared != nullptr && !write_declaration(declared, element.name->uri)) return false;
    for (const wb::Declaration *declaration = element.declarations; declaration != nullptr; declaration = declaration->next) {
      if (!write_declaration(declaration->prefix, declaration->uri)) return false;
    }
    for (const wb::Attribute *attribute = element.attributes; attribute != nullptr; attribute = attribute->next) {
      if (!write_attribute(*attribute)) return false;
    }
    if (element.first_child == nullptr) {
      out_.append("/>", 2);
      leave();
    } else {
      out_.append('>');
      open_.push_back(prefix);
    }
    return true;
  }

  bool write_attribute(const wb::Attribute &attribute) {
    const Symbol *prefix = &none_;
    if (const Symbol *const uri = attribute.name->uri; uri->length != 0) {
      prefix = find_prefix(uri);
      if (prefix == nullptr) {
        prefix = invent_prefix(uri);
        if (!write_declaration(prefix, uri)) return false;
      }
    }
    char *const to = out_.room(1 + name_size(prefix, *attribute.name) + value_size(attribute.length));
    *to = ' ';
    return write_value(put_name(to + 1, prefix, *attribute.name), attribute.value, attribute.length);
  }

  void write_end(const Element &element) {
    const Symbol *const prefix = open_.back();
    char *to = wb::ByteBuffer::put(out_.room(3 + name_size(prefix, *element.name)), "</", 2);
    to = put_name(to, prefix, *element.name);
    *to++ = '>';
    out_.end_at(to);
    open_.pop_back();
    leave();
  }

  wb::ByteBuffer &out_;
  const Symbol &none_;
  std::array<std::byte, 1024> first_memory_;
  std::pmr::monotonic_buffer_resource memory_{first_memory_.data(), first_memory_.size()};
  wb::NamespaceScope scope_;
  std::pmr::vector<const Symbol *> open_;  // how the open elements' names are prefixed
  uint32_t depth_ = 0;
  std::pmr::vector<uint32_t> invented_depths_{&memory_};
  std::array<const Symbol *, 16> invented_{};
  unsigned next_number_ = 0;
  wb::Arena arena_{nullptr, nullptr};
};

}  // namespace

const wb::Symbol &wb::no_namespace() { return constants().none; }

const wb::Symbol &wb::stream_namespace() { return constants().stream; }

bool wb::serialize(const wb_dom_node *node, const Symbol &default_namespace, ByteBuffer &out, wb_err *err) {
  const size_t size = out.size();
  const bool written = guarded(err, __func__, [&] {
    if (node == nullptr) return WB_FAIL(err, WB_ERR_INVALID_ARG, "no node");
    if (!Writer(out, &default_namespace).write_tree(*node)) {
      return WB_FAIL(err, WB_ERR_BAD_FORMAT, "a text that is not UTF-8 or holds a character that XML does not know");
    }
    return true;
  });
  if (!written) out.truncate(size);
  return written;
}

bool wb_serialize_xml(const wb_dom_node *node, char **xml, size_t *length, wb_err *err) {
  return wb::guarded(err, __func__, [&] {
    if (xml == nullptr) return WB_FAIL(err, WB_ERR_INVALID_ARG, "no place for the text");
    *xml = nullptr;
    wb::ByteBuffer out;
    if (!wb::serialize(node, wb::no_namespace(), out, err)) return false;
    const size_t size = out.size();
    *xml = out.release();
    if (length != nullptr) *length = size;
    return true;
  });
}

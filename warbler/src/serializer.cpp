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

// Passes over the bytes, eight at a time, that can be written as they are in any place.
const char *skip_plain_words(const char *at, const char *end) {
  for (; end - at >= 8; at += 8) {
    uint64_t word;
    std::memcpy(&word, at, sizeof word);
    const uint64_t angles = (word | all_bytes('<' ^ '>')) ^ all_bytes('>');
    const uint64_t others = (word | all_bytes('"' ^ '&')) ^ all_bytes('&');
    if (((word & all_bytes(0x80)) | below(word, 0x20) | below(angles, 1) | below(others, 1)) != 0) break;
  }
  return at;
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

Symbol make_symbol(std::string_view text) {
  return Symbol{nullptr, nullptr, text.data(), static_cast<uint32_t>(text.size()), wb::hash_bytes(text.data(), text.size())};
}

// The symbols that every document needs.
struct Constants {
  Symbol none = make_symbol("");
  Symbol xml_prefix = make_symbol("xml");
  Symbol xml_uri = make_symbol(wb::kXmlUri);
};

const Constants &constants() {
  static const Constants made;
  return made;
}

class Writer {
 public:
  Writer(wb::ByteBuffer &out, const Symbol *default_namespace)
      : out_(out), none_(constants().none), scope_(default_namespace, &memory_), open_(&memory_) {
    scope_.declare(&constants().xml_prefix, &constants().xml_uri, true, 0);
  }

  // False when something in the tree cannot be written.
  bool write_tree(const wb_dom_node &root) {
    const wb_dom_node *node = &root;
    for (;;) {
      if (node->is_text) {
        if (!escape(as_text(node)->value, as_text(node)->length, kTextClasses)) return false;
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

  void write_name(const Symbol *prefix, const wb::Name &name) {
    out_.reserve(prefix->length + name.local_length + 1);
    if (prefix->length != 0) {
      out_.append_reserved(prefix->text, prefix->length);
      out_.append_reserved(':');
    }
    out_.append_reserved(name.local, name.local_length);
  }

  bool write_value(const char *value, size_t length) {
    out_.append("=\"", 2);
    if (!escape(value, length, kValueClasses)) return false;
    out_.append('"');
    return true;
  }

  bool write_declaration(const Symbol *prefix, const Symbol *uri) {
    out_.append(" xmlns", 6);
    if (prefix->length != 0) {
      out_.append(':');
      out_.append(prefix->view());
    }
    return write_value(uri->text, uri->length);
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
      if (const Symbol *const prefix = scope_.find_prefix(uri)) return prefix;
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
    out_.append('<');
    write_name(prefix, *element.name);
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
      prefix = scope_.find_prefix(uri);
      if (prefix == nullptr) {
        prefix = invent_prefix(uri);
        if (!write_declaration(prefix, uri)) return false;
      }
    }
    out_.append(' ');
    write_name(prefix, *attribute.name);
    return write_value(attribute.value, attribute.length);
  }

  void write_end(const Element &element) {
    out_.append("</", 2);
    write_name(open_.back(), *element.name);
    out_.append('>');
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

bool wb::serialize(const wb_dom_node *node, const char *default_namespace, ByteBuffer &out, wb_err *err) {
  const size_t size = out.size();
  const bool written = guarded(err, __func__, [&] {
    if (node == nullptr) return WB_FAIL(err, WB_ERR_INVALID_ARG, "no node");
    const Symbol inherited = make_symbol(default_namespace);
    if (!Writer(out, &inherited).write_tree(*node)) {
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
    if (!wb::serialize(node, "", out, err)) return false;
    const size_t size = out.size();
    *xml = out.release();
    if (length != nullptr) *length = size;
    return true;
  });
}

// Payloads: quillon::xml::element builds and owns an XML tree, quillon::xml::view reads one.
#ifndef QUILLON_XML_HPP
#define QUILLON_XML_HPP

#include <quillon/detail.hpp>

#include <cstddef>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace quillon::detail {

// The two parts of an expanded name.
struct split_name {
  // "local" alone is in the namespace that is given.
  split_name(std::string_view name, std::string_view default_uri) noexcept : uri(default_uri), local(name) {
    const size_t brace = name.starts_with('{') ? name.rfind('}') : name.npos;
    if (brace == name.npos) return;
    uri = name.substr(1, brace - 1);
    local = name.substr(brace + 1);
  }

  std::string_view uri, local;
};

}  // namespace quillon::detail

namespace quillon::xml {

class element;
class child_range;

// A look at an element that somebody else owns and that has to outlive the view: a request that a handler was given, a child of
// an element. An empty view stands for an element that is not there; reading it finds nothing and is no error, so that
//
//   report.find("place").find("city").text()
//
// is an empty text when there is no place. A tree is used by one thread at a time.
//
// A name is an expanded name, "{namespace}local" or "{}local" for one without a namespace. Where a child is named, "local" alone
// means the namespace that its parent is in, and for an attribute none.
class view {
 public:
  // An empty view.
  view() noexcept = default;
  // A view of the node, which may be NULL.
  explicit view(wb_dom_node *node) noexcept : node_(node) {}

  // True when there is an element.
  explicit operator bool() const noexcept { return node_ != nullptr; }
  // The node for functions of warbler/dom.h; NULL for an empty view.
  wb_dom_node *handle() const noexcept { return node_; }

  // The expanded name.
  std::string_view name() const noexcept { return text_or_empty(wb_dom_get_ename(node_)); }
  // The name without its namespace.
  std::string_view local_name() const noexcept { return text_or_empty(wb_dom_get_localname(node_)); }
  // The namespace; empty when the element is in none.
  std::string_view namespace_uri() const noexcept { return text_or_empty(wb_dom_get_namespace_uri(node_)); }
  // True when the element has that expanded name.
  bool is(std::string_view expanded_name) const noexcept { return node_ != nullptr && name() == expanded_name; }

  // The value of the attribute; nothing when it is not there. It lives until the attribute is set again.
  std::optional<std::string_view> attribute(std::string_view attribute_name) const noexcept {
    std::optional<std::string_view> found;
    static_cast<void>(detail::with_texts(
        [&](const char *name) {
          if (const char *const value = wb_dom_get_attribute(node_, name)) found = value;
          return QUILLON_STATUS_OK;
        },
        attribute_name));
    return found;
  }

  // The first text right inside the element; empty when there is none.
  std::string_view text() const noexcept { return text_or_empty(wb_dom_get_first_text(node_)); }

  // The first child of that name; empty when there is none.
  inline view find(std::string_view child_name) const noexcept;
  // The children, to be iterated; texts are passed over.
  inline child_range children() const noexcept;
  // The children of that name.
  inline child_range children(std::string_view child_name) const noexcept;
  // The element around this one; empty for the outermost.
  view parent() const noexcept { return view(wb_dom_get_parent(node_)); }

  // Who sent the stanza that the element is part of, as a bare JID without the resource; empty when the tree is no stanza. It
  // lives as long as the tree.
  std::string_view sender() const noexcept {
    view stanza = *this;
    while (const view around = stanza.parent()) stanza = around;
    const std::string_view from = text_or_empty(wb_dom_get_attribute(stanza.node_, "from"));
    return from.substr(0, from.find('/'));
  }

  // A copy with all that is inside, in memory of its own; empty when memory is exhausted.
  inline element copy() const noexcept;

  // The element as XML.
  // Returns: the text, or QUILLON_STATUS_XML_ERROR for an empty view, and for a text or value that XML cannot hold
  result<std::string> to_string() const noexcept {
    char *xml = nullptr;
    size_t length = 0;
    if (!wb_serialize_xml(node_, &xml, &length, nullptr)) return QUILLON_STATUS_XML_ERROR;
    const std::unique_ptr<char, detail::destroyer<std::free>> owned(xml);
    return detail::guarded([&]() -> result<std::string> { return std::string(xml, length); });
  }

 protected:
  // NULL as an empty text.
  static std::string_view text_or_empty(const char *text) noexcept { return text != nullptr ? text : std::string_view(); }

  // The node that is looked at; NULL for none.
  wb_dom_node *node_ = nullptr;
};

// An element that owns its tree, moved and not copied: copy() copies. It is built in one expression,
//
//   xml::element("{urn:weather}report").attribute("station", "north").child("temperature", "21").child("wind", "5")
//
// and empty when a step fails: a name that XML does not know, a text with a zero in it, exhausted memory. Further steps then do
// nothing, to_string() and sending are QUILLON_STATUS_XML_ERROR, and so one question at the end, or none, is enough. Reads as a
// view does.
class element : public view {
 public:
  // An empty element.
  element() noexcept = default;
  // An element of that expanded name ("local" alone: in no namespace), with that text inside unless it is empty.
  explicit element(std::string_view name, std::string_view content = {}) noexcept {
    wb_dom_ctx *context = nullptr;
    if (!wb_dom_context_create(&context, nullptr)) return;
    node_ = make_element(context, name);
    if (node_ == nullptr) wb_dom_context_destroy(context);
    text(content);
  }
  element(element &&other) noexcept : view(std::exchange(other.node_, nullptr)) {}
  element &operator=(element &&other) noexcept {
    element old(std::move(*this));
    node_ = std::exchange(other.node_, nullptr);
    if (&other == this) node_ = old.release();
    return *this;
  }
  element(const element &) = delete;
  element &operator=(const element &) = delete;
  ~element() { wb_dom_context_destroy(wb_dom_get_context(node_)); }

  // Takes over a node with one reference of its context, as functions of quillon.h hand it out; NULL makes an empty element.
  static element adopt(wb_dom_node *node) noexcept {
    element adopted;
    adopted.node_ = node;
    return adopted;
  }
  // Hands the node out with the reference of its context, for functions of quillon.h that consume one; the element is empty then.
  wb_dom_node *release() noexcept { return std::exchange(node_, nullptr); }

  // Reads one whole document.
  // Returns: its root, or QUILLON_STATUS_XML_ERROR when it is not well-formed or has a document type declaration
  static result<element> parse(std::string_view xml) noexcept {
    wb_dom_node *root = nullptr;
    if (!wb_dom_parse(xml.data() != nullptr ? xml.data() : "", xml.size(), &root, nullptr)) return QUILLON_STATUS_XML_ERROR;
    return adopt(root);
  }

  using view::attribute;
  using view::text;

  // Sets an attribute, instead of an earlier one of that name.
  element &attribute(std::string_view attribute_name, std::string_view value) &noexcept {
    const auto set = [&](const char *name_text, const char *value_text) {
      return status_of(wb_dom_set_attribute(node_, name_text, value_text, nullptr));
    };
    return step([&] { return detail::with_texts(set, attribute_name, value); });
  }
  // Appends a text; an empty one is none.
  element &text(std::string_view content) &noexcept {
    return step([&] { return add_text(node_, content); });
  }
  // Appends a child of that name with that text inside.
  element &child(std::string_view child_name, std::string_view content = {}) &noexcept {
    return step([&]() -> QUILLON_STATUS {
      wb_dom_node *const added = make_child(child_name);
      const bool done = added != nullptr && add_text(added, content) == QUILLON_STATUS_OK;
      return status_of(done && wb_dom_add_child(node_, added, nullptr));
    });
  }
  // Appends a copy of that element. An empty one cannot be appended: it makes this element empty too.
  element &child(const view &other) &noexcept {
    return step([&]() -> QUILLON_STATUS {
      wb_dom_node *added = nullptr;
      const bool copied = other && wb_dom_import(wb_dom_get_context(node_), other.handle(), true, &added, nullptr);
      return status_of(copied && wb_dom_add_child(node_, added, nullptr));
    });
  }
  // Declares a prefix for a namespace, "" for the default namespace, which the XML then shows. Needed only by who wants to
  // choose.
  element &prefix(std::string_view chosen, std::string_view uri) &noexcept {
    const auto put = [&](const char *prefix_text, const char *uri_text) {
      return status_of(wb_dom_put_namespace(node_, prefix_text, uri_text, nullptr));
    };
    return step([&] { return detail::with_texts(put, chosen, uri); });
  }

  // The same steps in an expression that makes an element.
  element attribute(std::string_view attribute_name, std::string_view value) &&noexcept {
    return std::move(attribute(attribute_name, value));
  }
  element text(std::string_view content) &&noexcept { return std::move(text(content)); }
  element child(std::string_view child_name, std::string_view content = {}) &&noexcept {
    return std::move(child(child_name, content));
  }
  element child(const view &other) &&noexcept { return std::move(child(other)); }
  element prefix(std::string_view chosen, std::string_view uri) &&noexcept { return std::move(prefix(chosen, uri)); }

 private:
  static QUILLON_STATUS status_of(bool done) noexcept { return done ? QUILLON_STATUS_OK : QUILLON_STATUS_XML_ERROR; }

  static wb_dom_node *make_element(wb_dom_ctx *context, std::string_view name) noexcept {
    wb_dom_node *made = nullptr;
    static_cast<void>(detail::with_texts(
        [&](const char *name_text) { return status_of(wb_dom_element_create(context, name_text, &made, nullptr)); }, name));
    return made;
  }

  static QUILLON_STATUS add_text(wb_dom_node *parent, std::string_view content) noexcept {
    if (content.empty()) return QUILLON_STATUS_OK;
    return detail::with_texts(
        [&](const char *text_of_node) {
          wb_dom_node *made = nullptr;
          return status_of(wb_dom_text_create(wb_dom_get_context(parent), text_of_node, &made, nullptr) &&
                           wb_dom_add_child(parent, made, nullptr));
        },
        content);
  }

  // An element that has no parent yet, in the namespace of this one unless its name tells another.
  wb_dom_node *make_child(std::string_view child_name) const noexcept {
    wb_dom_node *made = nullptr;
    static_cast<void>(detail::guarded([&]() -> QUILLON_STATUS {
      const bool is_expanded = child_name.starts_with('{');
      const std::string full =
          is_expanded ? std::string(child_name) : "{" + std::string(namespace_uri()) + "}" + std::string(child_name);
      made = make_element(wb_dom_get_context(node_), full);
      return QUILLON_STATUS_OK;
    }));
    return made;
  }

  // Takes a step of the building, unless an earlier one failed; the tree is gone when it fails.
  template <typename Step>
  element &step(Step &&take) noexcept {
    if (node_ != nullptr && take() != QUILLON_STATUS_OK) wb_dom_context_destroy(wb_dom_get_context(release()));
    return *this;
  }
};

// The children of an element, all or those of one name, as a range of views. The tree has to outlive it.
class child_range {
 public:
  // A step through the children. Equal are two that stand at the same child.
  class iterator {
   public:
    using iterator_concept = std::forward_iterator_tag;
    using iterator_category = std::input_iterator_tag;  // it hands out views, not references
    using value_type = view;
    using difference_type = std::ptrdiff_t;
    using pointer = void;
    using reference = view;

    iterator() noexcept = default;
    // Begins at the child, and stops at those that have that expanded name only, unless it is empty.
    iterator(wb_dom_node *child, std::string_view name) noexcept : child_(child), name_(name) {}

    view operator*() const noexcept { return view(child_); }
    iterator &operator++() noexcept {
      do {
        child_ = wb_dom_get_sibling(child_);
      } while (child_ != nullptr && !name_.empty() && view(child_).name() != name_);
      return *this;
    }
    iterator operator++(int) noexcept {
      iterator before = *this;
      ++*this;
      return before;
    }
    bool operator==(const iterator &other) const noexcept { return child_ == other.child_; }

   private:
    wb_dom_node *child_ = nullptr;
    std::string_view name_;  // of the tree's own, so that it lives as long
  };

  // The children from that one on: those of its own name, or all.
  child_range(wb_dom_node *first, bool of_one_name) noexcept : first_(first), of_one_name_(of_one_name) {}

  // The first child, for a loop over the range.
  iterator begin() const noexcept { return iterator(first_, of_one_name_ ? view(first_).name() : std::string_view()); }
  // The end of the range.
  iterator end() const noexcept { return {}; }
  // True when there are none.
  bool empty() const noexcept { return first_ == nullptr; }

 private:
  wb_dom_node *first_;
  bool of_one_name_;
};

inline view view::find(std::string_view child_name) const noexcept {
  const detail::split_name name_of_child(child_name, namespace_uri());
  for (const view each : children()) {
    if (each.local_name() == name_of_child.local && each.namespace_uri() == name_of_child.uri) return each;
  }
  return {};
}

inline child_range view::children() const noexcept { return {wb_dom_get_first_child(node_), false}; }
inline child_range view::children(std::string_view child_name) const noexcept { return {find(child_name).handle(), true}; }

inline element view::copy() const noexcept {
  wb_dom_ctx *context = nullptr;
  wb_dom_node *copied = nullptr;
  if (node_ == nullptr || !wb_dom_context_create(&context, nullptr)) return {};
  if (!wb_dom_import(context, node_, true, &copied, nullptr)) wb_dom_context_destroy(context);
  return element::adopt(copied);
}

}  // namespace quillon::xml

#endif

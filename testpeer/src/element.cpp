#include <qlk/testpeer/element.hpp>

namespace testpeer {

namespace {

// A start tag with the element's own text.
void open_tag(std::string &out, const Element &element) {
  out.append("<").append(element.local).append(" xmlns='").append(escape(element.ns)).append("'");
  int prefixes = 0;
  for (const auto &[name, value] : element.attributes) {
    const size_t brace = name.empty() || name.front() != '{' ? std::string::npos : name.find('}');
    std::string written = name;
    if (brace != std::string::npos) {
      const std::string prefix = "n" + std::to_string(prefixes++);
      out.append(" xmlns:").append(prefix).append("='").append(escape(name.substr(1, brace - 1))).append("'");
      written = prefix + ":" + name.substr(brace + 1);
    }
    out.append(" ").append(written).append("='").append(escape(value)).append("'");
  }
  out.append(">").append(escape(element.text));
}

}  // namespace

std::string Element::attribute(const std::string &name) const {
  const auto found = attributes.find(name);
  return found == attributes.end() ? std::string() : found->second;
}

const Element *Element::child(std::string_view local_name, std::string_view uri) const {
  for (const Element &one : children) {
    if (one.local == local_name && (uri.empty() || one.ns == uri)) return &one;
  }
  return nullptr;
}

std::string Element::xml() const {
  struct Level {
    const Element *element;
    size_t next_child;
  };
  std::string out;
  open_tag(out, *this);
  for (std::vector<Level> levels{{this, 0}}; !levels.empty();) {
    Level &level = levels.back();
    if (level.next_child < level.element->children.size()) {
      const Element &child = level.element->children[level.next_child++];
      open_tag(out, child);
      levels.push_back({&child, 0});
    } else {
      out.append("</").append(level.element->local).append(">");
      levels.pop_back();
    }
  }
  return out;
}

std::string escape(std::string_view text) {
  std::string out;
  for (const char c : text) {
    if (c == '&') {
      out += "&amp;";
    } else if (c == '<') {
      out += "&lt;";
    } else if (c == '>') {
      out += "&gt;";
    } else if (c == '\'') {
      out += "&apos;";
    } else if (c == '"') {
      out += "&quot;";
    } else {
      out += c;
    }
  }
  return out;
}

}  // namespace testpeer

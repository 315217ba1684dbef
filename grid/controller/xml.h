// Building and reading stanzas.
#pragma once

#include <warbler/dom.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

namespace controller {

inline constexpr char kClientNs[] = "jabber:client";
inline constexpr char kGridNs[] = "http://quillon.internal/quillon";
inline constexpr char kAdminNs[] = "http://quillon.internal/quillon/admin";
inline constexpr char kEnvelopeNs[] = "quillon";
inline constexpr char kPubsubNs[] = "http://jabber.org/protocol/pubsub";
inline constexpr char kPubsubOwnerNs[] = "http://jabber.org/protocol/pubsub#owner";
inline constexpr char kPubsubConfigurationNs[] = "http://jabber.org/protocol/pubsub#node_config";
inline constexpr char kDataNs[] = "jabber:x:data";
inline constexpr char kPingNs[] = "urn:xmpp:ping";
inline constexpr char kStanzaErrorsNs[] = "urn:ietf:params:xml:ns:xmpp-stanzas";
inline constexpr char kSchemaInstanceNs[] = "http://www.w3.org/2001/XMLSchema-instance";

struct XmlError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

std::string ename(std::string_view ns, std::string_view local);

// An element of a stanza that is being built. Every operation throws XmlError when it fails.
class Element {
 public:
  explicit Element(wb_dom_node *node) : node_(node) {}
  // Adds a child in the same namespace as this element, or in another, and returns the child.
  Element add(std::string_view local);
  Element add(std::string_view local, const std::string &text);
  Element add_in(std::string_view ns, std::string_view local);
  Element set(const char *attribute, const std::string &value);
  wb_dom_node *node() const { return node_; }

 private:
  wb_dom_node *node_;
};

// A stanza with its context, until it is sent.
class Stanza {
 public:
  Stanza(std::string_view ns, std::string_view local);
  Element root() const { return root_; }
  wb_dom_node *release();

 private:
  struct DropContext {
    void operator()(wb_dom_ctx *context) const { wb_dom_context_destroy(context); }
  };
  std::unique_ptr<wb_dom_ctx, DropContext> context_;
  Element root_{nullptr};
};

// <iq type to> without a child.
Stanza make_iq(const std::string &type, const std::string &to);

// Empty where there is none.
std::string attribute_of(const wb_dom_node *element, const char *name);
std::string text_of(const wb_dom_node *element);
std::string child_text(const wb_dom_node *element, std::string_view ns, std::string_view local);
bool is_named(const wb_dom_node *element, std::string_view ns, std::string_view local);
wb_dom_node *find_child(const wb_dom_node *element, std::string_view ns, std::string_view local);

}  // namespace controller

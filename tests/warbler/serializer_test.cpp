#include "serializer.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "dom_text.h"

namespace {

using dom_text::describe;
using dom_text::Document;
using dom_text::serialized;

class Serializer : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(wb_dom_context_create(&context, nullptr)); }
  void TearDown() override { wb_dom_context_destroy(context); }

  wb_dom_node *element(const char *name, wb_dom_node *parent = nullptr) {
    wb_dom_node *node = nullptr;
    EXPECT_TRUE(wb_dom_element_create(context, name, &node, nullptr)) << name;
    EXPECT_TRUE(parent == nullptr || wb_dom_add_child(parent, node, nullptr));
    return node;
  }
  wb_dom_node *text(const char *value, wb_dom_node *parent) {
    wb_dom_node *node = nullptr;
    EXPECT_TRUE(wb_dom_text_create(context, value, &node, nullptr));
    EXPECT_TRUE(wb_dom_add_child(parent, node, nullptr));
    return node;
  }
  void set(wb_dom_node *node, const char *name, const char *value) {
    ASSERT_TRUE(wb_dom_set_attribute(node, name, value, nullptr));
  }
  void put(wb_dom_node *node, const char *prefix, const char *uri) {
    ASSERT_TRUE(wb_dom_put_namespace(node, prefix, uri, nullptr));
  }

  wb_dom_ctx *context = nullptr;
};

TEST_F(Serializer, CapabilityRequest) {
  const char *const grid = "http://quillon.internal/quillon";
  wb_dom_node *root = element("{http://quillon.internal/quillon}subscribeRequest");
  put(root, "", "urn:cap");
  put(root, "qn", grid);
  put(root, "xsi", "http://www.w3.org/2001/XMLSchema-instance");
  wb_dom_node *capability = element("{http://quillon.internal/quillon}capability", root);
  put(capability, "qn", "BaseEventsCapability");
  set(capability, "{http://www.w3.org/2001/XMLSchema-instance}type", "BaseEventsCapability");
  text("0", element("{http://quillon.internal/quillon}id", capability));
  element("{http://quillon.internal/quillon}capabilityRef", root);
  EXPECT_EQ(
      "<qn:subscribeRequest xmlns=\"urn:cap\" xmlns:qn=\"http://quillon.internal/quillon\" "
      "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\">"
      "<ns0:capability xmlns:ns0=\"http://quillon.internal/quillon\" xmlns:qn=\"BaseEventsCapability\" "
      "xsi:type=\"BaseEventsCapability\"><ns0:id>0</ns0:id></ns0:capability><qn:capabilityRef/></qn:subscribeRequest>",
      serialized(root));
}

TEST_F(Serializer, PlainTreesNeedNoPrefixes) {
  wb_dom_node *iq = element("{jabber:client}iq");
  set(iq, "type", "get");
  wb_dom_node *grid = element("{quillon}grid", iq);
  element("{urn:x}payload", grid);
  element("plain", grid);
  element("{quillon}after", grid);
  element("{jabber:client}error", iq);
  const std::string inner = "<grid xmlns=\"quillon\"><payload xmlns=\"urn:x\"/><plain xmlns=\"\"/><after/></grid><error/></iq>";
  EXPECT_EQ("<iq xmlns=\"jabber:client\" type=\"get\">" + inner, serialized(iq));
  wb::ByteBuffer out;
  out.append("before ");
  ASSERT_TRUE(wb::serialize(iq, wb::stream_namespace(), out, nullptr));
  EXPECT_EQ("before <iq type=\"get\">" + inner, out.view());
  EXPECT_EQ("<grid xmlns=\"quillon\"><payload xmlns=\"urn:x\"/><plain xmlns=\"\"/><after/></grid>", serialized(grid));
}

TEST_F(Serializer, AttributesAlwaysGetAPrefix) {
  wb_dom_node *a = element("{urn:a}a");
  set(a, "{urn:a}x", "1");
  set(a, "{urn:b}x", "2");
  set(a, "x", "3");
  set(a, "{http://www.w3.org/XML/1998/namespace}lang", "en");
  element("{urn:b}b", a);
  const std::string xml =
      "<a xmlns=\"urn:a\" xmlns:ns0=\"urn:a\" ns0:x=\"1\" xmlns:ns1=\"urn:b\" ns1:x=\"2\" x=\"3\" xml:lang=\"en\"><ns1:b/></a>";
  EXPECT_EQ(xml, serialized(a));
  EXPECT_EQ(describe(a), describe(Document(xml).root));
}

TEST_F(Serializer, MadeUpPrefixesDoNotHideOthers) {
  wb_dom_node *root = element("{urn:d}root");
  put(root, "", "urn:d");
  put(root, "ns0", "urn:0");
  for (int i = 0; i < 3; ++i) {
    wb_dom_node *child = element(("{urn:child" + std::to_string(i) + "}c").c_str(), root);
    element(("{urn:grandchild" + std::to_string(i) + "}g").c_str(), child);
  }
  element("plain", root);
  const std::string xml = serialized(root);
  EXPECT_EQ(0u, xml.find("<root xmlns=\"urn:d\" xmlns:ns0=\"urn:0\"><ns1:c xmlns:ns1=\"urn:child0\"><ns"));
  EXPECT_EQ(1u, xml.find("root"));
  EXPECT_EQ(xml.find("xmlns:ns0"), xml.rfind("xmlns:ns0"));
  EXPECT_NE(std::string::npos, xml.find("<plain xmlns=\"\"/>"));
  EXPECT_EQ(describe(root), describe(Document(xml).root));
}

TEST_F(Serializer, Escaping) {
  wb_dom_node *a = element("a");
  set(a, "v", "<>&\"'\t\n\r\xE2\x82\xAC");
  text("<>&\"'\t\n\r]]>\xF0\x9F\x98\x80", a);
  const std::string xml = serialized(a);
  EXPECT_EQ("<a v=\"&lt;&gt;&amp;&quot;'&#9;&#10;&#13;\xE2\x82\xAC\">&lt;&gt;&amp;\"'\t\n&#13;]]&gt;\xF0\x9F\x98\x80</a>", xml);
  EXPECT_EQ(describe(a), describe(Document(xml).root));
  EXPECT_EQ("&lt;&gt;", serialized(text("<>", a)));
}

TEST_F(Serializer, RefusesWhatIsNoXml) {
  for (const char *bad : {"\x01", "\x1F", "\xFF", "a\x80", "\xC0\x80", "\xED\xA0\x80", "\xEF\xBF\xBE", "\xEF\xBF\xBF",
                          "\xF4\x90\x80\x80", "x\xE2\x82"}) {
    wb_dom_node *in_text = element("a"), *in_value = element("a");
    text(bad, in_text);
    set(in_value, "v", bad);
    for (wb_dom_node *node : {in_text, in_value}) {
      char *xml = const_cast<char *>("unset");
      wb_err err{};
      EXPECT_FALSE(wb_serialize_xml(node, &xml, nullptr, &err)) << bad;
      EXPECT_EQ(WB_ERR_BAD_FORMAT, err.code);
      EXPECT_EQ(nullptr, xml);
      wb::ByteBuffer out;
      out.append("kept");
      EXPECT_FALSE(wb::serialize(node, wb::no_namespace(), out, nullptr));
      EXPECT_EQ("kept", out.view());
    }
  }
}

// What was read from the wire keeps its declarations, and so the names in its texts.
TEST(SerializerRoundTrip, Documents) {
  for (const char *xml : {
           "<a/>",
           "<p:a xmlns:p=\"urn:p\" p:b=\"p:value\">p:text</p:a>",
           "<a xmlns=\"urn:a\"><b xmlns=\"\"><c/></b><d/></a>",
           "<p:a xmlns:p=\"1\"><p:a xmlns:p=\"2\"><p:a xmlns:p=\"1\"/></p:a><p:b/></p:a>",
           "<a xmlns:p=\"u\" xmlns=\"u\" p:b=\"\" b=\"\"/>",
           "<a xmlns=\"u\" xmlns:unused=\"v\"><b xmlns=\"u\"/></a>",
           "<a xml:lang=\"en\"> <xml:b/>\n</a>",
       }) {
    const Document document(xml);
    ASSERT_NE(nullptr, document.root) << xml;
    const std::string written = serialized(document.root);
    EXPECT_EQ(describe(document.root, true), describe(Document(written).root, true)) << written;
  }
}

class RandomTree {
 public:
  RandomTree(wb_dom_ctx *context, unsigned seed) : context_(context), random_(seed) {}

  wb_dom_node *make() {
    std::vector<wb_dom_node *> open{element()};
    wb_dom_node *const root = open.front();
    for (unsigned i = 0; i < 60; ++i) {
      wb_dom_node *child = below(4) == 0 ? text() : element();
      EXPECT_TRUE(wb_dom_add_child(open[below(static_cast<unsigned>(open.size()))], child, nullptr));
      if (wb_dom_get_ename(child) != nullptr) open.push_back(child);
    }
    return root;
  }

 private:
  unsigned below(unsigned count) { return static_cast<unsigned>(random_() % count); }
  const char *uri() {
    const char *const uris[] = {
        "", "urn:a", "urn:b", "urn:\"<&\t\xC3\xA9", "jabber:client", "http://www.w3.org/XML/1998/namespace"};
    return uris[below(6)];
  }
  std::string name() { return std::string("{") + uri() + "}" + std::string(1, static_cast<char>('a' + below(4))); }
  wb_dom_node *text() {
    const char *const texts[] = {"t", " ", "\n", "<&>", "]]>", "\r", "\xC3\xA9\xF0\x9F\x98\x80"};
    wb_dom_node *node = nullptr;
    EXPECT_TRUE(wb_dom_text_create(context_, texts[below(7)], &node, nullptr));
    return node;
  }
  wb_dom_node *element() {
    wb_dom_node *node = nullptr;
    EXPECT_TRUE(wb_dom_element_create(context_, name().c_str(), &node, nullptr));
    for (unsigned i = below(3); i > 0; --i) EXPECT_TRUE(wb_dom_set_attribute(node, name().c_str(), "v\n\"", nullptr));
    const char *const prefixes[] = {"", "p", "q", "ns0", "ns1"};
    for (unsigned i = below(3); i > 0; --i) wb_dom_put_namespace(node, prefixes[below(5)], uri(), nullptr);  // may be refused
    return node;
  }

  wb_dom_ctx *context_;
  std::mt19937 random_;
};

TEST(SerializerRoundTrip, RandomTrees) {
  const unsigned first = std::random_device()();
  for (unsigned seed = first; seed != first + 400; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    wb_dom_ctx *context = nullptr;
    ASSERT_TRUE(wb_dom_context_create(&context, nullptr));
    const wb_dom_node *const root = RandomTree(context, seed).make();
    const std::string xml = serialized(root);
    const Document again(xml);
    ASSERT_NE(nullptr, again.root) << xml;
    ASSERT_EQ(describe(root), describe(again.root)) << xml;
    ASSERT_EQ(describe(root), describe(Document(serialized(again.root)).root)) << xml;
    wb_dom_context_destroy(context);
  }
}

// As many declarations in force as one likes must not make each element below them slow.
TEST_F(Serializer, ManyDeclarations) {
  wb_dom_node *root = element("{urn:root}r"), *last = root;
  put(root, "", "urn:root");
  for (int i = 0; i < 20000; ++i) {
    last = element(("{urn:" + std::to_string(i) + "}e").c_str(), last);
    put(last, ("ns" + std::to_string(i)).c_str(), "urn:other");
  }
  for (int i = 0; i < 20000; ++i) element("{urn:0}e", last);
  const std::string xml = serialized(root);
  const Document again(xml);
  ASSERT_NE(nullptr, again.root);
  EXPECT_TRUE(describe(root) == describe(again.root));
}

}  // namespace

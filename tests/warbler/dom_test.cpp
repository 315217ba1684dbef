#include <gtest/gtest.h>
#include <warbler/dom.h>

#include <string>
#include <thread>
#include <vector>

#include "dom_text.h"
#include "oom.h"

namespace {

using dom_text::describe;
using dom_text::Document;

class Dom : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(wb_dom_context_create(&context, nullptr)); }
  void TearDown() override { wb_dom_context_destroy(context); }

  wb_dom_node *element(const char *name) {
    wb_dom_node *node = nullptr;
    EXPECT_TRUE(wb_dom_element_create(context, name, &node, nullptr)) << name;
    return node;
  }
  wb_dom_node *text(const char *value) {
    wb_dom_node *node = nullptr;
    EXPECT_TRUE(wb_dom_text_create(context, value, &node, nullptr));
    return node;
  }
  void add(wb_dom_node *parent, wb_dom_node *child) { ASSERT_TRUE(wb_dom_add_child(parent, child, nullptr)); }

  wb_dom_ctx *context = nullptr;
  wb_err err{};
};

struct NameCase {
  const char *given, *ename, *local, *uri;  // ename null: refused
};

TEST_F(Dom, ElementNames) {
  const NameCase cases[] = {
      {"iq", "{}iq", "iq", ""},
      {"{}iq", "{}iq", "iq", ""},
      {"|iq", "{}iq", "iq", ""},
      {"{urn:a}b", "{urn:a}b", "b", "urn:a"},
      {"urn:a|b", "{urn:a}b", "b", "urn:a"},
      {"urn|a|b", "{urn|a}b", "b", "urn|a"},
      {"{urn}a}b", "{urn}a}b", "b", "urn}a"},
      {"\xC3\xA9t\xC3\xA9", "{}\xC3\xA9t\xC3\xA9", "\xC3\xA9t\xC3\xA9", ""},
      {"\xF0\x90\x80\x80", "{}\xF0\x90\x80\x80", "\xF0\x90\x80\x80", ""},  // the fifth edition's
      {"a-b.c_d9\xC2\xB7", "{}a-b.c_d9\xC2\xB7", "a-b.c_d9\xC2\xB7", ""},
      {"", nullptr, "", ""},
      {"{urn:a}", nullptr, "", ""},
      {"{urn:a", nullptr, "", ""},
      {"a:b", nullptr, "", ""},
      {"9a", nullptr, "", ""},
      {"-a", nullptr, "", ""},
      {"a b", nullptr, "", ""},
      {"a>", nullptr, "", ""},
      {"\xC3", nullptr, "", ""},
      {"\xC0\xAF", nullptr, "", ""},
      {"a\xED\xA0\x80", nullptr, "", ""},
      {"\xC3\x97", nullptr, "", ""},  // the multiplication sign
      {"{http://www.w3.org/2000/xmlns/}a", nullptr, "", ""},
      {"{urn:\x01}a", nullptr, "", ""},
  };
  for (const NameCase &c : cases) {
    wb_dom_node *node = nullptr;
    const bool made = wb_dom_element_create(context, c.given, &node, &err);
    ASSERT_EQ(c.ename != nullptr, made) << c.given;
    if (!made) {
      EXPECT_EQ(WB_ERR_BAD_FORMAT, err.code) << c.given;
      EXPECT_EQ(nullptr, node);
      continue;
    }
    EXPECT_STREQ(c.ename, wb_dom_get_ename(node));
    EXPECT_STREQ(c.local, wb_dom_get_localname(node));
    EXPECT_STREQ(c.uri, wb_dom_get_namespace_uri(node));
    EXPECT_EQ(context, wb_dom_get_context(node));
  }
}

TEST_F(Dom, EqualNamesAreOneRecord) {
  EXPECT_EQ(wb_dom_get_ename(element("{urn:a}b")), wb_dom_get_ename(element("urn:a|b")));
  std::vector<wb_dom_node *> nodes;
  for (int i = 0; i < 500; ++i) nodes.push_back(element(("{urn:a}n" + std::to_string(i)).c_str()));
  for (int i = 0; i < 500; ++i) {
    EXPECT_EQ(wb_dom_get_ename(nodes[static_cast<size_t>(i)]),
              wb_dom_get_ename(element(("{urn:a}n" + std::to_string(i)).c_str())));
  }
}

TEST_F(Dom, NullArguments) {
  wb_dom_node *node = element("a");
  wb_dom_node *out = node;
  char *xml = nullptr;
  const auto refused = [&](bool result) {
    const bool right = !result && err.code == WB_ERR_INVALID_ARG;
    err = wb_err{};
    return right;
  };
  EXPECT_TRUE(refused(wb_dom_context_create(nullptr, &err)));
  EXPECT_TRUE(refused(wb_dom_context_retain(nullptr, &err)));
  EXPECT_TRUE(refused(wb_dom_element_create(nullptr, "a", &out, &err)));
  EXPECT_EQ(nullptr, out);
  EXPECT_TRUE(refused(wb_dom_element_create(context, nullptr, &out, &err)));
  EXPECT_TRUE(refused(wb_dom_element_create(context, "a", nullptr, &err)));
  EXPECT_TRUE(refused(wb_dom_text_create(context, nullptr, &out, &err)));
  EXPECT_TRUE(refused(wb_dom_text_create(nullptr, "", &out, &err)));
  EXPECT_TRUE(refused(wb_dom_add_child(node, nullptr, &err)));
  EXPECT_TRUE(refused(wb_dom_remove_child(nullptr, node, &err)));
  EXPECT_TRUE(refused(wb_dom_set_attribute(nullptr, "a", "b", &err)));
  EXPECT_TRUE(refused(wb_dom_set_attribute(text("t"), "a", "b", &err)));
  EXPECT_TRUE(refused(wb_dom_put_namespace(node, nullptr, "u", &err)));
  EXPECT_TRUE(refused(wb_dom_import(context, nullptr, true, &out, &err)));
  EXPECT_TRUE(refused(wb_serialize_xml(nullptr, &xml, nullptr, &err)));
  EXPECT_TRUE(refused(wb_dom_parse(nullptr, 0, &out, &err)));
  EXPECT_EQ(nullptr, wb_dom_get_context(nullptr));
  EXPECT_EQ(nullptr, wb_dom_get_attribute(nullptr, "a"));
  EXPECT_EQ(nullptr, wb_dom_get_first_element(text("t"), "a"));
  EXPECT_EQ(nullptr, wb_dom_get_ename(text("t")));
  EXPECT_EQ(nullptr, wb_dom_get_value(node));
  EXPECT_EQ(nullptr, wb_dom_get_first_text(nullptr));
  wb_dom_context_destroy(nullptr);
}

TEST_F(Dom, Attributes) {
  wb_dom_node *node = element("a");
  ASSERT_TRUE(wb_dom_set_attribute(node, "{}type", "get", nullptr));
  ASSERT_TRUE(wb_dom_set_attribute(node, "urn:x|type", "other", nullptr));
  EXPECT_STREQ("get", wb_dom_get_attribute(node, "type"));
  EXPECT_STREQ("other", wb_dom_get_attribute(node, "{urn:x}type"));
  ASSERT_TRUE(wb_dom_set_attribute(node, "type", "set", nullptr));
  EXPECT_STREQ("set", wb_dom_get_attribute(node, "{}type"));
  EXPECT_EQ("<{}a {urn:x}type='other' {}type='set'></>", describe(node));
  ASSERT_TRUE(wb_dom_set_attribute(node, "type", nullptr, nullptr));
  ASSERT_TRUE(wb_dom_set_attribute(node, "absent", nullptr, nullptr));
  EXPECT_EQ("<{}a {urn:x}type='other'></>", describe(node));
  for (const char *name : {"", "a:b", "xmlns", "{}xmlns", "{http://www.w3.org/2000/xmlns/}p", "{open", "a\xFF"}) {
    EXPECT_FALSE(wb_dom_set_attribute(node, name, "v", &err)) << name;
    EXPECT_EQ(WB_ERR_BAD_FORMAT, err.code) << name;
  }
}

TEST_F(Dom, NamespaceDeclarations) {
  wb_dom_node *node = element("{urn:a}a");
  ASSERT_TRUE(wb_dom_put_namespace(node, "", "urn:d", nullptr));
  ASSERT_TRUE(wb_dom_put_namespace(node, "p", "urn:1", nullptr));
  ASSERT_TRUE(wb_dom_put_namespace(node, "p", "urn:2", nullptr));
  EXPECT_EQ("<{urn:a}a :=urn:d p:=urn:2></>", describe(node, true));
  struct {
    const char *prefix, *uri;
    wb_errcode code;
  } const refused[] = {
      {"p", "", WB_ERR_INVALID_ARG},
      {"xml", "urn:a", WB_ERR_BAD_FORMAT},
      {"xmlns", "urn:a", WB_ERR_BAD_FORMAT},
      {"q", "http://www.w3.org/XML/1998/namespace", WB_ERR_BAD_FORMAT},
      {"", "http://www.w3.org/2000/xmlns/", WB_ERR_BAD_FORMAT},
      {"a:b", "urn:a", WB_ERR_BAD_FORMAT},
      {"9", "urn:a", WB_ERR_BAD_FORMAT},
      {"q", "urn:\xFF", WB_ERR_BAD_FORMAT},
  };
  for (const auto &c : refused) {
    EXPECT_FALSE(wb_dom_put_namespace(node, c.prefix, c.uri, &err)) << c.prefix;
    EXPECT_EQ(c.code, err.code) << c.prefix;
  }
  EXPECT_FALSE(wb_dom_put_namespace(element("b"), "", "urn:d", &err));
  EXPECT_EQ(WB_ERR_INVALID_ARG, err.code);
}

TEST_F(Dom, ChildrenAndWalking) {
  wb_dom_node *root = element("r"), *a = element("a"), *b = element("{urn:x}b"), *one = text("one"), *two = text("two");
  for (wb_dom_node *child : {one, a, two, b}) add(root, child);
  EXPECT_EQ("<{}r>one<{}a></>two<{urn:x}b></></>", describe(root));
  EXPECT_EQ(a, wb_dom_get_first_child(root));
  EXPECT_EQ(b, wb_dom_get_sibling(a));
  EXPECT_EQ(nullptr, wb_dom_get_sibling(b));
  EXPECT_EQ(one, wb_dom_get_first_node(root));
  EXPECT_EQ(a, wb_dom_get_next_node(one));
  EXPECT_EQ(b, wb_dom_get_first_element(root, "urn:x|b"));
  EXPECT_EQ(a, wb_dom_get_first_element(root, nullptr));
  EXPECT_EQ(a, wb_dom_get_first_element(root, "a"));
  EXPECT_EQ(nullptr, wb_dom_get_first_element(root, "b"));
  EXPECT_STREQ("one", wb_dom_get_first_text(root));
  EXPECT_STREQ("two", wb_dom_get_value(two));
  EXPECT_EQ(nullptr, wb_dom_get_first_text(a));
  ASSERT_TRUE(wb_dom_remove_child(root, a, nullptr));
  EXPECT_EQ(nullptr, wb_dom_get_parent(a));
  EXPECT_EQ(two, wb_dom_get_next_node(one));
  EXPECT_FALSE(wb_dom_remove_child(root, a, &err));
  EXPECT_EQ(WB_ERR_INVALID_ARG, err.code);
}

TEST_F(Dom, Reparenting) {
  wb_dom_node *root = element("r"), *a = element("a"), *b = element("b"), *c = element("c");
  add(root, a);
  add(root, b);
  add(a, c);
  add(b, c);  // leaves a
  EXPECT_EQ("<{}r><{}a></><{}b><{}c></></></>", describe(root));
  add(root, a);  // to the end of the same parent
  EXPECT_EQ("<{}r><{}b><{}c></></><{}a></></>", describe(root));
  wb_dom_ctx *other = nullptr;
  wb_dom_node *foreign = nullptr;
  ASSERT_TRUE(wb_dom_context_create(&other, nullptr));
  ASSERT_TRUE(wb_dom_element_create(other, "f", &foreign, nullptr));
  wb_dom_node *leaf = text("t");
  const std::pair<wb_dom_node *, wb_dom_node *> refused[] = {{root, root}, {c, root},    {c, b},
                                                             {leaf, a},    {leaf, leaf}, {root, foreign}};
  for (const auto &[parent, child] : refused) {
    err = wb_err{};
    EXPECT_FALSE(wb_dom_add_child(parent, child, &err));
    EXPECT_EQ(WB_ERR_INVALID_ARG, err.code);
  }
  EXPECT_EQ("<{}r><{}b><{}c></></><{}a></></>", describe(root));
  wb_dom_context_destroy(other);
}

TEST_F(Dom, ImportOutlivesItsSource) {
  wb_dom_node *deep = nullptr, *shallow = nullptr, *same = nullptr;
  std::string expected;
  {
    const Document source("<a xmlns='urn:a' xmlns:p='urn:p' p:x='1' y='2'>t<p:b><c/>u</p:b><d/>v</a>");
    ASSERT_NE(nullptr, source.root);
    expected = describe(source.root, true);
    ASSERT_TRUE(wb_dom_import(context, source.root, true, &deep, nullptr));
    ASSERT_TRUE(wb_dom_import(context, source.root, false, &shallow, nullptr));
  }
  EXPECT_EQ(expected, describe(deep, true));
  EXPECT_EQ("<{urn:a}a {urn:p}x='1' {}y='2' :=urn:a p:=urn:p></>", describe(shallow, true));
  EXPECT_EQ(nullptr, wb_dom_get_parent(deep));
  wb_dom_node *inner = wb_dom_get_first_child(deep);
  ASSERT_TRUE(wb_dom_import(context, inner, true, &same, nullptr));
  EXPECT_EQ("<{urn:p}b><{urn:a}c></>u</>", describe(same));
  add(inner, same);  // a copy may go below its own source
  EXPECT_EQ("<{urn:p}b><{urn:a}c></>u<{urn:p}b><{urn:a}c></>u</></>", describe(inner));
}

constexpr size_t kLevels = 200000;

// The depth of a tree, seen from its root.
size_t depth_of(const wb_dom_node *node) {
  size_t depth = 0;
  for (; node != nullptr; node = wb_dom_get_first_child(node)) ++depth;
  return depth;
}

TEST_F(Dom, DeepTreeBuiltByHand) {
  wb_dom_node *const root = element("{urn:a}a");
  wb_dom_node *last = root;
  for (size_t i = 1; i < kLevels; ++i) {
    wb_dom_node *child = element(i % 2 != 0 ? "{urn:b}b" : "{urn:a}a");
    add(last, child);
    last = child;
  }
  wb_dom_node *copy = nullptr;
  wb_dom_ctx *other = nullptr;
  ASSERT_TRUE(wb_dom_context_create(&other, nullptr));
  ASSERT_TRUE(wb_dom_import(other, root, true, &copy, nullptr));
  EXPECT_EQ(kLevels, depth_of(copy));
  EXPECT_TRUE(dom_text::serialized(root) == dom_text::serialized(copy));
  wb_dom_context_destroy(other);
  EXPECT_FALSE(wb_dom_add_child(last, root, &err));
}

TEST(DomParse, DeepTree) {
  std::string xml;
  for (size_t i = 0; i < kLevels; ++i) xml += "<a>";
  for (size_t i = 0; i < kLevels; ++i) xml += "</a>";
  const Document document(xml);
  ASSERT_NE(nullptr, document.root);
  EXPECT_EQ(kLevels, depth_of(document.root));
  xml.replace(3 * (kLevels - 1), 7, "<a/>");
  EXPECT_TRUE(xml == dom_text::serialized(document.root));
}

struct DocumentCase {
  const char *xml;
  const char *tree;  // null: refused
};

TEST(DomParse, Documents) {
  const DocumentCase cases[] = {
      {"<?xml version='1.0' encoding='utf-8'?>\n<!-- c --><a/><?p i?>\n", "<{}a></>"},
      {"\xEF\xBB\xBF<a/>", "<{}a></>"},
      {"<a>x<!-- c -->y<?p i?>z</a>", "<{}a>xyz</>"},
      {"<a>x<![CDATA[<&]]>&lt;&#x20AC;</a>", "<{}a>x<&<\xE2\x82\xAC</>"},
      {"<a>1\r\n2\r3</a>", "<{}a>1\n2\n3</>"},
      {"<a b=' x\n&#10;'/>", "<{}a {}b=' x \n'></>"},
      {"", nullptr},
      {"<a>", nullptr},
      {"<a/><b/>", nullptr},
      {"<a></b>", nullptr},
      {"<!DOCTYPE a><a/>", nullptr},
      {"<!DOCTYPE a [<!ENTITY e 'x'>]><a>&e;</a>", nullptr},
      {"<a>&e;</a>", nullptr},
      {"<a>\xFF</a>", nullptr},
      {"<a>\x01</a>", nullptr},
      {"<a b='1' b='2'/>", nullptr},
      {"<?p:q i?><a/>", nullptr},
      {"<?xml version='1.0' encoding='ISO-8859-1'?><a/>", nullptr},
      {"\xFF\xFE<\0a\0/\0>\0", nullptr},
  };
  for (const DocumentCase &c : cases) {
    const Document document(c.xml);
    EXPECT_EQ(c.tree == nullptr, document.root == nullptr) << c.xml;
    if (c.tree == nullptr) {
      EXPECT_EQ(WB_ERR_BAD_FORMAT, document.err.code) << c.xml;
    } else if (document.root != nullptr) {
      EXPECT_EQ(c.tree, describe(document.root));
    }
  }
}

// A tag of many megabytes, and very many attributes: both must take about linear time.
TEST(DomParse, LargeTag) {
  std::string xml = "<a xmlns:p='urn:p' ";
  for (int i = 0; i < 50000; ++i) xml += "p:b" + std::to_string(i) + "='" + std::string(100, 'v') + "' ";
  const Document document(xml + "/>");
  ASSERT_NE(nullptr, document.root);
  EXPECT_STREQ(std::string(100, 'v').c_str(), wb_dom_get_attribute(document.root, "{urn:p}b49999"));
}

TEST(DomContext, TellsItsMemory) {
  EXPECT_EQ(0U, wb_dom_context_get_memory(nullptr));
  size_t before = 0;
  for (const size_t length : {size_t{1}, size_t{100} << 10, size_t{1} << 20}) {
    const Document document("<a>" + std::string(length, 'x') + "</a>");
    ASSERT_NE(nullptr, document.root);
    const size_t memory = wb_dom_context_get_memory(wb_dom_get_context(document.root));
    EXPECT_GT(memory, before);
    EXPECT_GT(memory, length);
    EXPECT_LT(memory, 2 * length + 8192);
    before = memory;
  }
}

TEST(DomContext, ReferencesFromSeveralThreads) {
  wb_dom_node *root = nullptr;
  ASSERT_TRUE(wb_dom_parse("<a>text</a>", 11, &root, nullptr));
  wb_dom_ctx *context = wb_dom_get_context(root);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    ASSERT_TRUE(wb_dom_context_retain(context, nullptr));
    threads.emplace_back([=] {
      for (int n = 0; n < 1000; ++n) {
        EXPECT_TRUE(wb_dom_context_retain(context, nullptr));
        EXPECT_STREQ("text", wb_dom_get_first_text(root));
        wb_dom_context_destroy(context);
      }
      wb_dom_context_destroy(context);
    });
  }
  wb_dom_context_destroy(context);
  for (std::thread &thread : threads) thread.join();
}

// More names than the process remembers, the same ones in several threads, at one address and in two forms.
TEST(DomContext, NamesWithoutEndFromSeveralThreads) {
  const auto build = [] {
    wb_dom_ctx *context = nullptr;
    ASSERT_TRUE(wb_dom_context_create(&context, nullptr));
    for (int i = 0; i < 3000; ++i) {
      const std::string uri = "urn:many:" + std::to_string(i % 7), local = "name" + std::to_string(i);
      const std::string ename = "{" + uri + "}" + local;
      for (const std::string &name : {ename, uri + "|" + local}) {
        char given[64] = {};
        name.copy(given, sizeof given - 1);
        wb_dom_node *element = nullptr;
        ASSERT_TRUE(wb_dom_element_create(context, given, &element, nullptr));
        ASSERT_STREQ(ename.c_str(), wb_dom_get_ename(element));
        ASSERT_TRUE(wb_dom_set_attribute(element, given, "1", nullptr) &&
                    wb_dom_set_attribute(element, ename.c_str(), "2", nullptr));
        ASSERT_STREQ("2", wb_dom_get_attribute(element, given));
      }
    }
    wb_dom_context_destroy(context);
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) threads.emplace_back(build);
  for (std::thread &thread : threads) thread.join();
}

#if QLK_HAS_OOM
TEST(DomParse, SurvivesEveryAllocationFailure) {
  std::string xml = "<r xmlns='urn:r' xmlns:p='urn:p'>";
  for (int i = 0; i < 40; ++i)
    xml += "<p:n" + std::to_string(i) + " a='" + std::string(60, 'v') + "'>" + std::string(200, 't') + "</p:n" +
           std::to_string(i) + ">";
  xml += "</r>";
  char *text = nullptr;
  const auto run = [&](wb_err *err) {
    wb_dom_node *root = nullptr;
    bool good = wb_dom_parse(xml.data(), xml.size(), &root, err);
    good = good && wb_serialize_xml(root, &text, nullptr, err);
    std::free(std::exchange(text, nullptr));
    wb_dom_context_destroy(wb_dom_get_context(root));
    return good;
  };
  const long total = oom::count([&] { ASSERT_TRUE(run(nullptr)); });
  ASSERT_GT(total, 10);
  for (long nth = 1; nth <= total; ++nth) {
    const long before = oom::live();
    wb_err err{};
    const oom::FailNth failing(nth);
    EXPECT_FALSE(run(&err)) << nth;
    EXPECT_EQ(WB_ERR_NO_MEMORY, err.code) << nth;
    EXPECT_EQ(before, oom::live()) << nth;
  }
}
#endif

}  // namespace

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "owners.h"
#include "quillon_log_capture.h"

namespace {

class XmlHelpers : public testing::Test {
 protected:
  wb_dom_node *parse(const char *xml) {
    wb_dom_node *root = nullptr;
    EXPECT_TRUE(wb_dom_parse(xml, strlen(xml), &root, nullptr)) << xml;
    context_.reset(wb_dom_get_context(root));
    return root;
  }
  static std::string written(const wb_dom_node *node) {
    char *xml = nullptr;
    EXPECT_TRUE(wb_serialize_xml(node, &xml, nullptr, nullptr));
    const qlk::MallocPtr<char> owned(xml);
    return xml != nullptr ? xml : "";
  }

 private:
  qlk::DomContextPtr context_;
};

TEST_F(XmlHelpers, AddChildAppendsInCallOrder) {
  const test_support::QuillonLogCapture log;
  wb_dom_node *root = parse("<a><b/></a>");
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_xml_add_child_and_text(root, "{}c", "1 < 2"));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_xml_add_child_and_text(root, "{}d", ""));
  EXPECT_EQ("<a><b/><c>1 &lt; 2</c><d></d></a>", written(root));
  EXPECT_STREQ("", quillon_xml_get_text_of_first_child_of_name(root, "{}d"));
  const std::string before = written(root);
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_xml_add_child_and_text(nullptr, "{}c", "x"));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_xml_add_child_and_text(root, nullptr, "x"));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_xml_add_child_and_text(root, "{}c", nullptr));
  EXPECT_EQ((std::vector<std::string>{"parent is null", "child name is null", "text is null"}), log.records());
  EXPECT_EQ(QUILLON_STATUS_XML_ERROR, quillon_xml_add_child_and_text(root, "{}no name", "x"));
  EXPECT_EQ(1u, log.count("_dom_add_child_and_text")) << log.all();
  EXPECT_EQ(before, written(root));
}

struct SiblingCase {
  const char *name, *xml, *wanted;
  const char *found;  // the attribute n of the sibling that is found
};
const SiblingCase kSiblingCases[] = {
    {"Exact", "<r xmlns='u'><a/><x/><jid n='1'/><jid n='2'/></r>", "{u}jid", "1"},
    {"NotItself", "<r xmlns='u'><jid/><a/></r>", "{u}jid", nullptr},
    {"ShorterNameMatches", "<r xmlns='u'><a/><j n='1'/><jid n='2'/></r>", "{u}jid", "1"},
    {"LongerNameDoesNot", "<r xmlns='u'><a/><jidx n='1'/></r>", "{u}jid", nullptr},
    {"OtherNamespace", "<r xmlns='u'><a/><jid xmlns='v' n='1'/></r>", "{u}jid", nullptr},
    {"LastChild", "<r xmlns='u'><a/></r>", "{u}jid", nullptr},
};
TEST_F(XmlHelpers, SiblingIsTheFirstWhoseNameTheWantedOneBeginsWith) {
  for (const SiblingCase &c : kSiblingCases) {
    wb_dom_node *first = wb_dom_get_first_child(parse(c.xml));
    wb_dom_node *sibling = first;
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_xml_get_sibling_of_name(first, c.wanted, &sibling)) << c.name;
    EXPECT_STREQ(c.found, sibling != nullptr ? wb_dom_get_attribute(sibling, "n") : nullptr) << c.name;
    sibling = first;
    EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_xml_get_sibling_of_name(nullptr, c.wanted, &sibling));
    EXPECT_EQ(nullptr, sibling);
  }
}

TEST_F(XmlHelpers, NameTestLooksAtTheBeginning) {
  wb_dom_node *node = parse("<tokenX xmlns='u'/>");
  EXPECT_TRUE(quillon_xml_is_ename(node, "{u}tokenX"));
  EXPECT_TRUE(quillon_xml_is_ename(node, "{u}token"));
  EXPECT_TRUE(quillon_xml_is_ename(node, ""));
  EXPECT_FALSE(quillon_xml_is_ename(node, "{u}tokenXY"));
  EXPECT_FALSE(quillon_xml_is_ename(node, "{v}tokenX"));
  EXPECT_FALSE(quillon_xml_is_ename(node, nullptr));
  EXPECT_FALSE(quillon_xml_is_ename(nullptr, ""));
}

TEST_F(XmlHelpers, TextOfChildWantsTheExactName) {
  wb_dom_node *root = parse("<r xmlns='u'><ab>1</ab><a>2</a><a>3</a><empty/></r>");
  EXPECT_STREQ("2", quillon_xml_get_text_of_first_child_of_name(root, "{u}a"));
  EXPECT_EQ(nullptr, quillon_xml_get_text_of_first_child_of_name(root, "{u}empty"));
  EXPECT_EQ(nullptr, quillon_xml_get_text_of_first_child_of_name(root, "{u}b"));
  EXPECT_EQ(nullptr, quillon_xml_get_text_of_first_child_of_name(root, nullptr));
  EXPECT_EQ(nullptr, quillon_xml_get_text_of_first_child_of_name(nullptr, "{u}a"));
}

struct SenderCase {
  const char *xml, *sender;
};
const SenderCase kSenderCases[] = {
    {"<iq from='a@b/qlk'><x from='no'><y/></x></iq>", "a@b"},
    {"<iq from='a@b'><x><y/></x></iq>", "a@b"},
    {"<iq from='a@b/c/d'><x><y/></x></iq>", "a@b"},
    {"<iq><x from='no'><y/></x></iq>", ""},
};
TEST_F(XmlHelpers, SenderIsTheRootsBareJid) {
  for (const SenderCase &c : kSenderCases) {
    wb_dom_node *deep = wb_dom_get_first_child(wb_dom_get_first_child(parse(c.xml)));
    char sender[16] = "###############";
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_xml_get_sender(deep, sender));
    EXPECT_STREQ(c.sender, sender) << c.xml;
    EXPECT_EQ('#', sender[strlen(c.sender) + 1]) << c.xml;  // not a byte more than needed
  }
  char room[2049] = "#";
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_xml_get_sender(nullptr, room));
  EXPECT_STREQ("", room);
  for (const size_t length : {size_t{2047}, size_t{2048}}) {
    room[2048] = '#';
    const std::string from(length, 'a');
    EXPECT_EQ(QUILLON_STATUS_OK, quillon_xml_get_sender(parse(("<iq from='" + from + "/r'/>").c_str()), room));
    EXPECT_EQ(length < 2048 ? from : "", room);
    EXPECT_EQ('#', room[2048]);
  }
}

}  // namespace

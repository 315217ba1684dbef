#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <quillon.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using quillon::xml::child_range;
using quillon::xml::element;
using quillon::xml::view;

static_assert(std::forward_iterator<child_range::iterator>);
static_assert(!std::is_copy_constructible_v<element> && !std::is_copy_assignable_v<element>);
static_assert(std::is_nothrow_move_constructible_v<element> && std::is_nothrow_move_assignable_v<element>);

std::string xml_of(const view &looked_at) { return looked_at.to_string().value(); }

element parse(std::string_view xml) { return element::parse(xml).value(); }

TEST(CppXml, ABuildIsOneExpression) {
  const struct {
    const char *xml;
    element built;
  } cases[] = {
      {"<day/>", element("day")},
      {"<day/>", element("{}day")},
      {R"(<day xmlns="urn:w">Monday</day>)", element("{urn:w}day", "Monday")},
      {R"(<day xmlns="urn:w" lang="en">&lt;&amp;</day>)", element("{urn:w}day").attribute("lang", "en").text("<&")},
      {R"(<day lang="de"/>)", element("day").attribute("lang", "en").attribute("lang", "de")},
      {R"(<day lang=""/>)", element("day").attribute("lang", "")},
      {R"(<report xmlns="urn:w"><t>21</t><w/></report>)", element("{urn:w}report").child("t", "21").child("w")},
      {R"(<report xmlns="urn:w"><t xmlns="">21</t></report>)", element("{urn:w}report").child("{}t", "21")},
      {R"(<a xmlns="urn:w"><b>1<c xmlns="urn:x">2</c></b></a>)",
       element("{urn:w}a").child(element("{urn:w}b", "1").child(element("{urn:x}c", "2")))},
      {R"(<w:a xmlns:w="urn:w"><w:b/></w:a>)", element("{urn:w}a").prefix("w", "urn:w").child("b")},
  };
  for (const auto &c : cases) EXPECT_EQ(c.xml, xml_of(c.built));
}

TEST(CppXml, IsBuiltStepByStepToo) {
  element list("{urn:w}list");
  for (int i = 0; i < 3; ++i) list.child("item", std::to_string(i));
  const element extra("{urn:w}more");
  list.child(extra).attribute("complete", "no").text("end");
  EXPECT_EQ(R"(<list xmlns="urn:w" complete="no"><item>0</item><item>1</item><item>2</item><more/>end</list>)", xml_of(list));
  EXPECT_TRUE(extra) << "it was copied";
}

TEST(CppXml, AStepThatFailsMakesItEmpty) {
  using namespace std::string_view_literals;
  const element cases[] = {
      element("no name"),
      element(""),
      element("{urn:w"),
      element("a\0b"sv),
      element("a", "x\0y"sv),
      element("a").attribute("no name", "x").child("b"),
      element("a").attribute("b", "x\0y"sv),
      element("a").child("no name"),
      element("a").child("b", "x\0y"sv),
      element("a").child(element("no name")),
      element("a").prefix("xml", "urn:w"),
      element().text("x"),
  };
  for (const auto &failed : cases) {
    EXPECT_FALSE(failed) << &failed - cases;
    EXPECT_EQ(QUILLON_STATUS_XML_ERROR, failed.to_string().status());
  }
  EXPECT_EQ(QUILLON_STATUS_XML_ERROR, element("a", "\x01").to_string().status()) << "seen when it is written";
}

TEST(CppXml, IsReadThroughItsNames) {
  const element report = parse(
      "<report xmlns='urn:w' xmlns:x='urn:x' station='north'>before"
      "<t unit='C'>21</t><x:t>294</x:t><t>20</t><place><city>Bergen</city></place></report>");
  EXPECT_EQ("{urn:w}report", report.name());
  EXPECT_EQ("report", report.local_name());
  EXPECT_EQ("urn:w", report.namespace_uri());
  EXPECT_TRUE(report.is("{urn:w}report"));
  EXPECT_FALSE(report.is("report"));
  EXPECT_EQ("before", report.text());
  EXPECT_EQ("north", report.attribute("station"));
  EXPECT_EQ(std::nullopt, report.attribute("x"));
  const std::pair<const char *, const char *> texts[] = {{"t", "21"}, {"{urn:w}t", "21"}, {"{urn:x}t", "294"},
                                                         {"{}t", ""}, {"nothing", ""},    {"{urn:w", ""}};
  for (const auto &[name, text] : texts) EXPECT_EQ(text, report.find(name).text()) << name;
  EXPECT_EQ("C", report.find("t").attribute("unit"));
  const view city = report.find("place").find("city");
  EXPECT_EQ("Bergen", city.text());
  EXPECT_EQ(report.handle(), city.parent().parent().handle());
  EXPECT_FALSE(report.parent());
}

TEST(CppXml, ChildrenAreARange) {
  const element report = parse("<r xmlns='urn:w'>x<a>1</a><b>2</b>y<a>3</a><a xmlns='urn:other'>4</a></r>");
  const auto joined = [](const child_range &children) {
    std::string texts;
    for (const view child : children) texts += child.text();
    return texts;
  };
  EXPECT_EQ("1234", joined(report.children()));
  EXPECT_EQ("13", joined(report.children("a")));
  EXPECT_EQ("4", joined(report.children("{urn:other}a")));
  EXPECT_EQ("", joined(report.children("c")));
  EXPECT_TRUE(report.children("c").empty());
  EXPECT_EQ("", joined(view().children()));
  const auto all = report.children();
  EXPECT_EQ(4, std::distance(all.begin(), all.end()));
}

TEST(CppXml, AnEmptyViewReadsAsNothing) {
  const view nothing;
  EXPECT_FALSE(nothing);
  EXPECT_EQ("", nothing.name());
  EXPECT_EQ("", nothing.text());
  EXPECT_EQ("", nothing.sender());
  EXPECT_EQ(std::nullopt, nothing.attribute("a"));
  EXPECT_FALSE(nothing.find("a").find("b").parent());
  EXPECT_FALSE(nothing.is(""));
  EXPECT_FALSE(nothing.copy());
}

TEST(CppXml, TheSenderStandsOutside) {
  const element stanza = parse("<iq from='alice@d/qlk'><grid><day/></grid></iq>");
  EXPECT_EQ("alice@d", stanza.find("grid").find("day").sender());
  EXPECT_EQ("alice@d", parse("<iq from='alice@d'><a/></iq>").find("a").sender().substr(0));
  EXPECT_EQ("", parse("<iq><a/></iq>").find("a").sender());
}

TEST(CppXml, OnlyWholeDocumentsAreRead) {
  for (const char *xml : {"", "<a>", "<a/><b/>", "<!DOCTYPE a><a/>", "text"})
    EXPECT_EQ(QUILLON_STATUS_XML_ERROR, element::parse(xml).status()) << xml;
  EXPECT_EQ(QUILLON_STATUS_XML_ERROR, element::parse({}).status());
  EXPECT_EQ("<a/>", xml_of(parse("<?xml version='1.0'?><!-- x --><a></a>")));
}

TEST(CppXml, ATreeHasOneOwner) {
  element first("a", "x");
  wb_dom_node *const node = first.handle();
  element second = std::move(first);
  EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): that is what it is about
  EXPECT_EQ(node, second.handle());
  second = element("b");
  EXPECT_EQ("<b/>", xml_of(second));
  element &itself = second;
  second = std::move(itself);
  EXPECT_EQ("<b/>", xml_of(second));
  wb_dom_node *const released = second.release();
  EXPECT_FALSE(second);
  EXPECT_EQ("<b/>", xml_of(element::adopt(released)));
}

TEST(CppXml, ACopySharesNothing) {
  element original = parse("<r xmlns='urn:w'><a b='c'>1</a></r>");
  element copy = original.find("a").copy();
  original = {};
  EXPECT_EQ(R"(<a xmlns="urn:w" b="c">12</a>)", xml_of(copy.text("2")));
  EXPECT_FALSE(copy.parent());
}

}  // namespace

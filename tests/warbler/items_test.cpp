#include <gtest/gtest.h>
#include <malloc.h>
#include <warbler/items.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "dom_text.h"
#include "oom.h"

namespace {

struct ReaderDestroy {
  void operator()(wb_item_reader *reader) const { wb_item_reader_destroy(reader); }
};
using Reader = std::unique_ptr<wb_item_reader, ReaderDestroy>;

struct Outcome {
  std::string items;  // one a line
  wb_errcode error = WB_ERR_NONE;
  int texts_before_children = 0;
  bool operator==(const Outcome &) const = default;
};

void PrintTo(const Outcome &outcome, std::ostream *out) {
  *out << "error " << static_cast<int>(outcome.error) << ", " << outcome.texts_before_children
       << " texts before children, items:\n"
       << outcome.items;
}

void record_item(wb_dom_node *item, void *arg) {
  static_cast<Outcome *>(arg)->items += dom_text::describe(item, true) + "\n";
  wb_dom_context_destroy(wb_dom_get_context(item));
}

wb_item_reader_options bulk_options() {
  wb_item_reader_options options = {};
  options.item_depth = 2;
  options.text_waits = true;
  options.on_item = record_item;
  options.on_text_before_child = [](void *arg) { ++static_cast<Outcome *>(arg)->texts_before_children; };
  return options;
}

Reader make_reader(wb_item_reader_options options, void *arg) {
  options.arg = arg;
  wb_item_reader *reader = nullptr;
  EXPECT_TRUE(wb_item_reader_create(&options, &reader, nullptr));
  return Reader(reader);
}

bool feed(const Reader &reader, const std::string &bytes, wb_err *err = nullptr) {
  return wb_item_reader_feed(reader.get(), bytes.data(), bytes.size(), err);
}

Outcome run(const std::string &xml, size_t piece, const wb_item_reader_options &options) {
  Outcome outcome;
  const Reader reader = make_reader(options, &outcome);
  for (size_t at = 0; at < xml.size(); at += piece) {
    wb_err err{};
    if (!feed(reader, xml.substr(at, piece), &err)) outcome.error = err.code;
  }
  return outcome;
}

// The outcome must not depend on how the bytes are cut.
void expect_outcome(const std::string &xml, const Outcome &expected, const wb_item_reader_options &options = bulk_options()) {
  SCOPED_TRACE(xml.substr(0, 500));
  for (const size_t piece : {xml.size(), size_t{1}, size_t{2}, size_t{3}, size_t{7}, size_t{64}}) {
    EXPECT_EQ(expected, run(xml, piece, options)) << "pieces of " << piece;
  }
}

struct ItemsCase {
  const char *name, *xml, *items;
  wb_errcode error = WB_ERR_NONE;
  int texts_before_children = 0;
};

void PrintTo(const ItemsCase &c, std::ostream *out) { *out << c.name; }

class Items : public testing::TestWithParam<ItemsCase> {};

TEST_P(Items, AnyCut) {
  const ItemsCase &c = GetParam();
  expect_outcome(c.xml, {c.items, c.error, c.texts_before_children});
}

const auto case_name = [](const auto &info) { return std::string(info.param.name); };

INSTANTIATE_TEST_SUITE_P(
    Documents, Items,
    testing::Values(
        ItemsCase{"grandchildren", "<r><c><i>1</i><i>2</i></c><i/><c a='1'>text<i>3</i></c></r>",
                  "<{}i>1</>\n<{}i>2</>\n<{}i>3</>\n"},
        ItemsCase{"nothing", "<r>text<c/> <c>text</c></r>", ""},
        ItemsCase{"text_goes_to_the_next_end_tag", "<r><c>\n <i>\n  <a>x</a>\n  <b/>y<b>z</b>\n </i>\n</c></r>",
                  "<{}i><{}a>\n  x</><{}b>\n  </><{}b>yz</>\n </>\n", WB_ERR_NONE, 3},
        ItemsCase{"text_around_one_child", "<r><c><i>a<b/>c</i></c></r>", "<{}i><{}b>a</>c</>\n", WB_ERR_NONE, 1},
        ItemsCase{"text_two_levels_down", "<r><c><i> <a> <b>x</b> </a> </i></c></r>", "<{}i><{}a><{}b>  x</> </> </>\n",
                  WB_ERR_NONE, 2},
        ItemsCase{"no_declarations", "<r xmlns='u:1' xmlns:p='u:2'><c><i><p:a p:b='1' b='2' xmlns:q='u:3' q:c=''/></i></c></r>",
                  "<{u:1}i><{u:2}a {u:2}b='1' {u:3}c='' {}b='2'></></>\n"},
        ItemsCase{"a_bar_in_a_namespace", "<r xmlns='u|1'><c><i/></c></r>", "<{u|1}i></>\n"},
        ItemsCase{"character_references", "<r><c><i a='&lt;&#10;'>a&amp;b&#x41;<![CDATA[<&]]>&gt;</i></c></r>",
                  "<{}i {}a='<\n'>a&bA<&></>\n"},
        ItemsCase{"line_ends", "<r><c><i>a\r\nb\rc</i></c></r>", "<{}i>a\nb\nc</>\n"},
        ItemsCase{"not_ascii", "<r><c><\xC3\xA9t\xC3\xA9>\xE2\x82\xAC</\xC3\xA9t\xC3\xA9></c></r>",
                  "<{}\xC3\xA9t\xC3\xA9>\xE2\x82\xAC</>\n"},
        ItemsCase{"latin_1", "<?xml version='1.0' encoding='ISO-8859-1'?><r><c><i>\xE9</i></c></r>", "<{}i>\xC3\xA9</>\n"},
        ItemsCase{"comments_and_instructions",
                  "<!--a-><--><?p > ?><r><!----><c><?q ?><i>a<!-- - > -->b<?r?>c</i></c></r><!-- -->", "<{}i>abc</>\n"},
        ItemsCase{"markup_in_attributes", "<r><c><i a='>' b=\"'>\"/></c></r>", "<{}i {}a='>' {}b=''>'></>\n"},
        ItemsCase{"a_document_type_by_name", "<!DOCTYPE r SYSTEM 'r.dtd'><r><c><i/></c></r>", "<{}i></>\n"},
        ItemsCase{"breaks_off_in_an_item", "<r><c><i>1</i><i>2", "<{}i>1</>\n"},
        ItemsCase{"breaks_off_in_a_tag", "<r><c><i>1</i><i a='", "<{}i>1</>\n"},
        ItemsCase{"breaks_off_before_the_end", "<r><c><i>1</i>", "<{}i>1</>\n"}),
    case_name);

INSTANTIATE_TEST_SUITE_P(
    Faults, Items,
    testing::Values(
        ItemsCase{"wrong_end_tag", "<r><c><i>1</i><i>2</j></i></c></r>", "<{}i>1</>\n", WB_ERR_BAD_FORMAT},
        ItemsCase{"after_the_end", "<r><c><i>1</i></c></r><r><c><i>2</i></c></r>", "<{}i>1</>\n", WB_ERR_BAD_FORMAT},
        ItemsCase{"no_xml", "Service unavailable", "", WB_ERR_BAD_FORMAT},
        ItemsCase{"a_bad_character", "<r><c><i>1</i><i>\x01</i></c></r>", "<{}i>1</>\n", WB_ERR_BAD_FORMAT},
        ItemsCase{"no_utf_8", "<r><c><i>1</i><i>\xC3(</i></c></r>", "<{}i>1</>\n", WB_ERR_BAD_FORMAT},
        ItemsCase{"no_utf_8_around_items", "<r><c><i>1</i>\xFF</c></r>", "<{}i>1</>\n", WB_ERR_BAD_FORMAT},
        ItemsCase{"an_unbound_prefix", "<r><c><i>1</i><p:i/></c></r>", "<{}i>1</>\n", WB_ERR_BAD_FORMAT},
        ItemsCase{"an_unbound_prefix_around_items", "<r><c><i>1</i></c><p:c/></r>", "<{}i>1</>\n", WB_ERR_BAD_FORMAT},
        ItemsCase{"an_attribute_twice", "<r xmlns:p='u' xmlns:q='u'><c><i p:a='' q:a=''/></c></r>", "", WB_ERR_BAD_FORMAT},
        ItemsCase{"an_unknown_entity", "<r><c><i>1</i><i>&nothing;</i></c></r>", "<{}i>1</>\n", WB_ERR_BAD_FORMAT},
        ItemsCase{"an_entity_declared", "<!DOCTYPE r [<!ENTITY a 'b'>]><r><c><i>&a;</i></c></r>", "", WB_ERR_BAD_FORMAT},
        ItemsCase{"an_attribute_declared", "<!DOCTYPE r [<!ATTLIST i a CDATA 'b'>]><r><c><i/></c></r>", "", WB_ERR_BAD_FORMAT}),
    case_name);

TEST(ItemReader, AZeroByteIsAFault) {
  std::string xml = "<r><c><i>1</i><i>2</i></c></r>";
  xml[xml.find('2')] = '\0';
  expect_outcome(xml, {"<{}i>1</>\n", WB_ERR_BAD_FORMAT});
}

TEST(ItemReader, Utf16) {
  std::string xml = "\xFF\xFE";
  for (const char c : std::string("<r><c><i a='1'>2</i></c></r>")) xml.append(1, c).append(1, '\0');
  expect_outcome(xml, {"<{}i {}a='1'>2</>\n"});
}

TEST(ItemReader, AnyDepthAndTextThatStays) {
  wb_item_reader_options options = bulk_options();
  options.text_waits = false;
  const std::string xml = "<r>a<c>b<i>c</i>d</c>e</r>";
  const char *const expected[] = {"<{}r>a<{}c>b<{}i>c</>d</>e</>\n", "<{}c>b<{}i>c</>d</>\n", "<{}i>c</>\n", ""};
  for (unsigned depth = 0; depth < 4; ++depth) {
    options.item_depth = depth;
    expect_outcome(xml, {expected[depth]}, options);
  }
}

TEST(ItemReader, Arguments) {
  wb_item_reader_options options = bulk_options();
  wb_item_reader *reader = nullptr;
  wb_err err{};
  EXPECT_FALSE(wb_item_reader_create(nullptr, &reader, &err));
  EXPECT_EQ(WB_ERR_INVALID_ARG, err.code);
  EXPECT_FALSE(wb_item_reader_create(&options, nullptr, nullptr));
  options.on_item = nullptr;
  EXPECT_FALSE(wb_item_reader_create(&options, &reader, &err));
  EXPECT_EQ(nullptr, reader);
  EXPECT_FALSE(wb_item_reader_feed(nullptr, "", 0, &err));
  EXPECT_EQ(WB_ERR_INVALID_ARG, err.code);
  wb_item_reader_destroy(nullptr);
  const Reader real = make_reader(bulk_options(), nullptr);
  EXPECT_FALSE(wb_item_reader_feed(real.get(), nullptr, 1, nullptr));
  EXPECT_TRUE(wb_item_reader_feed(real.get(), nullptr, 0, nullptr));
}

// ---- Limits

struct LimitCase {
  const char *name;
  std::string within, over;  // around one item
  wb_item_reader_options options;
};

TEST(ItemReader, Limits) {
  const auto nested = [](size_t depth) {
    std::string xml;
    for (size_t i = 0; i < depth; ++i) xml += "<a>";
    for (size_t i = 0; i < depth; ++i) xml += "</a>";
    return xml;
  };
  wb_item_reader_options depth = bulk_options(), bytes = bulk_options(), token = bulk_options();
  depth.depth_max = 10;
  bytes.item_bytes_max = 64u << 10;
  token.token_bytes_max = 1000;
  const LimitCase cases[] = {
      {"depth", "<i>" + nested(7) + "</i>", "<i>" + nested(8) + "</i>", depth},
      {"text", "<i>" + std::string(40000, 'x') + "</i>", "<i>" + std::string(200000, 'x') + "</i>", bytes},
      {"attribute", "<i a='" + std::string(40000, 'x') + "'/>", "<i a='" + std::string(200000, 'x') + "'/>", bytes},
      {"elements", "<i>" + nested(100) + "</i>", "<i>" + nested(5000) + "</i>", bytes},
      {"token", "<i a='" + std::string(900, 'x') + "'/>", "<i a='" + std::string(1100, 'x') + "'/>", token},
      {"comment", "<i><!--" + std::string(900, 'x') + "--></i>", "<i><!--" + std::string(1100, 'x') + "--></i>", token},
  };
  for (const LimitCase &c : cases) {
    SCOPED_TRACE(c.name);
    for (const size_t piece : {1u, 100u, 1u << 20}) {
      const Outcome within = run("<r><c>" + c.within + "</c></r>", piece, c.options);
      EXPECT_EQ(WB_ERR_NONE, within.error) << piece;
      EXPECT_EQ(1, std::count(within.items.begin(), within.items.end(), '\n')) << piece;
      EXPECT_EQ((Outcome{"<{}i></>\n", WB_ERR_BAD_FORMAT}), run("<r><c><i/>" + c.over + "</c></r>", piece, c.options)) << piece;
    }
  }
}

// Feeds the piece until the reader has had enough, at most so often, and tells how much memory it took at the most.
size_t feed_until_refused(const std::string &head, const std::string &piece, size_t times, wb_errcode &error) {
  Outcome outcome;
  const size_t before = mallinfo2().uordblks + mallinfo2().hblkhd;
  const Reader reader = make_reader(bulk_options(), &outcome);
  wb_err err{};
  size_t most = 0;
  bool fine = feed(reader, head, &err);
  for (size_t i = 0; fine && i < times; ++i) {
    fine = feed(reader, piece, &err);
    most = std::max(most, mallinfo2().uordblks + mallinfo2().hblkhd - before);
  }
  error = fine ? WB_ERR_NONE : err.code;
  return most;
}

TEST(ItemReader, WhatNeverEndsIsRefusedInBoundedMemory) {
  const std::string kilobytes(16u << 10, 'x');
  const struct {
    const char *name;
    std::string head, piece;
    size_t times, mebibytes;
  } cases[] = {
      {"a million nested elements", "<r><c>", "<a><a><a><a><a><a><a><a><a><a>", 100000, 8},
      {"a million elements around items", "<r>", "<a/>", 1, 1},
      {"a text of 100 MiB", "<r><c><i>", kilobytes, 6400, 100},
      {"a text of 100 MiB around items", "<r><c>", kilobytes, 6400, 1},
      {"a tag of 100 MiB", "<r><c><i a='", kilobytes, 6400, 16},
      {"attributes without end", "<r><c><i", " a" + kilobytes + "='1'", 6400, 16},
      {"a comment of 100 MiB", "<r><!--", kilobytes, 6400, 16},
      {"a name of 100 MiB", "<r><", kilobytes, 6400, 16},
      {"a reference of 100 MiB", "<r>&", kilobytes, 6400, 4},
      {"a document type of 100 MiB", "<!DOCTYPE ", kilobytes, 6400, 4},
      {"an end tag of 100 MiB", "<r></", kilobytes, 6400, 16},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    wb_errcode error = WB_ERR_NONE;
    const size_t most = feed_until_refused(c.head, c.piece, c.times, error);
    const bool is_harmless = c.mebibytes == 1;
    EXPECT_EQ(is_harmless ? WB_ERR_NONE : WB_ERR_BAD_FORMAT, error);
#if QLK_TELLS_MEMORY
    EXPECT_LE(most >> 20, c.mebibytes);
#else
    static_cast<void>(most);  // a sanitizer's allocator does not tell
#endif
  }
}

// ---- Names: the parser is replaced when they have become many

std::string numbered_item(int i) {
  const std::string n = std::to_string(i);
  return "<p:i" + n + " q:a" + n + "='" + n + "'><b" + n + ">t</b" + n + "></p:i" + n + ">";
}

std::string described_item(int i) {
  const std::string n = std::to_string(i);
  return "<{u:p}i" + n + " {u:q}a" + n + "='" + n + "'><{u:d}b" + n + ">t</></>\n";
}

TEST(ItemReaderNames, ReplacementIsNotSeen) {
  std::string xml = "<!--x--><r xmlns='u:d' xmlns:p='u:wrong' a='&lt;&amp;'><c xmlns:p='u:p' xmlns:q='u:q'>";
  std::string expected;
  for (int i = 0; i < 3000; ++i) {
    xml += numbered_item(i);
    expected += described_item(i);
    if (i % 500 != 499) continue;
    const std::string n = std::to_string(i);
    xml += "</c><c" + n + " xmlns='u:d' xmlns:p='u:p' xmlns:q='u:q'>";
    xml += "</c" + n + "><c xmlns:p='u:p' xmlns:q='u:q'>";
  }
  xml += "</c></r>";
  for (const size_t piece : {xml.size(), size_t{16384}, size_t{7}}) {
    EXPECT_TRUE((Outcome{expected} == run(xml, piece, bulk_options()))) << piece;
    EXPECT_TRUE((Outcome{expected, WB_ERR_BAD_FORMAT} == run(xml + "<r>", piece, bulk_options()))) << piece;
    EXPECT_EQ(WB_ERR_BAD_FORMAT, run(xml.substr(0, xml.size() - 4) + "</s>", piece, bulk_options()).error) << piece;
  }
}

#if QLK_TELLS_MEMORY
TEST(ItemReaderNames, EndlesslyNewNamesStayFlat) {
  for (const bool around : {false, true}) {
    Outcome outcome;
    const Reader reader = make_reader(bulk_options(), &outcome);
    ASSERT_TRUE(feed(reader, std::string("<r xmlns:p='u:p' xmlns:q='u:q'>") + (around ? "" : "<c>")));
    const size_t before = mallinfo2().uordblks;
    size_t most = 0;
    for (int i = 0; i < 60000; ++i) {
      ASSERT_TRUE(feed(reader, numbered_item(i)));
      std::string().swap(outcome.items);
      if (i % 100 != 99) continue;
      most = std::max(most, mallinfo2().uordblks - std::min(mallinfo2().uordblks, before));
    }
    EXPECT_LT(most, 2u << 20) << around;  // what it takes without the replacement is more than ten times as much
  }
}

TEST(ItemReaderMemory, SurvivesEveryAllocationFailure) {
  std::string xml = "<r xmlns='u:d' xmlns:p='u:p' xmlns:q='u:q'><c>";
  for (int i = 0; i < 10; ++i) xml += numbered_item(i);
  xml += "<i>" + std::string(20000, 'x') + "</i></c></r>";
  const auto attempt = [&] {
    size_t items = 0;
    wb_item_reader_options options = {};
    options.item_depth = 2;
    options.text_waits = true;
    options.on_item = [](wb_dom_node *item, void *arg) {
      ++*static_cast<size_t *>(arg);
      wb_dom_context_destroy(wb_dom_get_context(item));
    };
    options.arg = &items;
    wb_item_reader *made = nullptr;
    wb_err err{};
    if (!wb_item_reader_create(&options, &made, &err)) return err.code;
    const Reader reader(made);
    for (size_t at = 0; at < xml.size(); at += 1000) {
      const size_t length = std::min<size_t>(1000, xml.size() - at);
      if (!wb_item_reader_feed(made, xml.data() + at, length, &err)) return err.code;
    }
    return items == 11 ? WB_ERR_NONE : WB_ERR_USER;
  };
  const long total = oom::count([&] { ASSERT_EQ(WB_ERR_NONE, attempt()); });
  ASSERT_GT(total, 20);
  for (long nth = 1; nth <= total; ++nth) {
    const long before = oom::live();
    {
      const oom::FailNth failing(nth);
      EXPECT_EQ(WB_ERR_NO_MEMORY, attempt()) << nth;
    }
    EXPECT_EQ(before, oom::live()) << nth;
  }
}
#endif

}  // namespace

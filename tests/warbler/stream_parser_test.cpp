#include "stream_parser.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "dom_text.h"
#include "oom.h"

namespace {

using wb::StreamError;
using wb::StreamLimits;
using wb::StreamParser;
using std::string_view_literals::operator""sv;

// Notes what it is told, one line an event.
struct Recorder : StreamParser::Handler {
  void on_stream_open(wb_dom_node *head) override { note("open " + dom_text::describe(head, true)); }
  void on_stanza(wb_dom_node *stanza) override { note(dom_text::describe(stanza)); }
  void on_stream_close() override { note("close"); }
  void note(const std::string &event) {
    events += event + "\n";
    ++count;
    if (then) then();
  }

  std::string events;
  int count = 0;
  std::function<void()> then;
};

struct Outcome {
  std::string events;
  StreamError error;
  bool operator==(const Outcome &) const = default;
};

void PrintTo(const Outcome &outcome, std::ostream *out) {
  *out << "error " << static_cast<int>(outcome.error) << ", events:\n" << outcome.events;
}

Outcome run(const std::vector<std::string> &pieces, const StreamLimits &limits = {}) {
  Recorder recorder;
  StreamParser parser(recorder, limits);
  StreamError error = StreamError::none;
  for (const std::string &piece : pieces) error = parser.feed(piece.data(), piece.size());
  EXPECT_EQ(error == StreamError::none, parser.error_text()[0] == 0);
  return {recorder.events, error};
}

std::vector<std::string> in_pieces(const std::string &text, size_t size) {
  std::vector<std::string> pieces;
  for (size_t at = 0; at < text.size(); at += size) pieces.push_back(text.substr(at, size));
  return pieces;
}

// The outcome must not depend on how the bytes are cut.
void expect_outcome(const std::string &text, const Outcome &expected, const StreamLimits &limits = {}) {
  SCOPED_TRACE(text.substr(0, 500));
  EXPECT_EQ(expected, run({text}, limits)) << "whole";
  for (const size_t size : {1u, 2u, 3u, 7u}) EXPECT_EQ(expected, run(in_pieces(text, size), limits)) << "pieces of " << size;
  for (size_t cut = 1; cut < text.size(); ++cut) {
    EXPECT_EQ(expected, run({text.substr(0, cut), text.substr(cut)}, limits)) << "cut at " << cut;
  }
}

const char kHead[] = "<?xml version='1.0'?><stream:stream xmlns='jabber:client' xmlns:stream='urn:s' id='1'>";
const char kOpened[] = "open <{urn:s}stream {}id='1' :=jabber:client stream:=urn:s></>\n";

struct StreamCase {
  const char *name, *xml, *events;
  StreamError error;
};

void PrintTo(const StreamCase &c, std::ostream *out) { *out << c.name; }

class StreamAfterHead : public testing::TestWithParam<StreamCase> {};
TEST_P(StreamAfterHead, AnyCut) {
  expect_outcome(std::string(kHead) + GetParam().xml, {std::string(kOpened) + GetParam().events, GetParam().error});
}

constexpr StreamError kNone = StreamError::none;
constexpr StreamError kMalformed = StreamError::not_well_formed;
constexpr StreamError kRestricted = StreamError::restricted_xml;
constexpr StreamError kNamespace = StreamError::bad_namespace;

const StreamCase kWellFormed[] = {
    {"Nothing", "", "", kNone},
    {"Blanks", " \n\t\r\n ", "", kNone},
    {"EmptyElement", "<presence/>", "<{jabber:client}presence></>\n", kNone},
    {"Unfinished", "<iq><a/", "", kNone},
    {"Nested", " <iq id='a'><q xmlns='u'><r/></q></iq>\n<m/>",
     "<{jabber:client}iq {}id='a'><{u}q><{u}r></></></>\n<{jabber:client}m></>\n", kNone},
    {"DefaultUndeclared", "<iq><a xmlns=''><b/></a><c/></iq>", "<{jabber:client}iq><{}a><{}b></></><{jabber:client}c></></>\n",
     kNone},
    {"PrefixOfTheHead", "<stream:features/>", "<{urn:s}features></>\n", kNone},
    {"PrefixRebound", "<p:a xmlns:p='1'><p:a xmlns:p='2'/><p:a/></p:a><stream:a xmlns:stream='3'/><stream:b/>",
     "<{1}a><{2}a></><{1}a></></>\n<{3}a></>\n<{urn:s}b></>\n", kNone},
    {"Attributes", "<a xmlns:p='u' p:x='1' x='2' xml:lang='en' xmlns:q='v' q:x='3'/>",
     "<{jabber:client}a {http://www.w3.org/XML/1998/namespace}lang='en' {u}x='1' {v}x='3' {}x='2'></>\n", kNone},
    {"XmlDeclaredAsItself", "<a xmlns:xml='http://www.w3.org/XML/1998/namespace'/>", "<{jabber:client}a></>\n", kNone},
    {"TextIsOneNode", "<a>x\ny&amp;<![CDATA[<z a='\">]]>&#x263A;\r\n</a>", "<{jabber:client}a>x\ny&<z a='\">\xE2\x98\xBA\n</>\n",
     kNone},
    {"GreaterInValue", "<a b='>' c=\"'>\"><b c='/>'/></a>",
     "<{jabber:client}a {}b='>' {}c=''>'><{jabber:client}b {}c='/>'></></>\n", kNone},
    {"BracketBeforeTag", "<a>]<b/>]]<c/></a>", "<{jabber:client}a>]<{jabber:client}b></>]]<{jabber:client}c></></>\n", kNone},
    {"Close", "<a/></stream:stream>", "<{jabber:client}a></>\nclose\n", kNone},
    {"NothingAfterClose", "</stream:stream><!-- c -->&&", "close\n", kNone},
};

const StreamCase kRefused[] = {
    {"TextBetweenStanzas", "<a/>x<b/>", "<{jabber:client}a></>\n", kMalformed},
    {"CdataBetweenStanzas", "<![CDATA[x]]>", "", kMalformed},
    {"WrongEndTag", "<a><b></a></b>", "", kMalformed},
    {"BadReference", "<a>&#0;</a>", "", kMalformed},
    {"LessInValue", "<a b='<'/>", "", kMalformed},
    {"NoUtf8", "<a/><b>\xFF</b>", "<{jabber:client}a></>\n", kMalformed},
    {"ControlCharacter", "<b>\x01</b>", "", kMalformed},
    {"SameAttribute", "<a b='1' b='2'/>", "", kMalformed},
    {"NoAttributeValue", "<a b/>", "", kMalformed},
    {"QuoteInEndTag", "<a></a \"></b>", "", kMalformed},
    {"Comment", "<a/><!-- c --><b/>", "<{jabber:client}a></>\n", kRestricted},
    {"CommentInStanza", "<a><!-- <b it's --></a>", "", kRestricted},
    {"Instruction", "<a><?p i?></a>", "", kRestricted},
    {"Entity", "<a>&e;</a>", "", kRestricted},
    {"EntityInValue", "<a b='&e;'/>", "", kRestricted},
    {"UnboundPrefix", "<p:a/>", "", kNamespace},
    {"UnboundAttributePrefix", "<a p:b=''/>", "", kNamespace},
    {"PrefixOutOfScope", "<a><b xmlns:p='u'/><p:c/></a>", "", kNamespace},
    {"PrefixUndeclared", "<a xmlns:p=''/>", "", kNamespace},
    {"XmlBoundElsewhere", "<a xmlns:xml='u'/>", "", kNamespace},
    {"XmlnsBound", "<a xmlns:xmlns='u'/>", "", kNamespace},
    {"XmlnsBoundToItself", "<a xmlns:xmlns='http://www.w3.org/2000/xmlns/'/>", "", kNamespace},
    {"XmlUriBound", "<a xmlns:p='http://www.w3.org/XML/1998/namespace'/>", "", kNamespace},
    {"XmlUriAsDefault", "<a xmlns='http://www.w3.org/XML/1998/namespace'/>", "", kNamespace},
    {"XmlnsUriBound", "<a xmlns:p='http://www.w3.org/2000/xmlns/'/>", "", kNamespace},
    {"XmlnsUriAsDefault", "<a xmlns='http://www.w3.org/2000/xmlns/'/>", "", kNamespace},
    {"XmlnsElement", "<xmlns:a/>", "", kNamespace},
    {"TwoColons", "<a:b:c xmlns:a='u'/>", "", kNamespace},
    {"EmptyLocal", "<a: xmlns:a='u'/>", "", kNamespace},
    {"EmptyPrefix", "<:a/>", "", kNamespace},
    {"LocalBeginsWithDigit", "<a:1 xmlns:a='u'/>", "", kNamespace},
    {"AttributeTwoColons", "<a xmlns:b='u' b:c:d=''/>", "", kNamespace},
    {"AttributeEmptyLocal", "<a xmlns:b='u' b:=''/>", "", kNamespace},
    {"DeclarationEmptyPrefix", "<a xmlns:='u'/>", "", kNamespace},
    {"DeclarationTwoColons", "<a xmlns:b:c='u'/>", "", kNamespace},
    {"DeclarationOfNoName", "<a xmlns:1='u'/>", "", kNamespace},
    {"SameExpandedAttribute", "<a xmlns:p='u' xmlns:q='u' p:b='1' q:b='2'/>", "", kNamespace},
};
const auto case_name = [](const auto &info) { return std::string(info.param.name); };
INSTANTIATE_TEST_SUITE_P(WellFormed, StreamAfterHead, testing::ValuesIn(kWellFormed), case_name);
INSTANTIATE_TEST_SUITE_P(Refused, StreamAfterHead, testing::ValuesIn(kRefused), case_name);

TEST(StreamHead, AnyCut) {
  expect_outcome("\xEF\xBB\xBF<?xml version='1.0' encoding='UTF-8'?>\n<a/>", {"open <{}a></>\nclose\n", kNone});
  expect_outcome("<?xml version='1.0' encoding='ISO-8859-1'?><a>", {"", StreamError::unsupported_encoding});
  for (const std::string_view utf16 :
       {"<\0a\0>\0"sv, "\0<\0a\0>"sv, "\xFF\xFE<\0a\0>\0"sv, "\xFE\xFF\0<\0a\0>"sv, " \0<\0a\0>\0"sv})
    expect_outcome(std::string(utf16), {"", StreamError::unsupported_encoding});
  expect_outcome("<!DOCTYPE a><a>", {"", kRestricted});
  expect_outcome("<!DOCTYPE a [<!ENTITY e 'x'>]><a>", {"", kRestricted});
  expect_outcome("<!-- c --><a>", {"", kRestricted});
  expect_outcome("<p:a>", {"", kNamespace});
  expect_outcome("<a ", {"", kNone});
  expect_outcome("HTTP/1.1 400 Bad Request\r\n", {"", kMalformed});
  expect_outcome("\x16\x03\x01", {"", kMalformed});
}

TEST(StreamLimit, Each) {
  StreamLimits limits;
  limits.max_stanza_bytes = 100;
  limits.max_depth = 3;
  limits.max_attributes = 2;
  const auto expect = [&](const std::string &xml, bool fits) {
    const std::string text = "<s>" + xml;
    const Outcome whole = run({text}, limits);
    EXPECT_EQ(fits ? kNone : StreamError::policy_violation, whole.error) << xml;
    EXPECT_EQ(fits, whole.events != "open <{}s></>\n") << xml;
    expect_outcome(text, whole, limits);
  };
  expect("<a><b><c/></b></a><a/>", true);
  expect("<a><b><c><d/></c></b></a>", false);
  expect("<a b='' xmlns:p='u'/>", true);
  expect("<a b='' c='' xmlns:p='u'/>", false);
  expect("<a>" + std::string(93, 'x') + "</a>", true);
  expect("<a>" + std::string(94, 'x') + "</a>", false);
  expect("<a b='" + std::string(91, 'x') + "'/>", true);
  expect("<a b='" + std::string(92, 'x') + "'/>", false);
  expect("<a><![CDATA[" + std::string(200, 'x'), false);
  expect("<a></a" + std::string(93, ' ') + ">", true);
  expect("<a></a" + std::string(94, ' ') + ">", false);
  expect("<a/>" + std::string(500, ' ') + "<a/>", true);
  expect_outcome("<s a='" + std::string(100, 'x') + "'>", {"", StreamError::policy_violation}, limits);
}

// Each expanded name begins with its URI: a tag of a few bytes would take as much as that is long.
TEST(StreamLimit, NamesInALongNamespace) {
  const std::string uri(100'000, 'u');
  std::string names, attributes;
  for (int i = 0; i < 1000; ++i) names += "<a" + std::to_string(i) + "/>";
  for (int i = 0; i < 200; ++i) attributes += " p:a" + std::to_string(i) + "=''";
  const Outcome refused{"open <{}s></>\n", StreamError::policy_violation};
  EXPECT_EQ(refused, run({"<s><a xmlns='" + uri + "'>" + names + "</a>"}));
  EXPECT_EQ(refused, run({"<s><a xmlns:p='" + uri + "'><b" + attributes + "/></a>"}));
  EXPECT_EQ(kNone, run({"<s><a xmlns='" + uri.substr(0, 10'000) + "'>" + names + "</a>"}).error);
  const std::string document = "<a xmlns='" + std::string(1'000'000, 'u') + "'>" + names + "</a>";
  wb_dom_node *root = nullptr;
  wb_err err = {};
  EXPECT_FALSE(wb_dom_parse(document.data(), document.size(), &root, &err));
  EXPECT_EQ(WB_ERR_BAD_FORMAT, err.code);
}

// A fresh parser is shown the head again.
TEST(StreamLimit, TheHead) {
  const std::string start = "<s xmlns:p='";
  for (const auto &[length, error] : {std::pair(StreamParser::kHeadBytesMax - 20, kNone),
                                      std::pair(StreamParser::kHeadBytesMax, StreamError::policy_violation)}) {
    const std::string text = start + std::string(length, 'u') + "'><a/>";
    EXPECT_EQ(error, run({text}).error);
    EXPECT_EQ(error, run(in_pieces(text, 7)).error);
  }
  const std::string unfinished = start + std::string(StreamParser::kHeadBytesMax, 'u');
  EXPECT_EQ(StreamError::policy_violation, run(in_pieces(unfinished, 7)).error);
}

// Names that a fresh builder would meet again are no reason for one: every item would be followed by the whole head.
TEST(StreamLimit, WhatIsKnownMakesNothingFull) {
  wb::DomBuilder builder(wb::BuildOptions{});
  const std::string uri(1'000'000, 'u');
  const char *attributes[] = {"xmlns", uri.c_str(), nullptr};
  const char *none[] = {nullptr};
  ASSERT_EQ(wb::BuildResult::ok, builder.enter("head", attributes));
  EXPECT_TRUE(builder.is_full());
  builder.take_names_as_known();
  EXPECT_FALSE(builder.is_full());
  size_t items = 0;
  for (; items < 10 && !builder.is_full(); ++items) {
    ASSERT_EQ(wb::BuildResult::ok, builder.open(("a" + std::to_string(items)).c_str(), none));
    EXPECT_TRUE(builder.close());
  }
  EXPECT_TRUE(builder.is_full());
  EXPECT_GT(items, 1u);
}

TEST(StreamLimit, UnfinishedMarkupThatIsNoTag) {
  const std::string filler(StreamParser::kUnfinishedMax + 10, 'x');
  for (const char *start : {"<!-- ", "<?p ", "<!DOCTYPE s SYSTEM '", "<a>&", "<a><!-- <b"}) {
    const bool before_head = start[2] == 'D';
    const Outcome expected{before_head ? "" : "open <{}s></>\n", kRestricted};
    EXPECT_EQ(expected, run(in_pieces((before_head ? "" : "<s>") + (start + filler), 1))) << start;
  }
}

TEST(StreamParserInput, ErrorsStayUntilReset) {
  Recorder recorder;
  StreamParser parser(recorder, {});
  EXPECT_EQ(kMalformed, parser.feed("<a></b>", 7));
  EXPECT_EQ(kMalformed, parser.feed("<a>", 3));
  EXPECT_STRNE("", parser.error_text());
  parser.reset();
  EXPECT_STREQ("", parser.error_text());
  recorder.events.clear();
  EXPECT_EQ(kNone, parser.feed("<c><d/>", 7));
  EXPECT_EQ("open <{}c></>\n<{}d></>\n", recorder.events);
}

TEST(StreamParserInput, ResetForgetsAHeldTag) {
  Recorder recorder;
  StreamParser parser(recorder, {});
  EXPECT_EQ(kNone, parser.feed("<a><b x='", 9));
  parser.reset();
  EXPECT_EQ(kNone, parser.feed("<c>", 3));
  EXPECT_EQ("open <{}a></>\nopen <{}c></>\n", recorder.events);
}

// What the handler does at the nth event; the rest of that input is dropped in every case.
TEST(StreamParserHandler, ResetAndStop) {
  const std::string xml = "<a><b/><c>text</c></a>";
  const char *const events[] = {"open <{}a></>\n", "<{}b></>\n", "<{}c>text</>\n", "close\n"};
  for (const bool resets : {true, false}) {
    std::string expected;
    for (int nth = 1; nth <= 4; ++nth) {
      SCOPED_TRACE(nth);
      expected += events[nth - 1];
      Recorder recorder;
      StreamParser parser(recorder, {});
      recorder.then = [&] {
        if (recorder.count == nth) resets ? parser.reset() : parser.stop();
      };
      EXPECT_EQ(kNone, parser.feed(xml.data(), xml.size()));
      EXPECT_EQ(expected, recorder.events);
      EXPECT_EQ(kNone, parser.feed("<x>", 3));
      EXPECT_EQ(expected + (resets ? "open <{}x></>\n" : ""), recorder.events);
    }
  }
}

TEST(StreamParserHandler, ExceptionsDoNotCrossExpat) {
  Recorder recorder;
  StreamParser parser(recorder, {});
  recorder.then = [] { throw std::bad_alloc(); };
  EXPECT_EQ(StreamError::no_memory, parser.feed("<a><b/>", 7));
  EXPECT_EQ(1, recorder.count);
}

TEST(StreamParserHandler, RetainedStanzasOutliveTheParser) {
  std::vector<wb_dom_node *> kept;
  struct Keeper : Recorder {
    explicit Keeper(std::vector<wb_dom_node *> &nodes) : kept_nodes(nodes) {}
    void on_stanza(wb_dom_node *stanza) override {
      ASSERT_TRUE(wb_dom_context_retain(wb_dom_get_context(stanza), nullptr));
      kept_nodes.push_back(stanza);
    }
    std::vector<wb_dom_node *> &kept_nodes;
  } keeper(kept);
  {
    StreamParser parser(keeper, {});
    EXPECT_EQ(kNone, parser.feed("<a xmlns='u'><b c='d'>e</b><f/>", 31));
  }
  ASSERT_EQ(2u, kept.size());
  EXPECT_EQ("<{u}b {}c='d'>e</>", dom_text::describe(kept[0]));
  ASSERT_TRUE(wb_dom_set_attribute(kept[0], "{u}late", "x", nullptr));
  EXPECT_EQ("<b xmlns=\"u\" c=\"d\" xmlns:ns0=\"u\" ns0:late=\"x\">e</b>", dom_text::serialized(kept[0]));
  for (wb_dom_node *node : kept) wb_dom_context_destroy(wb_dom_get_context(node));
}

// A stanza's names are the parser's, which goes on adding to them while another thread works with the stanza.
TEST(StreamParserHandler, StanzasOnAnotherThread) {
  struct Sender : StreamParser::Handler {
    void on_stream_open(wb_dom_node *) override {}
    void on_stream_close() override {}
    void on_stanza(wb_dom_node *stanza) override {
      EXPECT_TRUE(wb_dom_context_retain(wb_dom_get_context(stanza), nullptr));
      const std::lock_guard lock(mutex);
      stanzas.push_back(stanza);
      arrived.notify_one();
    }
    std::mutex mutex;
    std::condition_variable arrived;
    std::deque<wb_dom_node *> stanzas;
  } sender;
  constexpr int kStanzas = 3000;
  std::thread reader([&] {
    for (int i = 0; i < kStanzas; ++i) {
      std::unique_lock lock(sender.mutex);
      ASSERT_TRUE(sender.arrived.wait_for(lock, std::chrono::seconds(20), [&] { return !sender.stanzas.empty(); }));
      wb_dom_node *const stanza = sender.stanzas.front();
      sender.stanzas.pop_front();
      lock.unlock();
      EXPECT_TRUE(wb_dom_set_attribute(stanza, ("{urn:b}b" + std::to_string(i)).c_str(), "w", nullptr));
      EXPECT_STREQ("v", wb_dom_get_attribute(stanza, ("{urn:b}a" + std::to_string(i)).c_str()));
      EXPECT_EQ(0u, dom_text::serialized(stanza).find("<a xmlns=\"u\" xmlns:p=\"urn:b\" p:"));
      wb_dom_context_destroy(wb_dom_get_context(stanza));
    }
  });
  StreamParser parser(sender, {});
  EXPECT_EQ(kNone, parser.feed("<s xmlns='u'>", 13));
  for (int i = 0; i < kStanzas; ++i) {
    const std::string stanza = "<a xmlns:p='urn:b' p:a" + std::to_string(i) + "='v'><p:c/></a>";
    EXPECT_EQ(kNone, parser.feed(stanza.data(), stanza.size()));
  }
  reader.join();
}

std::string numbered_stanza(int number) {
  const std::string n = std::to_string(number);
  return "<p" + n + ":e" + n + " xmlns:p" + n + "='urn:" + n + "' a" + n + "='v'><stream:x/><y z='" + std::string(20, 'v') +
         "'/></p" + n + ":e" + n + ">";
}

// Parser and names are replaced many times on the way, in the middle of the input too; nothing of it shows.
TEST(StreamParserNames, RolloverIsNotSeen) {
  const std::string head = "<stream:stream xmlns='jabber:client' xmlns:stream='urn:s' xmlns:q='urn:&quot;&lt;&#10;'>";
  for (const size_t piece : {1u, 1000u, 100000u}) {
    Recorder recorder;
    StreamParser parser(recorder, {});
    std::string xml = head, expected = "open <{urn:s}stream :=jabber:client stream:=urn:s q:=urn:\"<\n></>\n";
    for (int i = 0; i < 4000; ++i) {
      const std::string n = std::to_string(i);
      xml += numbered_stanza(i) + "<q:r/> ";
      expected += "<{urn:" + n + "}e" + n + " {}a" + n + "='v'><{urn:s}x></><{jabber:client}y {}z='" + std::string(20, 'v') +
                  "'></></>\n";
      expected += "<{urn:\"<\n}r></>\n";
    }
    xml += "</stream:stream>";
    for (const std::string &part : in_pieces(xml, piece))
      ASSERT_EQ(kNone, parser.feed(part.data(), part.size())) << parser.error_text();
    EXPECT_TRUE(expected + "close\n" == recorder.events) << piece;
  }
}

#if QLK_HAS_OOM
TEST(StreamParserNames, EndlesslyNewNamesStayFlat) {
  struct Ignorer : StreamParser::Handler {
    void on_stream_open(wb_dom_node *) override {}
    void on_stanza(wb_dom_node *) override {}
    void on_stream_close() override {}
  } ignorer;
  StreamParser parser(ignorer, {});
  ASSERT_EQ(kNone, parser.feed(kHead, sizeof kHead - 1));
  size_t most = 0;
  const size_t before = mallinfo2().uordblks;
  for (int i = 0; i < 60000; ++i) {
    const std::string stanza = numbered_stanza(i);
    ASSERT_EQ(kNone, parser.feed(stanza.data(), stanza.size()));
    most = std::max(most, mallinfo2().uordblks - std::min(mallinfo2().uordblks, before));
  }
  EXPECT_LT(most, 2u << 20);  // what it takes without the replacement is more than ten times as much
}

TEST(StreamParserMemory, SurvivesEveryAllocationFailure) {
  std::string xml = kHead;
  for (int i = 0; i < 20; ++i) xml += numbered_stanza(i);
  xml += "<a>" + std::string(20000, 'x') + "</a>";
  struct Counter : StreamParser::Handler {
    void on_stream_open(wb_dom_node *) override {}
    void on_stanza(wb_dom_node *) override { ++stanzas; }
    void on_stream_close() override {}
    int stanzas = 0;
  };
  const auto attempt = [&](int &stanzas) {
    Counter counter;
    StreamParser parser(counter, {});
    StreamError error = kNone;
    for (size_t at = 0; at < xml.size(); at += 1000)
      error = parser.feed(xml.data() + at, std::min<size_t>(1000, xml.size() - at));
    stanzas = counter.stanzas;
    return error;
  };
  int stanzas = 0;
  const long total = oom::count([&] { ASSERT_EQ(kNone, attempt(stanzas)); });
  ASSERT_GT(total, 20);
  ASSERT_EQ(21, stanzas);
  for (long nth = 1; nth <= total; ++nth) {
    const long before = oom::live();
    {
      const oom::FailNth failing(nth);
      EXPECT_EQ(StreamError::no_memory, attempt(stanzas)) << nth;
    }
    EXPECT_EQ(before, oom::live()) << nth;
  }
}

// A text that comes in small pieces takes its own size and at most half of that again, and one tag in small pieces is read once.
TEST(StreamParserMemory, LongTextAndLongTagInSmallPieces) {
  Recorder recorder;
  StreamParser parser(recorder, {});
  ASSERT_EQ(kNone, parser.feed("<s><a>", 6));
  const size_t before = mallinfo2().uordblks + mallinfo2().hblkhd;
  const std::string piece = "0123456\n";
  constexpr size_t kTextBytes = (4u << 20) - 64;
  for (size_t i = 0; i < kTextBytes; i += piece.size()) ASSERT_EQ(kNone, parser.feed(piece.data(), piece.size()));
  const size_t taken = mallinfo2().uordblks + mallinfo2().hblkhd - before;
  EXPECT_LT(taken, kTextBytes * 8 / 5);
  ASSERT_EQ(kNone, parser.feed("</a>", 4));
  EXPECT_EQ(2, recorder.count);

  ASSERT_EQ(kNone, parser.feed("<a b='", 6));
  for (size_t i = 0; i < kTextBytes; i += 4) ASSERT_EQ(kNone, parser.feed("v> w", 4));
  ASSERT_EQ(kNone, parser.feed("'/>", 3));
  EXPECT_EQ(3, recorder.count);
  std::string().swap(recorder.events);
  ASSERT_EQ(kNone, parser.feed("<c/><d/>", 8));  // by now the swollen buffers are gone
  EXPECT_EQ("<{}c></>\n<{}d></>\n", recorder.events);
  EXPECT_LT(mallinfo2().uordblks + mallinfo2().hblkhd, before + kTextBytes / 2);
}
#endif

}  // namespace

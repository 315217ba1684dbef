// The runner of the conformance suite, on a small suite of its own.
#include <gtest/gtest.h>

#include <fstream>
#include <qlk/testpeer/certificates.hpp>

#include "verdict.h"

namespace {

using conformance::Kind;
using conformance::Report;

struct Document {
  const char *attributes, *file;
  std::string text;
};

std::string in_utf16(std::string_view text) {
  std::string wide = "\xFF\xFE";
  for (const char c : text) (wide += c) += '\0';
  return wide;
}

const Document kDocuments[] = {
    {"TYPE='valid'", "plain", "<?xml version='1.0' encoding='utf-8'?>\n<a b='1'>text<c/></a>\n"},
    {"TYPE='valid'", "mark", "\xEF\xBB\xBF<a/>"},
    {"TYPE='invalid'", "comment", "<!-- <!DOCTYPE a> --><a><?b?></a>"},
    {"TYPE='not-wf'", "open", "<a><b></a>"},
    {"TYPE='not-wf'", "second", "<a/><a/>"},
    {"TYPE='not-wf'", "after", "<a/>text"},
    {"TYPE='not-wf'", "unfinished", "<a>"},
    {"TYPE='not-wf'", "declaration", "<?xml encoding='utf-8' version='1.0'?><a/>"},
    {"TYPE='not-wf'", "entity", "<a>&b;</a>"},
    {"TYPE='not-wf'", "prefix", "<p:a/>"},
    {"TYPE='valid' ENTITIES='none'", "type", "<?xml version='1.0'?><!-- c --> <!DOCTYPE a><a/>"},
    {"TYPE='not-wf'", "bad-type", "<!DOCTYPE a [<!ELEMENT a ><a/>"},
    {"TYPE='valid'", "wide", in_utf16("<a/>")},
    {"TYPE='valid'", "latin", "<?xml version='1.0' encoding='iso-8859-1'?><a>\xE4</a>"},
    {"TYPE='error'", "error", "<a xml:lang='?'/>"},
    {"TYPE='valid' RECOMMENDATION='XML1.1'", "newer", "<?xml version='1.1'?><a>\x01</a>"},
    {"TYPE='valid' NAMESPACE='no'", "colons", "<a:b:c/>"},
    {"TYPE='not-wf' EDITION='5'", "fifth", "<a/>"},
    {"TYPE='valid'", "lie-1", "<a"},
    {"TYPE='not-wf'", "lie-2", "<a/>"},
};

// Below the catalogue that includes it, within an xml:base of its own.
void write_suite(const std::filesystem::path &folder) {
  std::filesystem::create_directories(folder / "included/deep");
  std::ofstream(folder / "xmlconf.xml")
      << "<!DOCTYPE TESTSUITE SYSTEM 'testcases.dtd' [<!ENTITY more SYSTEM 'included/more.xml'>]>"
         "<TESTSUITE><TESTCASES xml:base='elsewhere/'>&more;</TESTCASES></TESTSUITE>";
  std::ofstream catalogue(folder / "included/more.xml");
  catalogue << "<TESTCASES xml:base='deep/'>";
  for (const Document &document : kDocuments) {
    catalogue << "<TEST ID='" << document.file << "' URI='" << document.file << ".xml' " << document.attributes << ">What</TEST>";
    std::ofstream(folder / "included/deep" / (document.file + std::string(".xml")), std::ios::binary) << document.text;
  }
  catalogue << "</TESTCASES>";
}

TEST(XmlConformanceRunner, TellsWhereTheParsersDisagree) {
  const testpeer::TemporaryFolder folder;
  write_suite(folder.path());
  const Report report = conformance::run_suite(folder.path());
  const std::map<Kind, int> expected = {{Kind::well_formed, 4}, {Kind::not_well_formed, 8},
                                        {Kind::with_dtd, 2},    {Kind::not_utf8, 2},
                                        {Kind::open, 1},        {Kind::out_of_scope, 3}};
  EXPECT_EQ(expected, report.counts);
  std::map<std::string, size_t> disagreements;
  for (const auto &[id, faults] : report.disagreements) disagreements[id] = faults.size();
  // Each parser, and the stream parser twice.
  EXPECT_EQ((std::map<std::string, size_t>{{"lie-1", 3}, {"lie-2", 3}}), disagreements);
}

TEST(XmlConformanceRunner, NamesTheCatalogueThatItCannotRead) {
  const testpeer::TemporaryFolder folder;
  write_suite(folder.path());
  std::ofstream(folder.file("included/more.xml")) << "<TESTCASES>";
  try {
    conformance::run_suite(folder.path());
    FAIL();
  } catch (const std::runtime_error &error) {
    EXPECT_NE(std::string::npos, std::string(error.what()).find("more.xml:1")) << error.what();
  }
}

}  // namespace

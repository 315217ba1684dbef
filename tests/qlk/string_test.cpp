#include <gtest/gtest.h>

#include <string>

#include "oom.h"
#include "owners.h"
#include "quillon_log_capture.h"

namespace {

using qlk::make_string;
using qlk::StringPtr;
using qlk::text_of;

struct LengthCase {
  size_t length;
  bool ok;
};
const LengthCase kLengthCases[] = {{0, false}, {1, true}, {65536, true}, {65537, false}};

TEST(StringLengths, AreCheckedByAllThatTakeThem) {
  const std::string text(70000, 'x');
  for (const LengthCase &c : kLengthCases) {
    const QUILLON_STATUS status = c.ok ? QUILLON_STATUS_OK : QUILLON_STATUS_INVALID_ARGS;
    const StringPtr stale = make_string("stale");
    quillon_string *out = stale.get();
    EXPECT_EQ(status, quillon_string_create(&out, text.c_str(), c.length)) << c.length;
    const StringPtr created(out);
    EXPECT_EQ(c.ok ? c.length : 0, quillon_string_length(out)) << c.length;
    EXPECT_EQ(c.ok ? c.length + 1 : 0, quillon_string_buffersize(out)) << c.length;

    out = stale.get();
    EXPECT_EQ(status, quillon_string_buffer_create(&out, c.length)) << c.length;
    const StringPtr zeroed(out);
    EXPECT_EQ(std::string(c.ok ? c.length : 0, '\0'), text_of(out)) << c.length;

    const StringPtr changed = make_string("ab");
    EXPECT_EQ(status, quillon_string_append_cstr(changed.get(), text.c_str(), c.length)) << c.length;
    EXPECT_EQ("ab" + text.substr(0, c.ok ? c.length : 0), text_of(changed.get())) << c.length;
    EXPECT_EQ(c.ok ? QUILLON_STATUS_OK : QUILLON_STATUS_QUILLON_ERROR,
              quillon_string_assign_cstr(changed.get(), text.c_str(), c.length));
  }
}

TEST(StringCreate, RefusesMissingArgumentsAndLogsThoseThatAreNull) {
  const test_support::QuillonLogCapture log;
  quillon_string *out = nullptr;
  const quillon_string empty = {};
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_string_default_create(nullptr));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_string_create(nullptr, "a", 1));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_string_create(&out, nullptr, 1));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_string_buffer_create(nullptr, 1));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_string_copy_create(nullptr, &empty));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_string_copy_create(&out, nullptr));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_string_copy_create(&out, &empty));
  EXPECT_EQ(QUILLON_STATUS_QUILLON_ERROR, quillon_string_assign_cstr(nullptr, "a", 1));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_string_append_cstr(nullptr, "a", 1));
  const StringPtr string = make_string("a");
  EXPECT_EQ(QUILLON_STATUS_QUILLON_ERROR, quillon_string_assign_cstr(string.get(), nullptr, 1));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_string_append_cstr(string.get(), nullptr, 1));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_string_append(string.get(), &empty));
  EXPECT_EQ("a", text_of(string.get()));
  EXPECT_EQ(7u, log.count_exact("string is null")) << log.all();
  EXPECT_EQ(3u, log.count_exact("text is null")) << log.all();
  EXPECT_EQ(10u, log.records().size()) << "what is merely empty needs no record: " << log.all();
  quillon_string_destroy(nullptr);
  quillon_string_destroy(&out);
}

// What the string holds after assigning over "before": the buffer's bytes, terminator and rest included.
struct AssignCase {
  const char *name, *before, *text;
  size_t length;
  std::string buffer;
};
const AssignCase kAssignCases[] = {
    {"Fresh", "", "abc", 3, std::string("abc\0", 4)},
    {"Grows", "ab", "wxyz", 4, std::string("wxyz\0", 5)},
    {"SameLength", "abc", "xyz", 3, std::string("xyz\0", 4)},
    {"ShorterEndsAtTheTerminator", "abcdef", "xy", 2, std::string("xy\0\0\0\0\0", 7)},
    {"FormerLengthIsCopied", "abcdef", "123456789", 2, std::string("123456\0", 7)},
    {"ExactBufferIsKept", "ab", "xyz", 3, std::string("xy\0", 3)},
};
class StringAssign : public testing::TestWithParam<AssignCase> {};

TEST_P(StringAssign, GivesTheBufferAndLength) {
  quillon_string *out = nullptr;
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_string_default_create(&out));
  const StringPtr string(out);
  const std::string before = GetParam().before;
  if (!before.empty()) {
    ASSERT_EQ(QUILLON_STATUS_OK, quillon_string_append_cstr(out, before.c_str(), before.size()));
  }
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_string_assign_cstr(out, GetParam().text, GetParam().length));
  EXPECT_EQ(GetParam().length, quillon_string_length(out));
  EXPECT_EQ(GetParam().buffer, std::string(out->buffer, out->buffer_len));
}
INSTANTIATE_TEST_SUITE_P(Contents, StringAssign, testing::ValuesIn(kAssignCases),
                         [](const auto &c) { return std::string(c.param.name); });

TEST(StringAppend, BuildsAKeyAndTakesItselfAsSource) {
  quillon_string *out = nullptr;
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_string_default_create(&out));
  const StringPtr key(out);
  const StringPtr ns = make_string("urn:x");
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_string_assign_cstr(out, "{", 1));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_string_append(out, ns.get()));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_string_append_cstr(out, "}name", 5));
  EXPECT_STREQ("{urn:x}name", quillon_string_cstr(out));
  EXPECT_EQ(12u, quillon_string_buffersize(out));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_string_append(out, out));
  EXPECT_STREQ("{urn:x}name{urn:x}name", quillon_string_cstr(out));
}

TEST(StringEquals, ComparesLengthAndBytes) {
  const StringPtr lower = make_string("abc");
  const StringPtr same = make_string("abc");
  const StringPtr upper = make_string("ABC");
  const StringPtr longer = make_string("abcd");
  EXPECT_TRUE(quillon_string_equals(lower.get(), same.get()));
  EXPECT_FALSE(quillon_string_equals(lower.get(), upper.get()));
  EXPECT_FALSE(quillon_string_equals(lower.get(), longer.get()));
  EXPECT_FALSE(quillon_string_equals(lower.get(), nullptr));
  EXPECT_FALSE(quillon_string_equals(nullptr, lower.get()));
  EXPECT_TRUE(quillon_string_equals_cstr(lower.get(), "abcd", 3));
  EXPECT_FALSE(quillon_string_equals_cstr(lower.get(), nullptr, 3));
  quillon_string_tolower(upper.get());
  EXPECT_TRUE(quillon_string_equals(lower.get(), upper.get()));
}

TEST(StringValidate, WantsBufferAndLength) {
  quillon_string string = {};
  char buffer[] = "A\xC3\x84";
  EXPECT_FALSE(quillon_string_validate(nullptr));
  EXPECT_FALSE(quillon_string_validate(&string));
  quillon_string_set_data_len(&string, 3);
  EXPECT_FALSE(quillon_string_validate(&string));
  quillon_string_set_buffer(&string, buffer);
  EXPECT_TRUE(quillon_string_validate(&string));
  quillon_string_tolower(&string);
  EXPECT_STREQ("a\xC3\x84", buffer);  // bytes beyond ASCII stay in the C locale
  quillon_string_set(&string, buffer, sizeof buffer, 65537);
  quillon_string_tolower(&string);  // too long: left alone, or it would run past the buffer
  quillon_string_default_initialize(&string);
  quillon_string_tolower(&string);
  EXPECT_EQ(nullptr, quillon_string_cstr(&string));
}

#if QLK_HAS_OOM
TEST(StringMemory, EveryFailureLeavesThingsAsTheyWere) {
  const StringPtr source = make_string("source");
  const long live = oom::live();
  for (long nth = 1; nth <= 2; ++nth) {
    quillon_string *out = source.get();
    const oom::FailNth failing(nth);
    EXPECT_EQ(QUILLON_STATUS_MALLOC_ERROR, quillon_string_copy_create(&out, source.get())) << nth;
    EXPECT_EQ(nullptr, out);
    EXPECT_EQ(live, oom::live()) << nth;
  }
  for (const auto change : {quillon_string_assign_cstr, quillon_string_append_cstr}) {
    const oom::FailNth failing(1);
    EXPECT_EQ(QUILLON_STATUS_MALLOC_ERROR, change(source.get(), "something longer", 16));
    EXPECT_EQ("source", text_of(source.get()));
  }
}
#endif

}  // namespace

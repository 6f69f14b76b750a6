#include "platform/host/text.h"

#include <gtest/gtest.h>

namespace dirwell::host {
namespace {

TEST(IsCleanUtf8, TakesWhatIsWellFormed) {
  for (const char *text : {"", "plain", "\x01\x7F", "\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF",
                           "\xEE\x80\x80", "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF", "a\xC3\xA9z"}) {
    EXPECT_TRUE(is_clean_utf8(text)) << text;
  }
}

TEST(IsCleanUtf8, RefusesAllElse) {
  using std::string_view_literals::operator""sv;
  for (const std::string_view text : {"\0"sv,
                                      "a\0b"sv,
                                      "\x80"sv,
                                      "\xBF"sv,
                                      "\xC0\x80"sv,
                                      "\xC1\xBF"sv,
                                      "\xC2"sv,
                                      "\xC2\x7F"sv,
                                      "\xC2\xC0"sv,
                                      "\xE0\x9F\xBF"sv,
                                      "\xE0\xA0"sv,
                                      "\xE1\x80"sv,
                                      "\xE1\x80\x7F"sv,
                                      "\xE1\x7F\x80"sv,
                                      "\xED\xA0\x80"sv,
                                      "\xED\xBF\xBF"sv,
                                      "\xF0\x8F\xBF\xBF"sv,
                                      "\xF0\x90\x80"sv,
                                      "\xF1\x80\x80\x7F"sv,
                                      "\xF1\x80\x7F\x80"sv,
                                      "\xF1\x7F\x80\x80"sv,
                                      "\xF4\x90\x80\x80"sv,
                                      "\xF5\x80\x80\x80"sv,
                                      "\xFE"sv,
                                      "\xFF"sv,
                                      "fine\xFF"sv}) {
    EXPECT_FALSE(is_clean_utf8(text)) << testing::PrintToString(std::string(text));
  }
}

TEST(EqualIgnoringCase, FoldsAsciiLettersAlone) {
  EXPECT_TRUE(equal_ignoring_case("", ""));
  EXPECT_TRUE(equal_ignoring_case("Keep-Alive", "kEEP-aLIVE"));
  EXPECT_TRUE(equal_ignoring_case("AZ", "az"));
  EXPECT_FALSE(equal_ignoring_case("a", "ab"));
  EXPECT_FALSE(equal_ignoring_case("a", "b"));
  EXPECT_FALSE(equal_ignoring_case("@", "`"));
  EXPECT_FALSE(equal_ignoring_case("[", "{"));
  EXPECT_FALSE(equal_ignoring_case("\xC3\x89", "\xC3\xA9"));
}

TEST(Trimmed, CutsBlanksAndTabsAtBothEnds) {
  EXPECT_EQ(trimmed(""), "");
  EXPECT_EQ(trimmed(" \t "), "");
  EXPECT_EQ(trimmed("a"), "a");
  EXPECT_EQ(trimmed(" \ta b\t "), "a b");
  EXPECT_EQ(trimmed("\r a\n"), "\r a\n");
}

}  // namespace
}  // namespace dirwell::host

#include "platform/host/target.h"

#include <optional>

#include "platform/host/text.h"

namespace dirwell::host {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

TEST(Target, SplitsPathAndParameters) {
  const auto target = parse_target("/fetch.resource?limit=50&offset=7");
  ASSERT_TRUE(target);
  EXPECT_EQ(target->path, "/fetch.resource");
  EXPECT_THAT(target->parameters, ElementsAre(Pair("limit", "50"), Pair("offset", "7")));
}

TEST(Target, DecodesPathNamesAndValues) {
  const auto target = parse_target("/fetch%2Eresource?n%61me=%E4%B8%AD%26%3d%25");
  ASSERT_TRUE(target);
  EXPECT_EQ(target->path, "/fetch.resource");
  EXPECT_THAT(target->parameters, ElementsAre(Pair("name", "中&=%")));
}

TEST(Target, TakesPlusForItself) {
  EXPECT_THAT(parse_target("/x?a=1+2")->parameters, ElementsAre(Pair("a", "1+2")));
}

TEST(Target, GivesANameWithoutEqualsTheEmptyValue) {
  EXPECT_THAT(parse_target("/x?a&b=&=c")->parameters, ElementsAre(Pair("a", ""), Pair("b", ""), Pair("", "c")));
}

TEST(Target, CutsAtTheFirstEqualsOnly) {
  EXPECT_THAT(parse_target("/x?a=b=c")->parameters, ElementsAre(Pair("a", "b=c")));
}

TEST(Target, KeepsRepeatedNamesInOrder) {
  EXPECT_THAT(parse_target("/x?a=1&a=2")->parameters, ElementsAre(Pair("a", "1"), Pair("a", "2")));
}

TEST(Target, SkipsEmptyParameters) {
  EXPECT_THAT(parse_target("/x?&&a=1&")->parameters, ElementsAre(Pair("a", "1")));
  EXPECT_THAT(parse_target("/x?")->parameters, IsEmpty());
}

TEST(Target, AcceptsTheAbsoluteForm) {
  const auto target = parse_target("http://localhost/watch?index=1");
  ASSERT_TRUE(target);
  EXPECT_EQ(target->path, "/watch");
  EXPECT_THAT(target->parameters, ElementsAre(Pair("index", "1")));
  EXPECT_EQ(parse_target("HTTP://localhost:80")->path, "/");
  EXPECT_EQ(parse_target("http://localhost?a=1")->path, "/");
}

TEST(Target, AcceptsTheAsteriskForm) {
  EXPECT_EQ(parse_target("*")->path, "*");
}

TEST(Target, RefusesWhatIsMalformed) {
  for (const char *text :
       {"",         "watch",       "localhost:80",   "https://localhost/", "http://", "http:///x", "/%",
        "/%4",      "/%4g",        "/x?a=%",         "/x?%zz=1",           "/%00",    "/x?a=%00",  "/x?%00=1",
        "/x?a=%ff", "/x?a=%c0%af", "/x?a=%ed%a0%80", "/x?a=%f4%90%80%80",  "/%e4%b8", "/x?a=\xff"}) {
    EXPECT_FALSE(parse_target(text)) << text;
  }
}

TEST(CleanUtf8, KnowsTheBordersOfEachLength) {
  for (const char *text : {"", "a", "\x7f", "\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEE\x80\x80",
                           "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"}) {
    EXPECT_TRUE(is_clean_utf8(text)) << testing::PrintToString(text);
  }
  for (const char *text :
       {"\x80", "\xBF", "\xC0\x80", "\xC1\xBF", "\xC2", "\xC2\x41", "\xE0\x9F\xBF", "\xE4\xB8", "\xED\xA0\x80",
        "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xF0\x90\x80", "\xFF"}) {
    EXPECT_FALSE(is_clean_utf8(text)) << testing::PrintToString(text);
  }
  EXPECT_FALSE(is_clean_utf8(std::string_view("a\0b", 3)));
}

TEST(Text, ComparesAsciiLettersWithoutCase) {
  EXPECT_TRUE(equal_ignoring_case("Content-TYPE", "content-type"));
  EXPECT_FALSE(equal_ignoring_case("content-type", "content-typ"));
  EXPECT_FALSE(equal_ignoring_case("[", "{"));
  EXPECT_EQ(trimmed(" \ta b\t "), "a b");
  EXPECT_EQ(trimmed(" \t "), "");
}

}  // namespace
}  // namespace dirwell::host

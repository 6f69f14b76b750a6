#include "entry/text.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace dirwell {
namespace {

using namespace std::string_view_literals;

TEST(Utf8CharacterLength, FollowsTheLeadByteAtEveryBound) {
  struct Row {
    int lead;
    std::size_t length;
  };
  const std::vector<Row> rows = {{0x00, 1}, {'a', 1},  {0x7F, 1}, {0x80, 0}, {0xBF, 0}, {0xC0, 0}, {0xC1, 0},
                                 {0xC2, 2}, {0xDF, 2}, {0xE0, 3}, {0xEF, 3}, {0xF0, 4}, {0xF7, 4}, {0xF8, 5},
                                 {0xFB, 5}, {0xFC, 6}, {0xFD, 6}, {0xFE, 0}, {0xFF, 0}};
  for (const Row &row : rows) {
    EXPECT_EQ(utf8CharacterLength(static_cast<unsigned char>(row.lead)), row.length) << std::hex << row.lead;
  }
}

TEST(Utf8Substring, CountsCharactersAndNotBytes) {
  EXPECT_EQ(utf8Substring("aé", 1, 1), "é");
  EXPECT_EQ(utf8Substring("aéb", 0, 2), "aé");
  EXPECT_EQ(utf8Substring("aéb", 2, 1), "b");
  EXPECT_EQ(utf8Substring("日本語", 1, 1), "本");
  EXPECT_EQ(utf8Substring("😀.x", 1, 2), ".x");
}

TEST(Utf8Substring, TakesCharactersOfFiveAndSixBytes) {
  EXPECT_EQ(utf8Substring("\xF8\x88\x80\x80\x80z", 1, 1), "z");
  EXPECT_EQ(utf8Substring("\xFC\x84\x80\x80\x80\x80z", 0, 1), "\xFC\x84\x80\x80\x80\x80");
}

TEST(Utf8Substring, EndsWhereTheTextEnds) {
  EXPECT_EQ(utf8Substring("abc", 1, 10), "bc");
  EXPECT_EQ(utf8Substring("abc", 3, 1), "");
  EXPECT_EQ(utf8Substring("abc", 4, 1), "");
  EXPECT_EQ(utf8Substring("", 0, 1), "");
}

TEST(Utf8Substring, TakesACharacterThatTheTextCutsShortAsFarAsItGoes) {
  EXPECT_EQ(utf8Substring("a\xE6\x97", 1, 1), "\xE6\x97");
  EXPECT_EQ(utf8Substring("a\xE6\x97", 0, 2), "a\xE6\x97");
  EXPECT_EQ(utf8Substring("\xFD", 0, all_characters), "\xFD");
  EXPECT_EQ(utf8Substring("\xFD", 1, 1), "");
}

TEST(Utf8Substring, DoesNotLookAtTheBytesAfterALeadByte) {
  EXPECT_EQ(utf8Substring("\xC3zy", 0, 1), "\xC3z");
  EXPECT_EQ(utf8Substring("\xE6\xFF\xFFy", 1, 1), "y");
}

TEST(Utf8Substring, IsEmptyWhenAByteBeforeTheEndStartsNoCharacter) {
  EXPECT_EQ(utf8Substring("ab\xFFgh", 0, 4), "");
  EXPECT_EQ(utf8Substring("\xFFgh", 1, 1), "");
  EXPECT_EQ(utf8Substring("a\x80", 0, 2), "");
  EXPECT_EQ(utf8Substring("a\xC1g", 0, all_characters), "");
}

TEST(Utf8Substring, NeverMeetsABadByteBehindTheEnd) {
  EXPECT_EQ(utf8Substring("ab\xFF", 0, 2), "ab");
  EXPECT_EQ(utf8Substring("ab\xFF", 1, 1), "b");
}

TEST(Utf8Substring, TakesNothingForACountOfZero) {
  EXPECT_EQ(utf8Substring("abc", 0, 0), "");
  EXPECT_EQ(utf8Substring("abc", 2, 0), "");
}

TEST(Utf8Substring, WrapsTheEndSoThatAllCharactersWorksOnlyFromTheFirst) {
  EXPECT_EQ(utf8Substring("abc", 0, 0xFFFFFFFFFFFFFFFFU), "abc");
  EXPECT_EQ(utf8Substring("abc", 1, 0xFFFFFFFFFFFFFFFFU), "");
  EXPECT_EQ(utf8Substring("abc", 2, 0xFFFFFFFFFFFFFFFFU), "");
  EXPECT_EQ(utf8Substring("abc", 2, 0xFFFFFFFFFFFFFFFEU), "") << "the sum is 0";
  EXPECT_EQ(utf8Substring("abc", 2, 0xFFFFFFFFFFFFFFFDU), "c") << "the sum is the largest number";
}

TEST(Utf8Substring, CountsAZeroByteAsACharacter) {
  EXPECT_EQ(utf8Substring("a\0bc"sv, 1, 2), "\0b"sv);
}

TEST(Utf8Substring, IsAViewIntoTheText) {
  const std::string text = "xyz";
  EXPECT_EQ(utf8Substring(text, 1, 1).data(), text.data() + 1);
}

}  // namespace
}  // namespace dirwell

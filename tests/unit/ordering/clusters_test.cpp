#include "ordering/clusters.h"

#include <gtest/gtest.h>
#include <unicode/unistr.h>

#include "ordering/listings.h"
#include "support/environment.h"

namespace dirwell {
namespace {

using test::entryOf;
using test::ScopedEnvironment;
using test::ScopedLocale;

std::string initial(std::string_view name) {
  return NameCluster().key(entryOf(name));
}

std::string month(std::int64_t mtime) {
  return DateCluster().key(entryOf("a", {.mtime = mtime}));
}

std::string band(std::int64_t size) {
  return SizeCluster().key(entryOf("a", {.size = size}));
}

std::string type(std::string_view name, mode_t mode = 0100644) {
  return TypeCluster().key(entryOf(name, {.mode = mode}));
}

std::string bits(mode_t mode) {
  return PermissionCluster().key(entryOf("a", {.mode = mode}));
}

struct TextRow {
  std::string name;
  std::string key;
};

TEST(NameCluster, IsTheInitialWithoutAccentInLowerCase) {
  const TextRow rows[] = {
      {"\xC3\x9Cn\xC3\xAF"
       "code",
       "u"},
      {"\xC3\x89lan", "e"},
      {"elan", "e"},
      {"Zebra", "z"},
      {"9lives", "9"},
      {"@home", "@"},
      {" x", " "},
      {"\xD0\x96\xD1\x83\xD0\xBA", "\xD0\xB6"},
      {"\xCE\x86", "\xCE\xB1"},
      {"\xE6\x97\xA5\xE6\x9C\xAC", "\xE6\x97\xA5"},
      {"\xED\x95\x9C", "\xED\x95\x9C"},  // taken apart and put together again
      {"\xC7\xA4", "\xC7\xA5"},          // a stroke is no mark
      {"\xC5\x81", "\xC5\x82"},
      {"\xF0\x9F\x98\x80.png", "\xF0\x9F\x98\x80"},
      {"E\xCC\x81", "e"},  // the mark is a character of its own and not taken
      {"\xCC\x81"
       "e",
       ""},               // nothing but a mark
      {"\xC4\xB0", "i"},  // not Turkish, whatever the language
      {"", ""},
  };
  for (const TextRow &row : rows) {
    EXPECT_EQ(initial(row.name), row.key) << row.name;
  }
}

TEST(NameCluster, TakesTwoCharactersOfADotName) {
  const TextRow rows[] = {
      {".", "."},
      {"..", ".."},
      {"...", ".."},
      {".git", ".g"},
      {".@__thumb", ".@"},
      {".\xC3\x89"
       "bauche",
       ".e"},
      {".E", ".e"},
      {".\xCC\x81", "."},
  };
  for (const TextRow &row : rows) {
    EXPECT_EQ(initial(row.name), row.key) << row.name;
  }
}

TEST(NameCluster, IsEmptyForABadLeadByteAndReplacesWhatIsCutShort) {
  EXPECT_EQ(initial("\xFF"
                    "abc"),
            "");
  EXPECT_EQ(initial("\x80"), "");
  EXPECT_EQ(initial("\xC1"
                    "a"),
            "");
  EXPECT_EQ(initial(".\xFF"), "");
  EXPECT_EQ(initial("a\xFF"), "a");
  EXPECT_EQ(initial("\xE4\xB8"), "\xEF\xBF\xBD");
  EXPECT_EQ(initial("\xC3"
                    "A"),
            "\xEF\xBF\xBD"
            "a");  // two bytes by its lead byte
}

TEST(NameCluster, IgnoresTheLanguage) {
  ScopedLocale locale("tr_TR");
  EXPECT_EQ(initial("Istanbul"), "i");
  EXPECT_EQ(initial("\xC4\xB0stanbul"), "i");
}

TEST(NameCluster, AnswersTheSameAgain) {
  NameCluster cluster;
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(cluster.key(entryOf("\xC3\x89lan")), "e");
    EXPECT_EQ(cluster.key(entryOf("\xC3\x9C"
                                  "ber")),
              "u");
    EXPECT_EQ(cluster.key(entryOf(".\xC3\x89")), ".e");
  }
}

TEST(NameCluster, DoesToEveryCharacterWhatTheRulesDo) {
  UErrorCode status = U_ZERO_ERROR;
  const std::unique_ptr<icu::Transliterator> rules(
      icu::Transliterator::createInstance("NFD; [:M:] Remove; NFC; Any-Lower;", UTRANS_FORWARD, status));
  ASSERT_NE(rules, nullptr);
  NameCluster cluster;
  int different = 0;
  for (UChar32 character = 0; character <= 0xFFFF; ++character) {
    if (character >= 0xD800 && character <= 0xDFFF) {
      continue;
    }
    for (const bool dotted : {false, true}) {
      icu::UnicodeString text(dotted ? "." : "");
      text.append(character);
      std::string name;
      text.toUTF8String(name);
      rules->transliterate(text);
      std::string expected;
      text.toUTF8String(expected);
      if (name == ".") {
        continue;
      }
      different += cluster.key(entryOf(name)) == expected ? 0 : 1;
    }
  }
  EXPECT_EQ(different, 0);
}

TEST(NameCluster, LeavesTheInitialAsItIsWithoutTheRules) {
  struct WithoutRules : NameCluster {
    WithoutRules() { transliterator.reset(); }
  };
  WithoutRules cluster;
  EXPECT_EQ(cluster.key(entryOf("Apple")), "A");
  EXPECT_EQ(cluster.key(entryOf("\xC3\x89lan")), "\xC3\x89");
  EXPECT_EQ(cluster.key(entryOf(".Git")), ".G");
  EXPECT_EQ(cluster.key(entryOf("\xE4\xB8")), "\xEF\xBF\xBD");
}

TEST(DateCluster, IsYearAndMonth) {
  ScopedEnvironment zone("TZ", "UTC0");
  EXPECT_EQ(month(0), "1970/01");
  EXPECT_EQ(month(1704067200), "2024/01");  // January counts as one
  EXPECT_EQ(month(1704067199), "2023/12");
  EXPECT_EQ(month(1709251199), "2024/02");
  EXPECT_EQ(month(1711000000), "2024/03");
  EXPECT_EQ(month(-1), "1969/12");
  EXPECT_EQ(month(253402300799), "9999/12");
}

TEST(DateCluster, IsLocalTime) {
  {
    ScopedEnvironment zone("TZ", "EAST-9");
    EXPECT_EQ(month(1704067199), "2024/01");
  }
  {
    ScopedEnvironment zone("TZ", "WEST5");
    EXPECT_EQ(month(1704067200), "2023/12");
  }
  ScopedEnvironment zone("TZ", "HALF-5:30");
  EXPECT_EQ(month(1704067200 - 19800), "2024/01");
  EXPECT_EQ(month(1704067200 - 19801), "2023/12");
}

TEST(DateCluster, PrintsYearsBeyondFourDigitsAndNoneThatCannotBeBrokenDown) {
  ScopedEnvironment zone("TZ", "UTC0");
  EXPECT_EQ(month(253402300800), "10000/01");
  EXPECT_EQ(month(-62135596800), "0001/01");
  EXPECT_EQ(month(-62167219201), "-001/12");
  EXPECT_EQ(month(67768036191676799), "2147485547/12");  // the last second of the last year
  EXPECT_EQ(month(67768036191676800), "");
  EXPECT_EQ(month(-67768040609740800), "-2147481748/01");  // the first of the first
  EXPECT_EQ(month(-67768040609740801), "");
  EXPECT_EQ(month(9223372036854775807), "");
  EXPECT_EQ(month(-9223372036854775807 - 1), "");
  EXPECT_EQ(month(0), "1970/01");
}

TEST(SizeCluster, IsTheBandOfTheSize) {
  const struct {
    std::int64_t size;
    const char *label;
  } rows[] = {{0, "xs"},
              {99, "xs"},
              {100, "s"},
              {10239, "s"},
              {10240, "m"},
              {1048575, "m"},
              {1048576, "l"},
              {104857599, "l"},
              {104857600, "xl"},
              {10737418239, "xl"},
              {10737418240, "xxl"},
              {9223372036854775806, "xxl"},
              {9223372036854775807, "xxl"},
              {-1, "xs"},
              {-9223372036854775807 - 1, "xs"}};
  for (const auto &row : rows) {
    EXPECT_EQ(band(row.size), row.label) << row.size;
  }
}

TEST(TypeCluster, IsFolderOrTheExtensionInLowerCase) {
  ScopedLocale locale("en_US");
  EXPECT_EQ(type("Photo.JPG"), "jpg");
  EXPECT_EQ(type("archive.tar.gz"), "gz");
  EXPECT_EQ(type("a.TIFF"), "tiff");
  EXPECT_EQ(type("a.\xC3\x89T\xC3\x89"), "\xC3\xA9t\xC3\xA9");
  EXPECT_EQ(type("README"), "");
  EXPECT_EQ(type("notes."), "");
  EXPECT_EQ(type(".profile"), "");
  EXPECT_EQ(type("a.x[Z"), "x[z");
  EXPECT_EQ(type("a.B\xFF"), "b\xEF\xBF\xBD");
}

TEST(TypeCluster, IsFolderForADirectoryWhateverItsName) {
  EXPECT_EQ(type("photos.2020", 040755), "folder");
  EXPECT_EQ(type("x.jpg", 040755), "folder");
  EXPECT_EQ(type("", 041777), "folder");
  EXPECT_EQ(type("x.jpg", 0120777), "jpg");  // a link is none
  EXPECT_EQ(type("x.jpg", 0060644), "jpg");  // a block device shares a bit with it
}

TEST(TypeCluster, FollowsTheLanguage) {
  {
    ScopedLocale locale("tr_TR");
    EXPECT_EQ(type("a.GIF"),
              "g\xC4\xB1"
              "f");
    EXPECT_EQ(type("a.\xC4\xB0"), "i");
    EXPECT_EQ(type("a.gif"), "gif");
    EXPECT_EQ(type("a.JPG"), "jpg");
  }
  ScopedLocale locale("de_DE");
  EXPECT_EQ(type("a.GIF"), "gif");
}

TEST(TypeCluster, LowersEveryAsciiTextAsIcuDoes) {
  for (const char *id : {"en_US", "tr_TR", "el_GR", "nl_NL"}) {
    ScopedLocale locale(id);
    for (char first = 0x20; first < 0x7F; ++first) {
      for (char second = 0x20; second < 0x7F; ++second) {
        if (first == '.' || second == '.') {
          continue;
        }
        const std::string extension{first, second};
        std::string expected;
        icu::UnicodeString::fromUTF8(extension).toLower().toUTF8String(expected);
        ASSERT_EQ(type("a." + extension), expected) << id;
      }
    }
  }
}

TEST(OwnerAndGroupCluster, AreNamesOrDashes) {
  EXPECT_EQ(OwnerCluster().key(entryOf("a", {.uid = 0, .gid = 4000000001})), "root");
  EXPECT_EQ(OwnerCluster().key(entryOf("a", {.uid = 4000000001, .gid = 0})), "---");
  EXPECT_EQ(GroupCluster().key(entryOf("a", {.uid = 4000000001, .gid = 0})), "root");
  EXPECT_EQ(GroupCluster().key(entryOf("a", {.uid = 0, .gid = 4000000001})), "---");
}

TEST(PermissionCluster, IsThreeOctalDigits) {
  EXPECT_EQ(bits(0100600), "600");
  EXPECT_EQ(bits(0100755), "755");
  EXPECT_EQ(bits(040644), "644");
  EXPECT_EQ(bits(0), "000");
  EXPECT_EQ(bits(0100007), "007");
  EXPECT_EQ(bits(0107777), "777");
  EXPECT_EQ(bits(0104755), "755");
  EXPECT_EQ(bits(0102640), "640");
  EXPECT_EQ(bits(041777), "777");
}

}  // namespace
}  // namespace dirwell

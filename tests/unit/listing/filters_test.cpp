#include "listing/filters.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <ctime>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "filter_support.h"
#include "listing/type_table.h"
#include "support/environment.h"

namespace dirwell {
namespace {

using namespace std::string_literals;
using test::answers;
using test::named;

ResourceEntry sized(off_t size) {
  ResourceEntry entry = named("a");
  entry.stat.st_size = size;
  return entry;
}

ResourceEntry modified(std::time_t seconds) {
  ResourceEntry entry = named("a");
  entry.stat.st_mtim.tv_sec = seconds;
  return entry;
}

// --- Names

TEST(StringFilter, WantsTheNameByteForByte) {
  const StringFilter filter("a.txt");
  EXPECT_TRUE(filter.match(named("a.txt")));
  for (const char *name : {"A.txt", "a.tx", "a.txt ", ""}) {
    EXPECT_FALSE(filter.match(named(name))) << name;
  }
  EXPECT_EQ(answers(filter, named("a.txt")), "001000");
  EXPECT_TRUE(StringFilter("").match(named("")));
}

TEST(SubStringFilter, WantsTheTextSomewhereInTheName) {
  const SubStringFilter filter("b.t");
  EXPECT_TRUE(filter.match(named("ab.txt")));
  EXPECT_TRUE(filter.match(named("b.t")));
  EXPECT_FALSE(filter.match(named("aB.txt")));
  EXPECT_FALSE(filter.match(named("b.")));
  EXPECT_TRUE(SubStringFilter("").match(named("")));
  EXPECT_TRUE(SubStringFilter("").match(named("a")));
  EXPECT_EQ(answers(filter, named("ab.txt")), "001000");
}

TEST(WildCardFilter, MatchesShellPatternsInAnyLetterCase) {
  struct Row {
    std::string pattern;
    std::string name;
    bool matches;
  };
  const std::vector<Row> rows = {
      {"*.JPG", "a.jpg", true},
      {"*.jpg", "A.JPG", true},
      {"*.jpg", "a.jpeg", false},
      {"a?c", "ABC", true},
      {"a?c", "ac", false},
      {"[a-c]x", "Bx", true},
      {"[!a-c]x", "bx", false},
      {"*", ".hidden", true},
      {"?hidden", ".hidden", true},
      {"*", "", true},
      {"", "", true},
      {"", "a", false},
      {"*", "a/b", true},
      {"a\\b", "a\\b", true},
      {"\\*", "*", false},
      {"\\*", "\\x", true},
      {"é", "é", true},
      {"É", "é", false},
      {"??", "é", true},
      {"[", "[", true},
      {"+(a)", "aa", false},
      {"*.\xFF", "a.\xFF", true},
      {"a*\0b"s, "axxx", false},
      {"*\0"s, "a", false},
  };
  for (const Row &row : rows) {
    EXPECT_EQ(WildCardFilter(row.pattern).match(named(row.name)), row.matches) << row.pattern << " on " << row.name;
  }
}

TEST(WildCardFilter, SurvivesAPatternOfManyStars) {
  std::string pattern;
  for (int i = 0; i < 200; ++i) {
    pattern += "*a";
  }
  EXPECT_FALSE(WildCardFilter(pattern + "b").match(named(std::string(255, 'a'))));
  EXPECT_TRUE(WildCardFilter(pattern).match(named(std::string(255, 'a'))));
}

TEST(HiddenFilter, LeavesOutHiddenNames) {
  const HiddenFilter filter(true);
  for (const char *name :
       {".git", ".", "..", "desktop.ini", "$Recycle.Bin", "System Volume Information", ".@__thumb", ""}) {
    EXPECT_FALSE(filter.match(named(name))) << name;
  }
  for (const char *name : {"Desktop.ini", "$RECYCLE.BIN", "system volume information", "a.txt", "@Recycle",
                           "desktop.in", "desktop.ini.", "a."}) {
    EXPECT_TRUE(filter.match(named(name))) << name;
  }
  EXPECT_EQ(answers(filter, named("a.txt")), "000100");
}

TEST(HiddenFilter, PassesEverythingWhenNothingIsToBeHidden) {
  const HiddenFilter filter(false);
  for (const char *name : {".git", "desktop.ini", "$Recycle.Bin", "System Volume Information", "a.txt", ""}) {
    EXPECT_TRUE(filter.match(named(name))) << name;
  }
}

// --- Numbers

struct OperatorRow {
  const char *text;
  bool below;
  bool same;
  bool above;
};

const std::vector<OperatorRow> operator_rows = {
    {">", false, false, true},   {">=", false, true, true},    {"==", false, true, false},  {"!=", true, false, true},
    {"<=", true, true, false},   {"<", true, false, false},    {"", false, false, false},   {"=", false, false, false},
    {"=<", false, false, false}, {">==", false, false, false}, {"<>", false, false, false}, {" >", false, false, false},
};

TEST(SizeFilter, ComparesByItsOperator) {
  for (const OperatorRow &row : operator_rows) {
    const SizeFilter filter(row.text, 10);
    EXPECT_EQ(filter.match(sized(9)), row.below) << row.text;
    EXPECT_EQ(filter.match(sized(10)), row.same) << row.text;
    EXPECT_EQ(filter.match(sized(11)), row.above) << row.text;
  }
}

TEST(SizeFilter, AnswersEveryOperationWhateverItsOwn) {
  const SizeFilter filter("none", 10);
  EXPECT_EQ(answers(filter, sized(9)), "000111");
  EXPECT_EQ(answers(filter, sized(10)), "011010");
  EXPECT_EQ(answers(filter, sized(11)), "110100");
}

TEST(SizeFilter, FindsNothingBelowZeroAndEmptyFilesAtZero) {
  EXPECT_FALSE(SizeFilter("<", 0).match(sized(0)));
  EXPECT_FALSE(SizeFilter("<", 0).match(sized(1)));
  EXPECT_TRUE(SizeFilter("==", 0).match(sized(0)));
  EXPECT_FALSE(SizeFilter("==", 0).match(sized(1)));
}

TEST(SizeFilter, ComparesSignedNumbersOf64Bits) {
  constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();
  EXPECT_TRUE(SizeFilter(">", -1).match(sized(0)));
  EXPECT_TRUE(SizeFilter("<", most).match(sized(most - 1)));
  EXPECT_TRUE(SizeFilter("==", most).match(sized(most)));
  EXPECT_TRUE(SizeFilter(">", 4294967296).match(sized(4294967297)));
}

TEST(ModifyDateFilter, ComparesDaysByItsOperator) {
  const test::ScopedEnvironment zone("TZ", "UTC0");
  constexpr std::time_t noon = 20000L * 86400 + 43200;
  for (const OperatorRow &row : operator_rows) {
    const ModifyDateFilter filter(row.text, noon);
    EXPECT_EQ(filter.match(modified(20000L * 86400 - 1)), row.below) << row.text;
    EXPECT_EQ(filter.match(modified(20000L * 86400)), row.same) << row.text;
    EXPECT_EQ(filter.match(modified(20000L * 86400 + 86399)), row.same) << row.text;
    EXPECT_EQ(filter.match(modified(20001L * 86400)), row.above) << row.text;
  }
}

TEST(ModifyDateFilter, AnswersEveryOperationWhateverItsOwn) {
  const test::ScopedEnvironment zone("TZ", "UTC0");
  const ModifyDateFilter filter("", 10 * 86400);
  EXPECT_EQ(answers(filter, modified(9 * 86400)), "000111");
  EXPECT_EQ(answers(filter, modified(10 * 86400 + 5)), "011010");
  EXPECT_EQ(answers(filter, modified(11 * 86400)), "110100");
}

TEST(ModifyDateFilter, CutsTheValueToItsUtcDayAndMovesTheEntryToLocalTime) {
  const test::ScopedEnvironment zone("TZ", "EAST-2");
  const ModifyDateFilter filter("==", 86399);
  EXPECT_FALSE(filter.match(modified(84600))) << "23:30 UTC is the next day there";
  EXPECT_TRUE(filter.match(modified(79199)));
  EXPECT_FALSE(filter.match(modified(79200)));
  EXPECT_TRUE(ModifyDateFilter("==", 86400).match(modified(84600)));
}

TEST(ModifyDateFilter, FollowsZonesWestAndWithHalfHours) {
  {
    const test::ScopedEnvironment zone("TZ", "WEST5");
    EXPECT_TRUE(ModifyDateFilter("==", 10 * 86400).match(modified(11 * 86400 + 5 * 3600 - 1)));
    EXPECT_FALSE(ModifyDateFilter("==", 10 * 86400).match(modified(11 * 86400 + 5 * 3600)));
  }
  const test::ScopedEnvironment zone("TZ", "HALF-5:30");
  EXPECT_TRUE(ModifyDateFilter("==", 10 * 86400).match(modified(10 * 86400 + 18 * 3600 + 1799)));
  EXPECT_FALSE(ModifyDateFilter("==", 10 * 86400).match(modified(10 * 86400 + 18 * 3600 + 1800)));
}

TEST(ModifyDateFilter, KeepsStandardTimeInSummer) {
  const test::ScopedEnvironment zone("TZ", "CET-1CEST,M3.5.0,M10.5.0/3");
  constexpr std::time_t summer_day = 1719792000;  // 2024-07-01 00:00:00 UTC
  const ModifyDateFilter filter("==", summer_day);
  EXPECT_TRUE(filter.match(modified(summer_day - 3600))) << "00:00 in standard time";
  EXPECT_FALSE(filter.match(modified(summer_day - 3601))) << "still the day before, though summer time says 00:59";
}

TEST(ModifyDateFilter, LoadsTheTimeZoneWhenItIsMade) {
  const test::ScopedEnvironment zone("TZ", "UTC0");
  ::setenv("TZ", "EAST-2", 1);  // nobody has called tzset for it
  EXPECT_TRUE(ModifyDateFilter("==", 86400).match(modified(84600)));
}

TEST(ModifyDateFilter, CutsTimesBefore1970TowardZero) {
  const test::ScopedEnvironment zone("TZ", "UTC0");
  const ModifyDateFilter first_day("==", 0);
  EXPECT_TRUE(first_day.match(modified(-1)));
  EXPECT_TRUE(first_day.match(modified(-86399)));
  EXPECT_FALSE(first_day.match(modified(-86400)));
  EXPECT_TRUE(ModifyDateFilter("<", 0).match(modified(-86400)));
}

TEST(ModifyDateFilter, TakesAnyTimeWithoutTrapping) {
  const test::ScopedEnvironment zone("TZ", "WEST5");
  constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();
  constexpr std::int64_t least = std::numeric_limits<std::int64_t>::min();
  EXPECT_TRUE(ModifyDateFilter("<", most).match(modified(0)));
  EXPECT_TRUE(ModifyDateFilter(">", 0).match(modified(most)));
  EXPECT_TRUE(ModifyDateFilter(">", 0).match(modified(least))) << "the difference wraps";
}

TEST(ModifyDateFilter, TakesANegativeValueAsUnsigned) {
  const test::ScopedEnvironment zone("TZ", "UTC0");
  // 2^64 - 1 cut to a day is 18446744073709526400, as a signed number -25216.
  EXPECT_TRUE(ModifyDateFilter(">", -1).match(modified(0)));
  EXPECT_FALSE(ModifyDateFilter("==", -1).match(modified(-1)));
}

// --- Ids, types, modes

TEST(OwnerFilter, WantsTheUserId) {
  ResourceEntry entry = named("a");
  entry.stat.st_uid = 4294967294U;
  entry.stat.st_gid = 7;
  EXPECT_TRUE(OwnerFilter(4294967294U).match(entry));
  EXPECT_FALSE(OwnerFilter(7).match(entry));
  EXPECT_EQ(answers(OwnerFilter(4294967294U), entry), "001000");
}

TEST(GroupFilter, WantsTheGroupId) {
  ResourceEntry entry = named("a");
  entry.stat.st_uid = 7;
  entry.stat.st_gid = 4294967294U;
  EXPECT_TRUE(GroupFilter(4294967294U).match(entry));
  EXPECT_FALSE(GroupFilter(7).match(entry));
  EXPECT_EQ(answers(GroupFilter(4294967294U), entry), "001000");
}

TEST(MIMEFilter, WantsTheMediaClass) {
  buildTypeIndex();
  struct Row {
    std::uint32_t mask;
    const char *name;
    bool matches;
  };
  const std::vector<Row> rows = {
      {1, "song.MP3", true},  {1, "song.mp3", true},   {1, "film.mkv", false}, {2, "film.MKV", true},
      {4, "photo.jpg", true}, {7, "photo.jpg", false}, {1, "mp3", false},      {1, "notes", false},
      {0, "notes", false},    {8, "a.pdf", true},      {1, ".mp3", false},     {4, "a.b.JPEG", true},
  };
  for (const Row &row : rows) {
    EXPECT_EQ(MIMEFilter(row.mask).match(named(row.name)), row.matches) << row.mask << " on " << row.name;
  }
  EXPECT_EQ(answers(MIMEFilter(1), named("song.mp3")), "001000");
}

TEST(MIMEFilter, WantsAnExtensionInItsOwnLetterCase) {
  EXPECT_FALSE(MIMEFilter(256, "mp3").match(named("song.MP3")));
  EXPECT_TRUE(MIMEFilter(256, "MP3").match(named("song.MP3")));
  EXPECT_TRUE(MIMEFilter(256, "gz").match(named("a.tar.gz")));
  EXPECT_FALSE(MIMEFilter(256, "tar.gz").match(named("a.tar.gz")));
  EXPECT_TRUE(MIMEFilter(256, "xyz").match(named("a.xyz")));
}

TEST(MIMEFilter, FindsWhatHasNoExtension) {
  const MIMEFilter filter(256);
  EXPECT_TRUE(filter.match(named("README")));
  EXPECT_TRUE(filter.match(named(".profile")));
  EXPECT_TRUE(filter.match(named("notes.")));
  EXPECT_TRUE(filter.match(named("photos.2020", S_IFDIR | 0755)));
  EXPECT_FALSE(filter.match(named("a.txt")));
}

TEST(StatModeFilter, WantsABitInCommon) {
  struct Row {
    std::uint32_t mask;
    mode_t mode;
    bool matches;
  };
  const std::vector<Row> rows = {
      {0x8000, S_IFREG | 0644, true},  {0x8000, S_IFLNK | 0777, true},  {0x8000, S_IFSOCK | 0755, true},
      {0x8000, S_IFDIR | 0755, false}, {0x8000, S_IFBLK | 0660, false}, {0x8000, S_IFCHR | 0660, false},
      {0x8000, S_IFIFO | 0644, false}, {0x4000, S_IFDIR | 0755, true},  {0x4000, S_IFBLK | 0660, true},
      {0x4000, S_IFSOCK | 0755, true}, {0x4000, S_IFREG | 0644, false}, {0x4000, S_IFLNK | 0777, false},
      {0x4000, S_IFCHR | 0660, false}, {0x4000, S_IFIFO | 0644, false}, {0, S_IFREG | 0777, false},
      {0x8000, S_ISUID | 0777, false},
  };
  for (const Row &row : rows) {
    EXPECT_EQ(StatModeFilter(row.mask).match(named("a", row.mode)), row.matches)
        << std::hex << row.mask << " on " << row.mode;
  }
  EXPECT_EQ(answers(StatModeFilter(0x8000), named("a")), "001000");
}

// --- The family

class AsksFor final : public Filter {
 public:
  explicit AsksFor(Operation operation) : Filter(operation) {}
};

TEST(Filter, RejectsByEveryOperationThatNobodyOverrides) {
  const Filter::Operation operations[] = {&Filter::greater,   &Filter::greaterEqual, &Filter::equal, &Filter::notEqual,
                                          &Filter::lessEqual, &Filter::less,         nullptr};
  for (const Filter::Operation operation : operations) {
    EXPECT_FALSE(AsksFor(operation).match(named("a")));
  }
  EXPECT_EQ(answers(AsksFor(nullptr), named("a")), "000000");
}

TEST(Filter, IsDestroyedAsWhatItWasMade) {
  std::weak_ptr<Filter> watched;
  {
    const std::shared_ptr<Filter> filter = std::make_shared<WildCardFilter>("a pattern longer than a short string*");
    watched = filter;
    EXPECT_TRUE(filter->match(named("a pattern longer than a short string, and more")));
  }
  EXPECT_TRUE(watched.expired());  // and no leak: the address sanitizer sees the pattern's text go
}

}  // namespace
}  // namespace dirwell

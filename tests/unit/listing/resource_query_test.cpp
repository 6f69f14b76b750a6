#include "listing/resource_query.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <limits>
#include <string>
#include <vector>

#include "filter_support.h"
#include "listing/type_table.h"
#include "query_support.h"
#include "support/environment.h"

namespace dirwell {
namespace {

using namespace std::string_literals;
using test::filter_at;
using test::named;
using test::parse_members;
using test::parse_text;
using test::Parsed;
using test::refusal_of;

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

TEST(ResourceQuery, HasDefaultsForEverythingButThePath) {
  const Parsed parsed = parse_text(R"({"path": []})");
  EXPECT_EQ(refusal_of(parsed), "0");
  EXPECT_EQ(parsed.query.pageLimit, 500);
  EXPECT_EQ(parsed.query.pageOffset, 0);
  EXPECT_FALSE(parsed.query.recursive);
  EXPECT_EQ(parsed.query.reachTime, 0);
  EXPECT_EQ(parsed.query.scanLimit, 100000U);
  EXPECT_TRUE(parsed.query.roots.empty());
  EXPECT_EQ(parsed.query.filters.size(), 1U);
  EXPECT_NE(parsed.query.sorter, nullptr);
  EXPECT_EQ(parsed.query.cluster, nullptr);
}

TEST(ResourceQuery, KeepsTheRootsInOrder) {
  const Parsed parsed = parse_text(
      R"({"path": [{"full_path": "/share/b.d", "alias": "/B.e"}, {"alias": "", "full_path": "rel/é", "more": 1}]})");
  ASSERT_EQ(parsed.query.roots.size(), 2U);
  const ResourceEntry &first = parsed.query.roots.front();
  EXPECT_EQ(first.directory.view(), "/share/b.d");
  EXPECT_EQ(first.displayDirectory.view(), "/B.e");
  EXPECT_EQ(first.subPath.view(), "");
  EXPECT_EQ(first.name, "");
  EXPECT_EQ(first.cluster, "");
  EXPECT_EQ(first.extension, "");
  EXPECT_EQ(first.stat.st_mode, 0U);
  EXPECT_EQ(parsed.query.roots.back().directory.view(), "rel/é");
  EXPECT_EQ(parsed.query.roots.back().displayDirectory.view(), "");
}

TEST(ResourceQuery, OutlivesItsRequest) {
  Parsed parsed;
  {
    const JsonRef request = test::json_of(
        R"({"path": [{"full_path": "/share/a-rather-long-folder-name", "alias": "/another-rather-long-name"}],
            "name": "a-pattern-that-is-longer-than-short-strings*", "type": "extname:a-rather-long-extension"})");
    parseResourceQuery(parsed.query, request.get(), parsed.record);
  }
  EXPECT_EQ(parsed.query.roots.front().directory.view(), "/share/a-rather-long-folder-name");
  EXPECT_TRUE(parsed.query.filters.at(1)->match(named("a-pattern-that-is-longer-than-short-strings and more")));
  EXPECT_TRUE(parsed.query.filters.at(2)->match(named("x.a-rather-long-extension")));
}

TEST(ResourceQuery, ConvertsTheBoundsLeniently) {
  struct Row {
    std::string members;
    bool recursive;
    std::int64_t reach_time;
  };
  const std::vector<Row> rows = {
      {R"("recursive": true, "reach_time": 7)", true, 7},      {R"("recursive": 1, "reach_time": "30s")", true, 30},
      {R"("recursive": "TRUE", "reach_time": true)", true, 1}, {R"("recursive": "yes", "reach_time": "x")", false, 0},
      {R"("recursive": 0, "reach_time": -4)", false, -4},      {R"("recursive": null, "reach_time": null)", false, 0},
      {R"("recursive": [], "reach_time": 2.5)", false, 0},
  };
  for (const Row &row : rows) {
    const Parsed parsed = parse_members(row.members);
    EXPECT_EQ(refusal_of(parsed), "0") << row.members;
    EXPECT_EQ(parsed.query.recursive, row.recursive) << row.members;
    EXPECT_EQ(parsed.query.reachTime, row.reach_time) << row.members;
  }
}

TEST(ResourceQuery, BoundsTheScanByThePageThatIsAskedFor) {
  const Parsed parsed = parse_members(R"("limit": 60, "offset": -3)");
  EXPECT_EQ(parsed.query.pageLimit, 60);
  EXPECT_EQ(parsed.query.pageOffset, -3);
  EXPECT_EQ(parsed.query.scanLimit, 60U);
  EXPECT_EQ(parse_members(R"("limit": "2000")").query.scanLimit, 2000U);
  EXPECT_EQ(parse_members(R"("reach_limit": 5)").query.scanLimit, 100000U);
}

TEST(ResourceQuery, HidesUnlessToldNotTo) {
  const std::vector<std::pair<std::string, bool>> rows = {
      {"", true},
      {R"("hidden": 1)", true},
      {R"("hidden": true)", true},
      {R"("hidden": -1)", true},
      {R"("hidden": "1")", true},
      {R"("hidden": 0)", false},
      {R"("hidden": false)", false},
      {R"("hidden": "0")", false},
      {R"("hidden": "yes")", false},
      {R"("hidden": "true")", false},
      {R"("hidden": null)", false},
      {R"("hidden": [1])", false},
  };
  for (const auto &[members, hides] : rows) {
    const Parsed parsed = parse_members(members);
    ASSERT_EQ(parsed.query.filters.size(), 1U) << members;
    EXPECT_EQ(filter_at<HiddenFilter>(parsed.query, 0).match(named(".git")), !hides) << members;
    EXPECT_TRUE(parsed.query.filters.front()->match(named("a"))) << members;
  }
}

TEST(ResourceQuery, PutsTheFiltersInReadingOrder) {
  const Parsed parsed = parse_members(
      R"("group": "daemon", "owner": "root", "size": "<9", "date": [">1", "<9"], "type": "photo", "name": "a*")");
  EXPECT_EQ(refusal_of(parsed), "0");
  ASSERT_EQ(parsed.query.filters.size(), 8U);
  filter_at<HiddenFilter>(parsed.query, 0);
  filter_at<WildCardFilter>(parsed.query, 1);
  filter_at<MIMEFilter>(parsed.query, 2);
  filter_at<ModifyDateFilter>(parsed.query, 3);
  filter_at<ModifyDateFilter>(parsed.query, 4);
  filter_at<SizeFilter>(parsed.query, 5);
  filter_at<OwnerFilter>(parsed.query, 6);
  filter_at<GroupFilter>(parsed.query, 7);
}

TEST(ResourceQuery, TakesTheNameAsAShellPattern) {
  const Parsed parsed = parse_members(R"("name": "*.JPG")");
  EXPECT_TRUE(filter_at<WildCardFilter>(parsed.query, 1).match(named("a.jpg")));
  EXPECT_FALSE(parsed.query.filters.at(1)->match(named("a.png")));
}

TEST(ResourceQuery, TurnsEachTypeIntoItsFilter) {
  buildTypeIndex();
  struct Row {
    const char *type;
    std::string passing;
  };
  const std::vector<std::pair<std::string, ResourceEntry>> samples = {
      {"song", named("a.MP3")},
      {"film", named("a.mkv")},
      {"photo", named("a.jpg")},
      {"text", named("a.txt")},
      {"bare", named("a")},
      {"folder", named("a", S_IFDIR | 0755)},
      {"link", named("a.x", S_IFLNK | 0777)},
      {"fifo", named("a.x", S_IFIFO | 0644)},
      {"accented", named("a.é", S_IFIFO | 0644)},
  };
  const std::vector<Row> rows = {
      {"music", "song "},
      {"video", "film "},
      {"photo", "photo "},
      {"music:xyz", "song "},
      {"file", "song film photo text bare link "},
      {"file:x", "song film photo text bare link "},
      {"folder", "folder "},
      {"extname:txt", "text "},
      {"extname:mp3", ""},
      {"extname:MP3", "song "},
      {"extname", "bare folder "},
      {"extname:é", "accented "},
  };
  for (const Row &row : rows) {
    const Parsed parsed = parse_members(R"("type": ")"s + row.type + '"');
    ASSERT_EQ(parsed.query.filters.size(), 2U) << row.type;
    std::string passing;
    for (const auto &[label, entry] : samples) {
      if (parsed.query.filters.at(1)->match(entry)) {
        passing += label + " ";
      }
    }
    EXPECT_EQ(passing, row.passing) << row.type;
  }
}

struct Comparison {
  std::string operation;
  bool below;
  bool same;
  bool above;
};

const std::vector<Comparison> comparisons = {
    {">", false, false, true}, {">=", false, true, true}, {"==", false, true, false},
    {"<=", true, true, false}, {"<", true, false, false},
};

TEST(ResourceQuery, TakesEveryOperatorForASize) {
  for (const Comparison &row : comparisons) {
    const Parsed parsed = parse_members(R"("size": ")" + row.operation + R"(10K")");
    const auto &filter = filter_at<SizeFilter>(parsed.query, 1);
    EXPECT_EQ(filter.match(sized(10239)), row.below) << row.operation;
    EXPECT_EQ(filter.match(sized(10240)), row.same) << row.operation;
    EXPECT_EQ(filter.match(sized(10241)), row.above) << row.operation;
  }
}

TEST(ResourceQuery, MultipliesASizeByItsUnit) {
  constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();
  const std::vector<std::pair<std::string, std::int64_t>> rows = {
      {"3", 3},
      {"0", 0},
      {"0007", 7},
      {"3K", 3072},
      {"3M", 3145728},
      {"3G", 3221225472},
      {"3T", 3298534883328},
      {"3P", 3377699720527872},
      {"9223372036854775807", most},
      {"9223372036854775808", most},
      {"99999999999999999999999999", most},
      {"8192P", std::numeric_limits<std::int64_t>::min()},
      {"16384P", 0},
      {"16385P", 1125899906842624},
      {"99999999999999999999999999K", -1024},
  };
  for (const auto &[text, bytes] : rows) {
    const Parsed parsed = parse_members(R"("size": "==)" + text + '"');
    ASSERT_EQ(refusal_of(parsed), "0") << text;
    EXPECT_TRUE(filter_at<SizeFilter>(parsed.query, 1).match(sized(bytes))) << text;
    EXPECT_FALSE(parsed.query.filters.at(1)->match(sized(bytes ^ 1))) << text;
  }
}

TEST(ResourceQuery, TakesEveryOperatorForADate) {
  const test::ScopedEnvironment zone("TZ", "UTC0");
  for (const Comparison &row : comparisons) {
    const Parsed parsed = parse_members(R"("date": [")" + row.operation + R"(1700000000"])");
    const auto &filter = filter_at<ModifyDateFilter>(parsed.query, 1);
    EXPECT_EQ(filter.match(modified(1699920000 - 1)), row.below) << row.operation;
    EXPECT_EQ(filter.match(modified(1699920000)), row.same) << row.operation;
    EXPECT_EQ(filter.match(modified(1699920000 + 86399)), row.same) << row.operation;
    EXPECT_EQ(filter.match(modified(1699920000 + 86400)), row.above) << row.operation;
  }
}

TEST(ResourceQuery, SaturatesADateThatNoNumberHolds) {
  const Parsed parsed = parse_members(R"("date": ["<99999999999999999999999999"])");
  EXPECT_TRUE(filter_at<ModifyDateFilter>(parsed.query, 1).match(modified(1700000000)));
}

TEST(ResourceQuery, LooksUpOwnerAndGroup) {
  ResourceEntry entry = named("a");
  entry.stat.st_uid = 1;
  entry.stat.st_gid = 4;
  const Parsed parsed = parse_members(R"("owner": "daemon", "group": "adm")");
  EXPECT_TRUE(filter_at<OwnerFilter>(parsed.query, 1).match(entry));
  EXPECT_TRUE(filter_at<GroupFilter>(parsed.query, 2).match(entry));
  entry.stat.st_uid = 4;
  entry.stat.st_gid = 1;
  EXPECT_FALSE(parsed.query.filters.at(1)->match(entry));
  EXPECT_FALSE(parsed.query.filters.at(2)->match(entry));
}

// --- The request of a lasting cache

TEST(CacheQuery, ReadsTheIndexBeforeTheListing) {
  struct Row {
    std::string text;
    std::string message;
    std::uint64_t index;
  };
  const std::vector<Row> rows = {
      {R"({"path": []})", "0", 1},
      {R"({"path": [], "index": 2})", "0", 2},
      {R"({"path": [], "index": "2"})", "0", 2},
      {R"({"path": [], "index": 3})", "invalid index", 3},
      {R"({"index": 0, "limit": 1})", "invalid index", 0},
      {R"({"index": 2})", "invalid path", 2},
  };
  for (const Row &row : rows) {
    CacheQuery query;
    ErrorRecord record;
    const JsonRef request = test::json_of(row.text);
    parseCacheQuery(query, request.get(), record);
    EXPECT_EQ(std::string(record.code == 0 ? "0" : record.message), row.message) << row.text;
    EXPECT_EQ(query.index, row.index) << row.text;
    EXPECT_EQ(query.query.filters.size(), row.message == "0" ? 1U : 0U) << row.text;
  }
}

}  // namespace
}  // namespace dirwell

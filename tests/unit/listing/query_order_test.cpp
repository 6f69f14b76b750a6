// How "sort", "cluster" and "lang" become the sorter chain and the cluster of a query.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "listing/resource_query.h"
#include "query_support.h"

namespace dirwell {
namespace {

using test::parse_members;
using test::Parsed;

// Two entries that only one field tells apart, the lesser first.
struct Pair {
  std::string field;
  ResourceEntry lesser;
  ResourceEntry greater;
};

ResourceEntry plain() {
  struct ::stat status {};
  status.st_mode = S_IFREG | 0600;
  status.st_uid = 7;
  status.st_gid = 7;
  status.st_size = 50;
  status.st_mtim.tv_sec = 1000;
  return ResourceEntry::fromStatus("/share", "m.m", status);
}

std::vector<Pair> pairs() {
  std::vector<Pair> all;
  for (const char *field : {"name", "date", "type", "size", "owner", "group", "permission"}) {
    all.push_back({field, plain(), plain()});
  }
  all[0].greater.name = "n.m";
  all[1].greater.stat.st_mtim.tv_sec = 2000;
  all[2].greater.extension = "n";
  all[3].greater.stat.st_size = 60;
  all[4].greater.stat.st_uid = 8;
  all[5].greater.stat.st_gid = 8;
  all[6].greater.stat.st_mode = S_IFREG | 0644;
  return all;
}

ResourceEntry grouped(ResourceEntry entry, const char *cluster) {
  entry.cluster = cluster;
  return entry;
}

// "<" when the sorter puts a before b and not b before a, ">" for the reverse, "-" when it orders them neither way, "="
// when it says both.
char order_of(const std::shared_ptr<Sorter> &sorter, const ResourceEntry &a, const ResourceEntry &b) {
  const bool before = sorter->compare(a, b);
  const bool after = sorter->compare(b, a);
  return before ? (after ? '=' : '<') : (after ? '>' : '-');
}

TEST(QuerySort, DecidesByItsFieldAloneAndInItsDirection) {
  for (const Pair &sorted : pairs()) {
    for (const auto &[suffix, expected] :
         std::vector<std::pair<std::string, char>>{{"", '<'}, {":asc", '<'}, {":desc", '>'}}) {
      const Parsed parsed = parse_members(R"("sort": ")" + sorted.field + suffix + '"');
      ASSERT_NE(parsed.query.sorter, nullptr);
      EXPECT_EQ(parsed.query.cluster, nullptr);
      for (const Pair &pair : pairs()) {
        EXPECT_EQ(order_of(parsed.query.sorter, pair.lesser, pair.greater), pair.field == sorted.field ? expected : '-')
            << pair.field << " under " << sorted.field << suffix;
      }
      EXPECT_EQ(order_of(parsed.query.sorter, grouped(plain(), "a"), grouped(plain(), "b")), '-')
          << "no cluster sorter under " << sorted.field;
    }
  }
}

TEST(QuerySort, IsByNameUpwardUnlessToldOtherwise) {
  const Parsed parsed = parse_members("");
  for (const Pair &pair : pairs()) {
    EXPECT_EQ(order_of(parsed.query.sorter, pair.lesser, pair.greater), pair.field == "name" ? '<' : '-') << pair.field;
  }
}

TEST(QuerySort, BeginsWithASorterThatDecidesNothing) {
  const Parsed parsed = parse_members(R"("sort": "size:desc")");
  const Sorter &head = *parsed.query.sorter;
  EXPECT_EQ(typeid(head), typeid(Sorter));
}

TEST(QueryCluster, MakesTheClusterOfItsField) {
  const auto kind_of = [](const char *field) -> const std::type_info & {
    const Parsed parsed = parse_members(std::string(R"("cluster": ")") + field + '"');
    const Cluster &cluster = *parsed.query.cluster;
    return typeid(cluster);
  };
  EXPECT_EQ(kind_of("name"), typeid(NameCluster));
  EXPECT_EQ(kind_of("date"), typeid(DateCluster));
  EXPECT_EQ(kind_of("type"), typeid(TypeCluster));
  EXPECT_EQ(kind_of("size"), typeid(SizeCluster));
  EXPECT_EQ(kind_of("owner"), typeid(OwnerCluster));
  EXPECT_EQ(kind_of("group"), typeid(GroupCluster));
  EXPECT_EQ(kind_of("permission:desc"), typeid(PermissionCluster));
}

TEST(QueryCluster, GroupsBeforeTheSortFieldDecides) {
  // Between clusters, the lesser entry of the sort field stands in the greater cluster.
  for (const char *cluster : {"name", "date", "type", "owner", "group", "permission"}) {
    for (const Pair &sorted : pairs()) {
      const Parsed parsed =
          parse_members(std::string(R"("cluster": ")") + cluster + R"(", "sort": ")" + sorted.field + '"');
      EXPECT_EQ(order_of(parsed.query.sorter, grouped(sorted.lesser, "b"), grouped(sorted.greater, "a")), '>')
          << cluster << ", " << sorted.field;
      EXPECT_EQ(order_of(parsed.query.sorter, grouped(sorted.lesser, "a"), grouped(sorted.greater, "a")), '<')
          << cluster << ", " << sorted.field;
    }
  }
}

TEST(QueryCluster, OrdersSizeBandsByTheSizesInThem) {
  const Parsed parsed = parse_members(R"("cluster": "size:asc")");
  ResourceEntry small = grouped(plain(), "xs");
  ResourceEntry large = grouped(plain(), "l");
  large.stat.st_size = 2'000'000;
  EXPECT_EQ(order_of(parsed.query.sorter, small, large), '<') << "\"xs\" stands behind \"l\" as a text";
  const Parsed descending = parse_members(R"("cluster": "size:desc")");
  EXPECT_EQ(order_of(descending.query.sorter, small, large), '>');
}

TEST(QueryCluster, FollowsTheSortDirectionUnlessItNamesItsOwn) {
  struct Row {
    const char *members;
    char between_clusters;
    char within_a_cluster;
  };
  const std::vector<Row> rows = {
      {R"("cluster": "type")", '<', '<'},
      {R"("cluster": "type:desc")", '>', '<'},
      {R"("sort": "name:desc", "cluster": "type")", '>', '>'},
      {R"("sort": "name:desc", "cluster": "type:asc")", '<', '>'},
      {R"("sort": "name:desc", "cluster": "type:desc")", '>', '>'},
      {R"("sort": "name:asc", "cluster": "type:desc")", '>', '<'},
  };
  const Pair names = pairs().front();
  for (const Row &row : rows) {
    const Parsed parsed = parse_members(row.members);
    EXPECT_EQ(order_of(parsed.query.sorter, grouped(plain(), "a"), grouped(plain(), "b")), row.between_clusters)
        << row.members;
    EXPECT_EQ(order_of(parsed.query.sorter, grouped(names.lesser, "a"), grouped(names.greater, "a")),
              row.within_a_cluster)
        << row.members;
  }
}

TEST(QueryLanguage, RulesTheCollationOfItsOwnRequestOnly) {
  ResourceEntry o = plain();
  o.name = "ö";
  ResourceEntry z = plain();
  z.name = "z";
  EXPECT_EQ(order_of(parse_members(R"("lang": "SWE")").query.sorter, o, z), '>');
  EXPECT_EQ(order_of(parse_members("").query.sorter, o, z), '<');
  EXPECT_EQ(order_of(parse_members(R"("lang": "swe")").query.sorter, o, z), '>');
  EXPECT_EQ(order_of(parse_members(R"("lang": "GER")").query.sorter, o, z), '<');
}

}  // namespace
}  // namespace dirwell

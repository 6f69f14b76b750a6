#include "cache/cluster_counts.h"

#include <random>

#include "cache/cache_store.h"
#include "cache_support.h"

namespace dirwell {
namespace {

using test::dump;
using test::entry;
using test::logged;
using testing::Each;
using testing::SizeIs;

std::string summaryOf(const std::vector<std::string> &clusters) {
  ClusterCounts counts;
  for (const std::string &cluster : clusters) {
    counts.add(cluster);
  }
  return dump(counts.summary());
}

TEST(ClusterItem, HasTheValueBeforeTheCount) {
  EXPECT_EQ(dump(clusterItem("a/b", 3)), R"({"value":"a/b","count":3})");
  EXPECT_EQ(dump(clusterItem({}, 0)), R"({"value":"","count":0})");
  EXPECT_EQ(dump(clusterItem("\xFFq", 5'000'000'000)), "{\"value\":\"\xEF\xBF\xBDq\",\"count\":5000000000}");
}

TEST(ClusterCounts, OfNothingIsAnEmptyArray) {
  EXPECT_EQ(summaryOf({}), "[]");
}

TEST(ClusterCounts, StandInTheOrderOfTheirFirstEntries) {
  EXPECT_EQ(summaryOf({"m"}), R"([{"value":"m","count":1}])");
  EXPECT_EQ(summaryOf({"z", "a", "m", "m"}),
            R"([{"value":"z","count":1},{"value":"a","count":1},{"value":"m","count":2}])");
}

TEST(ClusterCounts, GoOnWhereAClusterComesAgain) {
  EXPECT_EQ(summaryOf({"b", "a", "b"}), R"([{"value":"b","count":2},{"value":"a","count":1}])");
  EXPECT_EQ(summaryOf({"b", "b", "a", "c", "a", "b", "c", "c"}),
            R"([{"value":"b","count":3},{"value":"a","count":2},{"value":"c","count":3}])");
}

TEST(ClusterCounts, CountTheEmptyTextToo) {
  EXPECT_EQ(summaryOf({"", "a", "", ""}), R"([{"value":"","count":3},{"value":"a","count":1}])");
}

TEST(ClusterCounts, TellTextsApartByTheirBytes) {
  EXPECT_EQ(summaryOf({"a", "A", "a ", "a"}),
            R"([{"value":"a","count":2},{"value":"A","count":1},{"value":"a ","count":1}])");
  // Two that look alike in the reply are two all the same.
  EXPECT_EQ(summaryOf({"\xFE", "\xFF", "\xFE"}),
            "[{\"value\":\"\xEF\xBF\xBD\",\"count\":2},{\"value\":\"\xEF\xBF\xBD\",\"count\":1}]");
}

TEST(ClusterCounts, CanBeSummedUpOnTheWay) {
  ClusterCounts counts;
  counts.add("a");
  EXPECT_EQ(dump(counts.summary()), R"([{"value":"a","count":1}])");
  counts.add("a");
  EXPECT_EQ(dump(counts.summary()), R"([{"value":"a","count":2}])");
}

class ClusterCountsOfAStore : public test::CacheTest {
 protected:
  // The three ways to one summary: while writing, from the rows, and alone.
  static std::vector<std::string> summaries(const std::vector<std::string> &clusters) {
    std::vector<ResourceEntry> entries;
    entries.reserve(clusters.size());
    ClusterCounts counts;
    for (const std::string &cluster : clusters) {
      entries.push_back(entry("/d", "name", cluster));
      counts.add(cluster);
    }
    CacheStore store;
    ErrorRecord error;
    JsonRef reply;
    logged([&] { reply = store.set(entries, error); });
    EXPECT_EQ(error.code, 0U);
    return {dump(counts.summary()), dump(JsonRef(json_incref(json_object_get(reply.get(), "cluster")))),
            dump(store.clusterSummary())};
  }
};

void expectOne(const std::vector<std::string> &found) {
  ASSERT_THAT(found, SizeIs(3));
  EXPECT_THAT(found, Each(found.front()));
}

TEST_F(ClusterCountsOfAStore, AreWhatTheRowsTell) {
  expectOne(summaries({}));
  expectOne(summaries({"b", "a", "b", "", "B", "a,b", ",", "b,", "\xFF", "\xC3", "\xFF", "\xC3\xA9", "e\xCC\x81"}));
}

TEST_F(ClusterCountsOfAStore, AreWhatTheRowsTellOfManyClusters) {
  std::vector<std::string> clusters;
  clusters.reserve(6000);
  for (int i = 0; i < 6000; ++i) {
    clusters.push_back("cluster " + std::to_string(i % 2500));
  }
  const std::vector<std::string> found = summaries(clusters);
  expectOne(found);
  EXPECT_EQ(found[2].substr(0, 68), R"([{"value":"cluster 0","count":3},{"value":"cluster 1","count":3},{"v)");
}

TEST_F(ClusterCountsOfAStore, AreWhatTheRowsTellOfRandomClusters) {
  static const std::vector<std::string> pieces = {
      "",     "a",    "A",    "b",  ",", " ", "é",  "e\xCC\x81",        "\xFF",
      "\xC3", "\x80", "\x01", "\"", "0", "1", "00", "\xF4\x90\x80\x80", "\xED\xA0\x80"};
  std::mt19937 random(20261121);  // NOLINT: the same clusters in every run
  for (int round = 0; round < 40; ++round) {
    const std::size_t longest = random() % 4;
    std::vector<std::string> clusters(random() % 300);
    for (std::string &cluster : clusters) {
      for (std::size_t piece = 0; piece < longest; ++piece) {
        cluster += pieces[random() % pieces.size()];
      }
    }
    SCOPED_TRACE(round);
    expectOne(summaries(clusters));
  }
}

}  // namespace
}  // namespace dirwell

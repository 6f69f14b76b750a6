#include "ordering/key_order.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <numeric>

#include "ordering/listings.h"
#include "ordering/sort_key.h"
#include "ordering/sorters.h"

// Sorters have no virtual destructor, by design.
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

namespace dirwell {
namespace {

using test::entryOf;
using test::placesOf;
using testing::ElementsAre;
using testing::ElementsAreArray;

using Relation = std::function<bool(const ResourceEntry &, const ResourceEntry &)>;
using KeyOf = std::function<void(const ResourceEntry &, SortKey &)>;

bool smaller(const ResourceEntry &a, const ResourceEntry &b) {
  return a.stat.st_size < b.stat.st_size;
}

// Any relation with any keys; counts what it is asked.
class AnyOrder final : public Sorter {
 public:
  AnyOrder(Relation relation, KeyOf key_of)
      : Sorter(false), relation_(std::move(relation)), key_of_(std::move(key_of)) {}
  bool compare(const ResourceEntry &a, const ResourceEntry &b) override {
    ++comparisons;
    return relation_(a, b);
  }
  void appendKey(const ResourceEntry &entry, SortKey &key) override { key_of_(entry, key); }

  int comparisons = 0;

 private:
  Relation relation_;
  KeyOf key_of_;
};

std::vector<ResourceEntry> entriesOfSizes(const std::vector<std::int64_t> &sizes) {
  std::vector<ResourceEntry> entries;
  entries.reserve(sizes.size());
  for (const std::int64_t size : sizes) {
    entries.push_back(entryOf("x", {.size = size}));
  }
  test::notePlaces(entries);
  return entries;
}

std::vector<std::int64_t> randomSizes(std::size_t count, unsigned bound) {
  std::mt19937 random(11);
  std::vector<std::int64_t> sizes;
  for (std::size_t made = 0; made < count; ++made) {
    sizes.push_back(static_cast<std::int64_t>(random() % bound));
  }
  return sizes;
}

std::vector<std::uint32_t> stableOrder(const std::vector<std::int64_t> &sizes) {
  std::vector<std::uint32_t> order(sizes.size());
  std::iota(order.begin(), order.end(), 0U);
  std::stable_sort(order.begin(), order.end(),
                   [&sizes](std::uint32_t a, std::uint32_t b) { return sizes[a] < sizes[b]; });
  return order;
}

TEST(KeyOrder, GivesTheIndicesInTheOrderOfTheKeys) {
  AnyOrder sorter(smaller, [](const ResourceEntry &entry, SortKey &key) { key.number(entry.stat.st_size, false); });
  EXPECT_THAT(keyOrder({}, sorter), ElementsAre());
  EXPECT_THAT(keyOrder(entriesOfSizes({7}), sorter), ElementsAre(0));
  EXPECT_THAT(keyOrder(entriesOfSizes({7, 3}), sorter), ElementsAre(1, 0));
  EXPECT_THAT(keyOrder(entriesOfSizes({5, 3, 5, -1, 3}), sorter), ElementsAre(3, 1, 4, 0, 2));
}

TEST(KeyOrder, AsksNothingWhileKeysAreTrusted) {
  AnyOrder sorter(smaller, [](const ResourceEntry &entry, SortKey &key) { key.number(entry.stat.st_size, false); });
  const std::vector<std::int64_t> sizes = randomSizes(1000, 300);
  EXPECT_EQ(keyOrder(entriesOfSizes(sizes), sorter), stableOrder(sizes));
  EXPECT_EQ(sorter.comparisons, 0);
}

TEST(KeyOrder, ChecksTheNeighboursOfAKeyThatIsNotTrustedAndNoOthers) {
  AnyOrder sorter(smaller, [](const ResourceEntry &entry, SortKey &key) {
    key.number(entry.stat.st_size, false);
    if (entry.stat.st_size == 500) {
      key.distrust();
    }
  });
  std::vector<std::int64_t> sizes(1000);
  std::iota(sizes.begin(), sizes.end(), 0);
  EXPECT_EQ(keyOrder(entriesOfSizes(sizes), sorter), stableOrder(sizes));
  EXPECT_EQ(sorter.comparisons, 2);
}

TEST(KeyOrder, ComparesKeysOfAnyLengthsAsBytes) {
  const std::vector<std::string> keys{"",
                                      "a",
                                      "aaaaaaaa",
                                      "aaaaaaaaa",
                                      "aaaaaaaaaa",
                                      "aaaaaaaab",
                                      "aaaaaaab",
                                      "aaaaaaab\x01z",
                                      "aaaaaaab\xFF",
                                      "b",
                                      "b\x80",
                                      "\x80",
                                      "\xFF",
                                      "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"};
  AnyOrder sorter(smaller, [&keys](const ResourceEntry &entry, SortKey &key) {
    for (const char byte : keys[static_cast<std::size_t>(entry.stat.st_size)]) {
      key.fixed(static_cast<unsigned char>(byte));
    }
  });
  std::vector<std::int64_t> sizes(keys.size());
  std::iota(sizes.begin(), sizes.end(), 0);
  std::mt19937 random(2);
  for (int round = 0; round < 20; ++round) {
    std::shuffle(sizes.begin(), sizes.end(), random);
    EXPECT_EQ(keyOrder(entriesOfSizes(sizes), sorter), stableOrder(sizes));
  }
}

struct Lie {
  const char *what;
  KeyOf key_of;
};

TEST(KeyOrder, FallsBackToTheComparisonWhenKeysLie) {
  const Lie lies[] = {
      {"all alike", [](const ResourceEntry &, SortKey &key) { key.distrust(); }},
      {"reversed",
       [](const ResourceEntry &entry, SortKey &key) {
         key.number(entry.stat.st_size, true);
         key.distrust();
       }},
      {"scrambled",
       [](const ResourceEntry &entry, SortKey &key) {
         key.number(static_cast<std::int64_t>(entry.stat.st_size * 2654435761U % 4096), false);
         key.distrust();
       }},
      {"wrong for a few",
       [](const ResourceEntry &entry, SortKey &key) {
         const bool wrong = entry.stat.st_size % 97 == 0;
         key.number(wrong ? -entry.stat.st_size : entry.stat.st_size, false);
         if (wrong) {
           key.distrust();
         }
       }},
  };
  for (const Lie &lie : lies) {
    SCOPED_TRACE(lie.what);
    AnyOrder sorter(smaller, lie.key_of);
    for (const std::size_t count : {2U, 3U, 5U, 8U, 17U, 1000U, 3001U}) {
      // Distinct sizes: equal ones stay in the order of their keys, lies or not.
      std::vector<std::int64_t> sizes(count);
      std::iota(sizes.begin(), sizes.end(), 1);
      std::mt19937 random(7);
      std::shuffle(sizes.begin(), sizes.end(), random);
      EXPECT_EQ(keyOrder(entriesOfSizes(sizes), sorter), stableOrder(sizes));
    }
  }
}

TEST(KeyOrder, KeepsUnorderedEntriesWhereTheyWereWhenItFallsBack) {
  AnyOrder sorter(smaller, [](const ResourceEntry &, SortKey &key) { key.distrust(); });
  const std::vector<std::int64_t> sizes = randomSizes(3000, 40);
  EXPECT_EQ(keyOrder(entriesOfSizes(sizes), sorter), stableOrder(sizes));
}

TEST(KeyOrder, RepairsOneWrongPlaceWithoutSortingAnew) {
  AnyOrder sorter(smaller, [](const ResourceEntry &entry, SortKey &key) {
    key.number(entry.stat.st_size == 999 ? 0 : entry.stat.st_size, false);
    if (entry.stat.st_size == 999) {
      key.distrust();
    }
  });
  std::vector<std::int64_t> sizes(1000);
  std::iota(sizes.begin(), sizes.end(), 1);
  EXPECT_EQ(keyOrder(entriesOfSizes(sizes), sorter), stableOrder(sizes));
  EXPECT_LT(sorter.comparisons, 3000);
}

struct Nonsense {
  const char *what;
  Relation relation;
};

TEST(KeyOrder, IsSafeWithAnyRelation) {
  std::mt19937 random(13);
  const Nonsense relations[] = {
      {"always", [](const ResourceEntry &, const ResourceEntry &) { return true; }},
      {"never", [](const ResourceEntry &, const ResourceEntry &) { return false; }},
      {"not greater", [](const ResourceEntry &a, const ResourceEntry &b) { return a.stat.st_size <= b.stat.st_size; }},
      {"a circle",
       [](const ResourceEntry &a, const ResourceEntry &b) { return (b.stat.st_size - a.stat.st_size + 3) % 3 == 1; }},
      {"a coin", [&random](const ResourceEntry &, const ResourceEntry &) { return (random() & 1U) != 0; }},
  };
  for (const Nonsense &nonsense : relations) {
    SCOPED_TRACE(nonsense.what);
    AnyOrder sorter(nonsense.relation, [&random](const ResourceEntry &, SortKey &key) {
      key.number(static_cast<std::int64_t>(random() % 64), false);
      key.distrust();
    });
    for (const std::size_t count : {2U, 3U, 100U, 2500U}) {
      const std::vector<ResourceEntry> entries = entriesOfSizes(randomSizes(count, 30));
      const std::vector<std::uint32_t> order = keyOrder(entries, sorter);
      ASSERT_EQ(order.size(), count);
      EXPECT_TRUE(test::isPermutation({order.begin(), order.end()}));
    }
  }
}

TEST(KeyOrder, LeavesNoNeighboursThatContradictACircularRelation) {
  const Relation circle = [](const ResourceEntry &a, const ResourceEntry &b) {
    return (b.stat.st_size - a.stat.st_size + 5) % 5 == 1 || (b.stat.st_size - a.stat.st_size + 5) % 5 == 2;
  };
  AnyOrder sorter(circle, [](const ResourceEntry &, SortKey &key) { key.distrust(); });
  std::vector<ResourceEntry> entries = entriesOfSizes(randomSizes(2000, 5));
  arrange(entries, keyOrder(entries, sorter));
  EXPECT_EQ(test::contradictedNeighbours(entries, sorter), 0);
}

TEST(Arrange, PutsEachEntryInItsPlace) {
  const std::vector<std::vector<std::uint32_t>> orders{
      {}, {0}, {0, 1}, {1, 0}, {1, 2, 0}, {2, 0, 1}, {2, 1, 0}, {0, 3, 1, 2}, {3, 2, 1, 0}, {4, 0, 3, 2, 1}};
  for (const std::vector<std::uint32_t> &order : orders) {
    std::vector<ResourceEntry> entries = entriesOfSizes(std::vector<std::int64_t>(order.size(), 0));
    arrange(entries, order);
    EXPECT_THAT(placesOf(entries), ElementsAreArray(order));
  }
}

TEST(Arrange, FollowsLongCycles) {
  std::vector<std::uint32_t> order(5000);
  std::iota(order.begin(), order.end(), 0U);
  std::mt19937 random(17);
  std::shuffle(order.begin(), order.end(), random);
  std::vector<ResourceEntry> entries = entriesOfSizes(std::vector<std::int64_t>(order.size(), 0));
  arrange(entries, order);
  EXPECT_THAT(placesOf(entries), ElementsAreArray(order));
}

}  // namespace
}  // namespace dirwell

// The order in every language over names that collation finds hard: whatever way sort() takes, compare() has the last
// word.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "ordering/listings.h"
#include "ordering/sort_key.h"
#include "ordering/sorters.h"
#include "service/languages.h"

// Sorters have no virtual destructor, by design.
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

namespace dirwell {
namespace {

using test::Names;
using test::placesOf;
using test::ScopedLocale;

class OrderInEveryLanguage : public testing::TestWithParam<Language> {
  ScopedLocale locale_{GetParam().locale};
};

INSTANTIATE_TEST_SUITE_P(Languages, OrderInEveryLanguage, testing::ValuesIn(LanguageTable),
                         [](const auto &row) { return std::string(row.param.code); });

// Lends out what a sorter keeps to itself.
class Probe final : public Sorter {
 public:
  Probe() : Sorter(false) {}
  using Sorter::collate;
  [[nodiscard]] const icu::Collator *icu() const { return collator.get(); }
};

template <typename Field>
std::shared_ptr<Sorter> chain(bool descending) {
  auto head = std::make_shared<Sorter>(descending);
  head->append(std::make_shared<Field>(descending));
  return head;
}

TEST_P(OrderInEveryLanguage, KeysThatAreTrustedAgreeWithComparisonOnEveryPair) {
  auto probe = std::make_shared<Probe>();
  Names names(101);
  for (const Names::Kind kind :
       {Names::Kind::Ascii, Names::Kind::AnyAscii, Names::Kind::LongNumbers, Names::Kind::SplitNumbers,
        Names::Kind::Marks, Names::Kind::EastAsian, Names::Kind::Thai, Names::Kind::Latin, Names::Kind::Greek,
        Names::Kind::IllFormed, Names::Kind::Odd, Names::Kind::OtherDigits}) {
    std::vector<std::string> texts;
    std::vector<std::vector<unsigned char>> keys;
    std::size_t trusted = 0;
    SortKey key(400);
    for (std::string &text : names.of(kind, 160)) {
      key.start();
      key.collated(probe->icu(), text, false);
      if (key.trusted()) {
        ++trusted;
        texts.push_back(std::move(text));
        keys.emplace_back(key.arena().begin() + static_cast<std::ptrdiff_t>(key.offset()), key.arena().end());
      }
    }
    if (kind == Names::Kind::Ascii || kind == Names::Kind::LongNumbers || kind == Names::Kind::Latin) {
      EXPECT_EQ(trusted, 160U);
    }
    for (std::size_t right = 1; right < texts.size(); ++right) {
      for (std::size_t left = 0; left < right; ++left) {
        const int by_keys = keys[left] < keys[right] ? -1 : (keys[left] > keys[right] ? 1 : 0);
        ASSERT_EQ(by_keys, probe->collate(texts[left], texts[right])) << texts[left] << " | " << texts[right];
        ASSERT_EQ(-by_keys, probe->collate(texts[right], texts[left])) << texts[left] << " | " << texts[right];
      }
    }
  }
}

TEST_P(OrderInEveryLanguage, SortIsTheStableOrderOfTheComparison) {
  Names names(202);
  for (const bool descending : {false, true}) {
    SCOPED_TRACE(descending);
    auto sorter = chain<NameSorter>(descending);
    const std::vector<ResourceEntry> entries = test::listingOf(names.consistent(50));
    std::vector<ResourceEntry> sorted = entries;
    sorter->sort(sorted);
    EXPECT_TRUE(placesOf(sorted) == test::placesByComparison(entries, *sorter));
    EXPECT_EQ(test::contradictedPairs(sorted, *sorter), 0);
  }
}

TEST_P(OrderInEveryLanguage, EveryFieldIsTheStableOrderOfTheComparison) {
  Names names(303);
  std::vector<ResourceEntry> entries;
  for (const std::string &name : names.consistent(12)) {
    const auto pick = [&names](std::size_t bound) { return static_cast<unsigned>(names.below(bound)); };
    entries.push_back(test::entryOf(name + (pick(2) == 0 ? "." + names.one(Names::Kind::Marks) : ""),
                                    {.mode = (pick(4) == 0 ? 040000U : 0100000U) | (pick(4) * 0111U),
                                     .size = static_cast<std::int64_t>(pick(5)) - 2,
                                     .mtime = static_cast<std::int64_t>(pick(5)) - 2,
                                     .uid = pick(3) * 2000000000U,
                                     .gid = pick(3) * 2000000000U,
                                     .cluster = std::string(1, static_cast<char>('a' + pick(3))),
                                     .directory = pick(2) == 0 ? "/share/b" : "/share/B"}));
  }
  test::notePlaces(entries);
  std::shared_ptr<Sorter> (*const makers[])(bool) = {
      chain<Sorter>,     chain<DirectorySorter>, chain<NameSorter>,  chain<DateSorter>,       chain<SizeSorter>,
      chain<TypeSorter>, chain<OwnerSorter>,     chain<GroupSorter>, chain<PermissionSorter>, chain<ClusterSorter>};
  for (std::size_t field = 0; field < std::size(makers); ++field) {
    for (const int directions : {0, 1, 2, 3}) {
      SCOPED_TRACE(testing::Message() << "field " << field << " directions " << directions);
      auto sorter = makers[field]((directions & 1) != 0);
      for (const bool with_name : {false, true}) {
        if (with_name) {
          sorter->append(std::make_shared<NameSorter>((directions & 2) != 0));
        }
        std::vector<ResourceEntry> sorted = entries;
        sorter->sort(sorted);
        EXPECT_TRUE(placesOf(sorted) == test::placesByComparison(entries, *sorter));
      }
    }
  }
}

TEST_P(OrderInEveryLanguage, HardClusterTextsStayWholeAndInOrder) {
  Names names(404);
  const std::vector<std::string> clusters = names.consistent(3);
  std::vector<ResourceEntry> entries;
  entries.reserve(400);
  for (int made = 0; made < 400; ++made) {
    entries.push_back(
        test::entryOf(names.one(Names::Kind::Ascii), {.cluster = clusters[names.below(clusters.size())]}));
  }
  for (const bool descending : {false, true}) {
    auto sorter = chain<ClusterSorter>(descending);
    sorter->append(std::make_shared<NameSorter>(!descending));
    std::vector<ResourceEntry> sorted = entries;
    sorter->sort(sorted);
    EXPECT_EQ(test::contradictedPairs(sorted, *sorter), 0);
    std::vector<std::string> groups;
    for (const ResourceEntry &entry : sorted) {
      if (groups.empty() || groups.back() != entry.cluster) {
        groups.push_back(entry.cluster);
      }
    }
    std::sort(groups.begin(), groups.end());
    EXPECT_EQ(std::adjacent_find(groups.begin(), groups.end()), groups.end());
  }
}

TEST_P(OrderInEveryLanguage, ComparisonDecidesEachPairWhereKeysDisagree) {
  // With the digits of other scripts, ICU's comparison is not what its keys say in most of the languages.
  Names names(505);
  const std::vector<ResourceEntry> entries = test::listingOf(names.of(Names::Kind::OtherDigits, 90));
  for (const bool descending : {false, true}) {
    auto sorter = chain<NameSorter>(descending);
    for (std::size_t right = 1; right < entries.size(); ++right) {
      for (std::size_t left = 0; left < right; ++left) {
        std::vector<ResourceEntry> pair{entries[left], entries[right]};
        sorter->sort(pair);
        ASSERT_FALSE(test::strictlyBefore(*sorter, pair[1], pair[0])) << pair[0].name << " | " << pair[1].name;
      }
    }
  }
}

TEST_P(OrderInEveryLanguage, LeavesNoNeighboursThatContradictTheComparison) {
  Names names(606);
  for (const bool descending : {false, true}) {
    auto sorter = chain<NameSorter>(descending);
    std::vector<std::string> mixed = names.consistent(20);
    for (const std::string &name : names.of(Names::Kind::OtherDigits, 400)) {
      mixed.push_back(name);
    }
    for (const char *name : {".\xFF", "\xFF", "@\x80", "\x80z", ".\xC0.", ""}) {
      mixed.emplace_back(name);
    }
    std::vector<ResourceEntry> entries = test::listingOf(mixed);
    sorter->sort(entries);
    EXPECT_TRUE(test::isPermutation(placesOf(entries)));
    EXPECT_EQ(test::contradictedNeighbours(entries, *sorter), 0);
  }
}

TEST(OrderInCzech, TakesTheWordOfTheComparisonAgainstTheKeys) {
  // The keys put the longer number last; the comparison, having skipped the digit that both begin with, puts it first.
  ScopedLocale locale("cs_CZ");
  const std::string one_digit =
      "\xF0\x9D\x9F\x98"
      "a";
  const std::string two_digits = "\xF0\x9D\x9F\x98\xDB\xB7";
  auto probe = std::make_shared<Probe>();
  SortKey key(2);
  key.start();
  key.collated(probe->icu(), one_digit, false);
  const std::vector<unsigned char> first(key.arena());
  key.start();
  key.collated(probe->icu(), two_digits, false);
  const std::vector<unsigned char> second(key.arena().begin() + static_cast<std::ptrdiff_t>(key.offset()),
                                          key.arena().end());
  ASSERT_LT(first, second);
  ASSERT_EQ(probe->collate(one_digit, two_digits), UCOL_GREATER);

  std::vector<ResourceEntry> entries = test::listingOf({one_digit, two_digits});
  chain<NameSorter>(false)->sort(entries);
  EXPECT_THAT(test::namesOf(entries), testing::ElementsAre(two_digits, one_digit));
}

}  // namespace
}  // namespace dirwell

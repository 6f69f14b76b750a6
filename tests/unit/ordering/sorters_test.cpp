#include "ordering/sorters.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unicode/uclean.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "ordering/listings.h"
#include "support/environment.h"

// Sorters have no virtual destructor, by design.
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

namespace dirwell {
namespace {

using test::entryOf;
using test::Facts;
using test::listingOf;
using test::namesOf;
using test::placesOf;
using test::ScopedLocale;
using testing::ElementsAre;
using testing::ElementsAreArray;

template <typename First>
std::shared_ptr<Sorter> chain(bool descending) {
  auto head = std::make_shared<Sorter>(descending);
  head->append(std::make_shared<First>(descending));
  return head;
}

template <typename First, typename Second>
std::shared_ptr<Sorter> chain(bool descending, bool second_descending) {
  return chain<First>(descending)->append(std::make_shared<Second>(second_descending));
}

std::vector<std::string> sortedNames(Sorter &sorter, std::vector<ResourceEntry> entries) {
  sorter.sort(entries);
  return namesOf(entries);
}

template <typename Field>
std::vector<std::string> sortedBy(bool descending, const std::vector<std::string> &names) {
  return sortedNames(*chain<Field>(descending), listingOf(names));
}

// How many times a text begins anew on the way through the listing.
template <typename TextOf>
std::size_t groupsOf(const std::vector<ResourceEntry> &entries, TextOf text_of) {
  std::size_t groups = entries.empty() ? 0 : 1;
  for (std::size_t place = 1; place < entries.size(); ++place) {
    groups += text_of(entries[place]) != text_of(entries[place - 1]) ? 1 : 0;
  }
  return groups;
}

class SortersInEnglish : public testing::Test {
  ScopedLocale locale_{"en_US"};
};

using SorterBase = SortersInEnglish;
using NameSorterOrder = SortersInEnglish;
using DirectorySorterOrder = SortersInEnglish;
using FieldSorters = SortersInEnglish;
using ClusterSorterOrder = SortersInEnglish;
using SizeClusterSorterOrder = SortersInEnglish;

// The chain

TEST_F(SorterBase, AloneOrdersNothingAndMovesNothing) {
  for (const bool descending : {false, true}) {
    auto sorter = std::make_shared<Sorter>(descending);
    EXPECT_FALSE(sorter->compare(entryOf("a"), entryOf("b")));
    EXPECT_FALSE(sorter->compare(entryOf("b"), entryOf("a")));
    EXPECT_THAT(sortedNames(*sorter, listingOf({"c", "a", "b"})), ElementsAre("c", "a", "b"));
  }
}

// ICU's memory, of which one piece is not to be had.
int pieces_until_failure = -1;

void *allocated(const void * /*context*/, std::size_t size) {
  return pieces_until_failure >= 0 && pieces_until_failure-- == 0 ? nullptr : std::malloc(size);
}

void *reallocated(const void * /*context*/, void *memory, std::size_t size) {
  return pieces_until_failure >= 0 && pieces_until_failure-- == 0 ? nullptr : std::realloc(memory, size);
}

void released(const void * /*context*/, void *memory) {
  std::free(memory);
}

// What ICU gives now, and ICU alone: what it could not load once it never tries again.
bool icuHasACollator() {
  UErrorCode error = U_ZERO_ERROR;
  const std::unique_ptr<icu::Collator> collator(icu::Collator::createInstance(error));
  return U_SUCCESS(error);
}

// The first collator of a language is what all later ones are copies of. Whichever piece of memory it lacks, the order
// is that of bytes at most, and only until there is some again.
TEST_F(SorterBase, KeepsNoCollatorThatCouldNotBeMadeWhole) {
  EXPECT_EQ(test::in_child([] {
              const Sorter first(false);  // loads what ICU would remember for good that it could not
              UErrorCode error = U_ZERO_ERROR;
              u_setMemoryFunctions(nullptr, allocated, reallocated, released, &error);
              if (U_FAILURE(error)) {
                ::_exit(2);
              }
              const std::vector<std::string> natural = {"a", "B", "file9", "file10"};
              const std::vector<std::string> bytes = {"B", "a", "file10", "file9"};
              int recovered = 0;
              bool lacking = true;
              for (int pieces = 0; lacking; ++pieces) {
                // A language of its own, which nothing has been kept of yet.
                const ScopedLocale locale(("en_US_TEST" + std::to_string(pieces)).c_str());
                pieces_until_failure = pieces;
                { const Sorter starved(false); }
                lacking = pieces_until_failure < 0;
                pieces_until_failure = -1;
                const bool whole = icuHasACollator();
                recovered += lacking && whole ? 1 : 0;
                if (sortedBy<NameSorter>(false, {"file10", "B", "file9", "a"}) != (whole ? natural : bytes)) {
                  std::fprintf(stderr, "after %d pieces\n", pieces);
                  ::_exit(3);
                }
              }
              ::_exit(recovered > 0 ? 0 : 4);
            }),
            0);
}

// A name whose key ICU has no memory for is compared with its neighbours instead.
TEST_F(SorterBase, OrdersNamesWithoutAKeyAllTheSame) {
  EXPECT_EQ(
      test::in_child([] {
        UErrorCode error = U_ZERO_ERROR;
        u_setMemoryFunctions(nullptr, allocated, reallocated, released, &error);
        const std::string head(2000, 'e');
        const std::vector<std::string> natural = {head + "9a", head + "9B", head + "10", head + "10b", head + "11"};
        int lacking = 0;
        for (int pieces = 0; lacking == pieces; ++pieces) {
          auto sorter = chain<NameSorter>(false);
          auto entries = listingOf({natural[3], natural[0], natural[4], natural[1], natural[2]});
          pieces_until_failure = pieces;
          sorter->sort(entries);
          lacking += pieces_until_failure < 0 ? 1 : 0;
          pieces_until_failure = -1;
          if (namesOf(entries) != natural) {
            std::fprintf(stderr, "after %d pieces\n", pieces);
            ::_exit(1);
          }
        }
        ::_exit(lacking > 0 ? 0 : 2);
      }),
      0);
}

TEST_F(SorterBase, AppendGoesToTheEndOfTheChainAndReturnsItsHead) {
  auto head = std::make_shared<Sorter>(false);
  EXPECT_EQ(head->append(std::make_shared<SizeSorter>(false)), head);
  EXPECT_EQ(head->append(std::make_shared<DateSorter>(false)), head);
  EXPECT_EQ(head->append(std::make_shared<NameSorter>(false)), head);
  EXPECT_THAT(sortedNames(*head, {entryOf("e", {.size = 2, .mtime = 1}), entryOf("d", {.size = 1, .mtime = 2}),
                                  entryOf("c", {.size = 1, .mtime = 1}), entryOf("b", {.size = 1, .mtime = 1}),
                                  entryOf("a", {.size = 2, .mtime = 0})}),
              ElementsAre("b", "c", "d", "a", "e"));
}

TEST_F(SorterBase, ChainSurvivesTheLossOfItsPartsAndHead) {
  std::vector<ResourceEntry> entries = listingOf({"b", "a"});
  chain<NameSorter>(false)->sort(entries);
  EXPECT_THAT(namesOf(entries), ElementsAre("a", "b"));
}

TEST_F(SorterBase, SortsNoneOneAndTwo) {
  for (const bool descending : {false, true}) {
    EXPECT_THAT(sortedBy<NameSorter>(descending, {}), ElementsAre());
    EXPECT_THAT(sortedBy<NameSorter>(descending, {"a"}), ElementsAre("a"));
  }
  EXPECT_THAT(sortedBy<NameSorter>(false, {"b", "a"}), ElementsAre("a", "b"));
  EXPECT_THAT(sortedBy<NameSorter>(false, {"a", "b"}), ElementsAre("a", "b"));
  EXPECT_THAT(sortedBy<NameSorter>(true, {"a", "b"}), ElementsAre("b", "a"));
}

TEST_F(SorterBase, MovesWholeEntries) {
  std::vector<ResourceEntry> entries{
      entryOf("b.txt",
              {.mode = 0100600, .size = 7, .mtime = 8, .uid = 9, .gid = 10, .cluster = "x", .directory = "/r"}),
      entryOf("a.jpg",
              {.mode = 0100755, .size = 1, .mtime = 2, .uid = 3, .gid = 4, .cluster = "y", .directory = "/s"})};
  chain<NameSorter>(false)->sort(entries);
  EXPECT_EQ(entries[1].name, "b.txt");
  EXPECT_EQ(entries[1].extension, "txt");
  EXPECT_EQ(entries[1].cluster, "x");
  EXPECT_EQ(entries[1].directory.view(), "/r");
  EXPECT_EQ(entries[1].stat.st_mode, 0100600U);
  EXPECT_EQ(entries[1].stat.st_size, 7);
  EXPECT_EQ(entries[1].stat.st_mtime, 8);
  EXPECT_EQ(entries[1].stat.st_uid, 9U);
  EXPECT_EQ(entries[1].stat.st_gid, 10U);
  EXPECT_EQ(entries[0].name, "a.jpg");
  EXPECT_EQ(entries[0].directory.view(), "/s");
}

// Names

TEST_F(NameSorterOrder, PutsDotAtNamesFirstInBothDirections) {
  const std::vector<std::string> names{"apple", "@Recycle", "banana", ".config", ".@__thumb", "@a", ".@a", ".zsh"};
  EXPECT_THAT(sortedBy<NameSorter>(false, names),
              ElementsAre(".@__thumb", ".@a", ".config", ".zsh", "@a", "@Recycle", "apple", "banana"));
  EXPECT_THAT(sortedBy<NameSorter>(true, names),
              ElementsAre(".@a", ".@__thumb", ".zsh", ".config", "@Recycle", "@a", "banana", "apple"));
}

TEST_F(NameSorterOrder, TakesNumbersByValue) {
  EXPECT_THAT(sortedBy<NameSorter>(false, {"a10", "a9", "a1", "a100", "a2b", "a2"}),
              ElementsAre("a1", "a2", "a2b", "a9", "a10", "a100"));
  EXPECT_THAT(sortedBy<NameSorter>(true, {"a9", "a10", "a1"}), ElementsAre("a10", "a9", "a1"));
}

TEST_F(NameSorterOrder, PutsLowerCaseFirstAndAccentsAfterTheirLetter) {
  EXPECT_THAT(sortedBy<NameSorter>(false, {"B", "b", "É", "e", "é", "E", "A", "a", "f"}),
              ElementsAre("a", "A", "b", "B", "e", "E", "é", "É", "f"));
}

TEST_F(NameSorterOrder, FollowsTheLanguageAtTheTimeItIsMade) {
  const std::vector<std::string> names{"zeta", "öl", "ost", "chata", "cukr", "hora"};
  EXPECT_THAT(sortedBy<NameSorter>(false, names), ElementsAre("chata", "cukr", "hora", "öl", "ost", "zeta"));
  std::shared_ptr<Sorter> czech;
  {
    ScopedLocale locale("cs_CZ");
    czech = chain<NameSorter>(false);
  }
  EXPECT_THAT(sortedNames(*czech, listingOf(names)), ElementsAre("cukr", "hora", "chata", "öl", "ost", "zeta"));
  ScopedLocale locale("sv_SE");
  EXPECT_THAT(sortedBy<NameSorter>(false, names), ElementsAre("chata", "cukr", "hora", "ost", "zeta", "öl"));
}

TEST_F(NameSorterOrder, FollowsTheLanguageThereAndBackAgain) {
  const std::vector<std::string> names{"zeta", "öl", "ost", "chata", "cukr", "hora"};
  const auto english = ElementsAre("chata", "cukr", "hora", "öl", "ost", "zeta");
  const auto swedish = ElementsAre("chata", "cukr", "hora", "ost", "zeta", "öl");
  const auto czech = ElementsAre("cukr", "hora", "chata", "öl", "ost", "zeta");
  std::vector<std::shared_ptr<Sorter>> sorters;
  for (int round = 0; round < 3; ++round) {
    EXPECT_THAT(sortedBy<NameSorter>(false, names), english);
    for (const char *id : {"sv_SE", "cs_CZ"}) {
      ScopedLocale locale(id);
      sorters.push_back(chain<NameSorter>(false));
    }
  }
  for (std::size_t place = 0; place < sorters.size(); place += 2) {
    EXPECT_THAT(sortedNames(*sorters[place], listingOf(names)), swedish);
    EXPECT_THAT(sortedNames(*sorters[place + 1], listingOf(names)), czech);
  }
}

// Locales of one language and country that differ in their collation are told apart too.
TEST_F(NameSorterOrder, FollowsTheCollationThatALocaleAsksFor) {
  const std::vector<std::string> names{"af", "ä", "ad"};
  for (int round = 0; round < 2; ++round) {
    {
      ScopedLocale locale("de_DE");
      EXPECT_THAT(sortedBy<NameSorter>(false, names), ElementsAre("ä", "ad", "af"));
    }
    ScopedLocale locale("de_DE@collation=phonebook");
    EXPECT_THAT(sortedBy<NameSorter>(false, names), ElementsAre("ad", "ä", "af"));
  }
}

// A sorter whose collator the test can change.
class OwnCollator final : public Sorter {
 public:
  OwnCollator() : Sorter(false) {}
  using Sorter::collate;
  [[nodiscard]] icu::Collator *icu() const { return collator.get(); }

  void set(UColAttribute attribute, UColAttributeValue value) const {
    UErrorCode result = U_ZERO_ERROR;
    collator->setAttribute(attribute, value, result);
    EXPECT_TRUE(U_SUCCESS(result));
  }
  [[nodiscard]] std::vector<UColAttributeValue> attributes() const {
    UErrorCode result = U_ZERO_ERROR;
    std::vector<UColAttributeValue> values;
    for (const UColAttribute attribute :
         {UCOL_NUMERIC_COLLATION, UCOL_NORMALIZATION_MODE, UCOL_STRENGTH, UCOL_CASE_FIRST}) {
      values.push_back(collator->getAttribute(attribute, result));
    }
    EXPECT_TRUE(U_SUCCESS(result));
    return values;
  }
};

TEST_F(SorterBase, HasTheSameCollationWhicheverOfALocaleItIs) {
  for (const char *id : {"en_US", "ja_JP", "da_DK"}) {
    ScopedLocale locale(id);
    for (int count = 0; count < 3; ++count) {
      EXPECT_THAT(std::make_shared<OwnCollator>()->attributes(),
                  ElementsAre(UCOL_ON, UCOL_ON, UCOL_TERTIARY, UCOL_LOWER_FIRST))
          << id;
    }
  }
}

TEST_F(SorterBase, SharesNoCollatorWithAnother) {
  const auto first = std::make_shared<OwnCollator>();
  const auto second = std::make_shared<OwnCollator>();
  EXPECT_NE(first->icu(), second->icu());
  first->set(UCOL_NUMERIC_COLLATION, UCOL_OFF);
  first->set(UCOL_STRENGTH, UCOL_PRIMARY);
  first->set(UCOL_CASE_FIRST, UCOL_UPPER_FIRST);
  const auto third = std::make_shared<OwnCollator>();
  EXPECT_THAT(first->attributes(), ElementsAre(UCOL_OFF, UCOL_ON, UCOL_PRIMARY, UCOL_UPPER_FIRST));
  for (const auto &other : {second, third}) {
    EXPECT_THAT(other->attributes(), ElementsAre(UCOL_ON, UCOL_ON, UCOL_TERTIARY, UCOL_LOWER_FIRST));
    EXPECT_EQ(other->collate("a10", "a9"), UCOL_GREATER);
    EXPECT_EQ(other->collate("a", "A"), UCOL_LESS);
  }
  EXPECT_EQ(first->collate("a10", "a9"), UCOL_LESS);
  EXPECT_EQ(first->collate("a", "A"), UCOL_EQUAL);
}

TEST_F(SorterBase, OutlivesTheOthersOfItsLocale) {
  auto first = std::make_shared<OwnCollator>();
  const auto second = std::make_shared<OwnCollator>();
  first.reset();
  EXPECT_EQ(second->collate("a10", "a9"), UCOL_GREATER);
  EXPECT_EQ(std::make_shared<OwnCollator>()->collate("é", "f"), UCOL_LESS);
}

struct Verdict {
  std::string a;
  std::string b;
  bool before;      // ascending: a before b
  bool after;       // ascending: b before a
  bool descending;  // descending: a before b
  bool reverse;     // descending: b before a
};

TEST_F(NameSorterOrder, DecidesEachPairAsItsRulesSay) {
  const Verdict verdicts[] = {
      {"a", "b", true, false, false, true},
      {"a", "a", false, false, false, false},
      {".@a", ".@b", true, false, false, true},  // the same front: collated
      {".@z", ".a", true, false, true, false},   // ".@" first
      {".@", "@", true, false, true, false},
      {".@", "", true, false, true, false},
      {".z", ".a", false, true, true, false},  // the same first byte: collated
      {".z", "@a", true, false, true, false},  // "." next
      {".z", "!", true, false, true, false},
      {"@z", "!", true, false, true, false},  // "@" next
      {"@z", "@a", false, true, true, false},
      {"é", "ê", true, false, false, true},  // the same first byte
      {"@", "0", true, false, true, false},
      {"", "a", true, false, false, true},        // no listing holds it, but a caller may
      {".\xFF", ".@", false, true, false, true},  // an ill-formed front is still a dot name
      {".\xFF", "a", true, false, true, false},
      {".\xFF", "\xFF", true, false, false, true},  // two ill-formed fronts: collated, dot or not
      {"@\xFF",
       "\xFF"
       "a",
       true, false, false, true},
  };
  auto ascending = std::make_shared<NameSorter>(false);
  auto descending = std::make_shared<NameSorter>(true);
  for (const Verdict &verdict : verdicts) {
    SCOPED_TRACE(verdict.a + " | " + verdict.b);
    const ResourceEntry a = entryOf(verdict.a);
    const ResourceEntry b = entryOf(verdict.b);
    EXPECT_EQ(ascending->compare(a, b), verdict.before);
    EXPECT_EQ(ascending->compare(b, a), verdict.after);
    EXPECT_EQ(descending->compare(a, b), verdict.descending);
    EXPECT_EQ(descending->compare(b, a), verdict.reverse);
  }
}

TEST_F(NameSorterOrder, SaysBothOfCanonicallyEqualNamesComeFirstWhenDescending) {
  const ResourceEntry composed = entryOf("\xC3\xA9");
  const ResourceEntry decomposed = entryOf("e\xCC\x81");
  auto descending = std::make_shared<NameSorter>(true);
  EXPECT_TRUE(descending->compare(composed, decomposed));
  EXPECT_TRUE(descending->compare(decomposed, composed));
  EXPECT_FALSE(descending->compare(composed, composed));
  auto ascending = std::make_shared<NameSorter>(false);
  EXPECT_FALSE(ascending->compare(composed, decomposed));
  EXPECT_FALSE(ascending->compare(decomposed, composed));
}

TEST_F(NameSorterOrder, HandsOnEqualNamesOnly) {
  for (const bool descending : {false, true}) {
    auto sorter = std::make_shared<NameSorter>(descending);
    sorter->append(std::make_shared<SizeSorter>(false));
    EXPECT_TRUE(sorter->compare(entryOf("a", {.size = 1}), entryOf("a", {.size = 2})));
    EXPECT_FALSE(sorter->compare(entryOf("a", {.size = 2}), entryOf("a", {.size = 1})));
    // Names that collate equal are decided, whatever their sizes.
    EXPECT_EQ(sorter->compare(entryOf("\xC3\xA9", {.size = 1}), entryOf("e\xCC\x81", {.size = 2})), descending);
    EXPECT_EQ(sorter->compare(entryOf("\xC3\xA9", {.size = 2}), entryOf("e\xCC\x81", {.size = 1})), descending);

    std::vector<ResourceEntry> entries{entryOf("a", {.size = 3}), entryOf("a", {.size = 1}), entryOf("a", {.size = 2})};
    sorter->sort(entries);
    EXPECT_EQ(entries[0].stat.st_size, 1);
    EXPECT_EQ(entries[1].stat.st_size, 2);
    EXPECT_EQ(entries[2].stat.st_size, 3);
  }
}

TEST_F(NameSorterOrder, TakesMarksInAnyOrder) {
  const ResourceEntry below_first = entryOf("a\xCC\xA3\xCC\x81");
  const ResourceEntry above_first = entryOf("a\xCC\x81\xCC\xA3");
  auto sorter = std::make_shared<NameSorter>(false);
  EXPECT_FALSE(sorter->compare(below_first, above_first));
  EXPECT_FALSE(sorter->compare(above_first, below_first));
}

TEST_F(NameSorterOrder, OrdersEachOfSeveralCanonicallyEqualNamesByTheNextSorter) {
  const char *spellings[] = {"\xC3\xA9", "e\xCC\x81", "\xC3\xA9z", "e\xCC\x81z"};
  std::mt19937 random(9);
  for (const bool descending : {false, true}) {
    auto sorter = chain<NameSorter, SizeSorter>(descending, descending);
    std::vector<ResourceEntry> entries;
    entries.reserve(300);
    for (int made = 0; made < 300; ++made) {
      entries.push_back(entryOf(spellings[random() % 4], {.size = static_cast<std::int64_t>(random() % 100)}));
    }
    sorter->sort(entries);
    EXPECT_EQ(test::contradictedPairs(entries, *sorter), 0);
  }
}

TEST_F(NameSorterOrder, SortsThousandsOfCanonicallyEqualNames) {
  // 4096 spellings of one text, and neighbours on both sides of it.
  const std::vector<std::string> letters{"\xC3\xA9", "e\xCC\x81"};
  std::vector<std::string> names;
  for (unsigned spelling = 0; spelling < 4096; ++spelling) {
    std::string name;
    for (unsigned place = 0; place < 12; ++place) {
      name += letters[(spelling >> place) & 1U];
    }
    names.push_back(name);
    if (spelling % 512 == 0) {
      names.push_back("a");
      names.push_back("z");
    }
  }
  for (const bool descending : {false, true}) {
    SCOPED_TRACE(descending);
    auto sorter = chain<NameSorter>(descending);
    std::vector<ResourceEntry> entries = listingOf(names);
    sorter->sort(entries);
    std::vector<std::string> expected(8, descending ? "z" : "a");
    for (const std::string &name : names) {
      if (name.size() > 1) {
        expected.push_back(name);  // unordered: where they were
      }
    }
    expected.insert(expected.end(), 8, descending ? "a" : "z");
    EXPECT_TRUE(namesOf(entries) == expected);
    EXPECT_TRUE(test::isPermutation(placesOf(entries)));
  }
}

TEST_F(NameSorterOrder, CountsEachIllFormedSequenceAsOneReplacementCharacter) {
  EXPECT_THAT(sortedBy<NameSorter>(false, {"ab\xFF\xFF", "ab\xFF", "abz", "ab\xF0\x9F\x98z", "ab"}),
              ElementsAre("ab", "abz", "ab\xFF", "ab\xF0\x9F\x98z", "ab\xFF\xFF"));
}

TEST_F(NameSorterOrder, LivesWithFrontsThatContradictEachOther) {
  // Ill-formed fronts are collated among themselves and by their class against the others: no order pleases both.
  std::vector<std::string> names;
  for (int round = 0; round < 300; ++round) {
    names.insert(names.end(),
                 {".\xFF", "\xFF", "@\xC0", "b", "\xFFz", ".b", "@", "\xEF\xBF\xBF", ".@\xFF", "\x80.", ".\x80"});
  }
  for (const bool descending : {false, true}) {
    auto sorter = chain<NameSorter>(descending);
    std::vector<ResourceEntry> entries = listingOf(names);
    sorter->sort(entries);
    EXPECT_TRUE(test::isPermutation(placesOf(entries)));
    EXPECT_EQ(test::contradictedNeighbours(entries, *sorter), 0);
  }
}

// Directories

TEST_F(DirectorySorterOrder, PutsFoldersFirstWithinARootInBothDirections) {
  const Facts folder{.mode = 040755};
  const std::vector<ResourceEntry> entries{entryOf("b"), entryOf("z", folder), entryOf("a"), entryOf("y", folder)};
  EXPECT_THAT(sortedNames(*chain<DirectorySorter, NameSorter>(false, false), entries), ElementsAre("y", "z", "a", "b"));
  EXPECT_THAT(sortedNames(*chain<DirectorySorter, NameSorter>(true, true), entries), ElementsAre("z", "y", "b", "a"));
}

TEST_F(DirectorySorterOrder, OrdersRootsFirst) {
  const std::vector<ResourceEntry> entries{
      entryOf("1", {.directory = "/b10"}), entryOf("2", {.mode = 040755, .directory = "/b9"}),
      entryOf("3", {.directory = "/A"}),   entryOf("4", {.mode = 040755, .directory = "/a"}),
      entryOf("5", {.directory = "/b9"}),  entryOf("6", {.mode = 040755, .directory = "/b10"})};
  EXPECT_THAT(sortedNames(*chain<DirectorySorter, NameSorter>(false, false), entries),
              ElementsAre("4", "3", "2", "5", "6", "1"));
  EXPECT_THAT(sortedNames(*chain<DirectorySorter, NameSorter>(true, false), entries),
              ElementsAre("6", "1", "2", "5", "3", "4"));
}

TEST_F(DirectorySorterOrder, DecidesRootsThatCollateEqual) {
  const ResourceEntry a = entryOf("a", {.directory = "/\xC3\xA9"});
  const ResourceEntry b = entryOf("b", {.directory = "/e\xCC\x81"});
  auto ascending = chain<DirectorySorter, NameSorter>(false, false);
  EXPECT_FALSE(ascending->compare(a, b));
  EXPECT_FALSE(ascending->compare(b, a));
  auto descending = chain<DirectorySorter, NameSorter>(true, false);
  EXPECT_TRUE(descending->compare(a, b));
  EXPECT_TRUE(descending->compare(b, a));
}

TEST_F(DirectorySorterOrder, KeepsRootsApartThatCollateEqual) {
  const char *roots[] = {"/\xC3\xA9", "/e\xCC\x81", "/\xC3\xA9z"};
  std::mt19937 random(4);
  for (const bool descending : {false, true}) {
    auto sorter = chain<DirectorySorter, NameSorter>(descending, descending);
    std::vector<ResourceEntry> entries;
    entries.reserve(300);
    for (int made = 0; made < 300; ++made) {
      entries.push_back(entryOf(std::to_string(random() % 100),
                                {.mode = random() % 2 == 0 ? 040755U : 0100644U, .directory = roots[random() % 3]}));
    }
    sorter->sort(entries);
    EXPECT_EQ(test::contradictedPairs(entries, *sorter), 0);
    EXPECT_EQ(groupsOf(entries, [](const ResourceEntry &entry) { return std::string(entry.directory.view()); }), 3U);
  }
}

// Numbers

constexpr std::int64_t lowest = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t highest = std::numeric_limits<std::int64_t>::max();

struct NumberCase {
  const char *what;
  std::shared_ptr<Sorter> (*make)(bool descending);
  std::vector<Facts> ascending;  // strictly, smallest first
  Facts equal_to_first;          // by this field alone
};

TEST_F(FieldSorters, OrderByTheirNumberInBothDirections) {
  const NumberCase cases[] = {
      {"date",
       chain<DateSorter>,
       {{.mtime = lowest},
        {.mtime = -1},
        {.mtime = 0},
        {.mtime = 1},
        {.mtime = 256},
        {.mtime = 5000000000},
        {.mtime = highest}},
       {.size = 5, .mtime = lowest}},
      {"size",
       chain<SizeSorter>,
       {{.size = lowest},
        {.size = -1},
        {.size = 0},
        {.size = 255},
        {.size = 256},
        {.size = 4294967296},
        {.size = highest}},
       {.size = lowest, .mtime = 5}},
      {"owner",
       chain<OwnerSorter>,
       {{.uid = 0}, {.uid = 9}, {.uid = 10}, {.uid = 1000}, {.uid = 2147483648}, {.uid = 4294967295}},
       {.uid = 0, .gid = 5}},
      {"group",
       chain<GroupSorter>,
       {{.gid = 0}, {.gid = 9}, {.gid = 10}, {.gid = 1000}, {.gid = 2147483648}, {.gid = 4294967295}},
       {.uid = 5, .gid = 0}},
      {"permission",
       chain<PermissionSorter>,
       {{.mode = 0100000},
        {.mode = 0100007},
        {.mode = 0040070},
        {.mode = 0100600},
        {.mode = 0020644},
        {.mode = 0107777}},
       {.mode = 0047000}},
  };
  for (const NumberCase &row : cases) {
    SCOPED_TRACE(row.what);
    for (const bool descending : {false, true}) {
      auto sorter = row.make(descending);
      std::vector<ResourceEntry> entries;
      std::vector<std::string> expected;
      for (std::size_t place = 0; place < row.ascending.size(); ++place) {
        expected.push_back(std::to_string(place));
        entries.push_back(entryOf(expected.back(), row.ascending[place]));
        if (place > 0) {
          EXPECT_EQ(sorter->compare(entries[place - 1], entries[place]), !descending) << place;
          EXPECT_EQ(sorter->compare(entries[place], entries[place - 1]), descending) << place;
        }
      }
      const ResourceEntry equal = entryOf("equal", row.equal_to_first);
      EXPECT_FALSE(sorter->compare(entries[0], equal));
      EXPECT_FALSE(sorter->compare(equal, entries[0]));

      std::mt19937 random(1);
      std::shuffle(entries.begin(), entries.end(), random);
      if (descending) {
        std::reverse(expected.begin(), expected.end());
      }
      EXPECT_THAT(sortedNames(*sorter, entries), ElementsAreArray(expected));
    }
  }
}

TEST_F(FieldSorters, LeaveEqualTimesUnorderedWithoutAFurtherSorter) {
  for (const bool descending : {false, true}) {
    auto sorter = chain<DateSorter>(descending);
    EXPECT_FALSE(sorter->compare(entryOf("a", {.mtime = 5}), entryOf("b", {.mtime = 5})));
    EXPECT_FALSE(sorter->compare(entryOf("b", {.mtime = 5}), entryOf("a", {.mtime = 5})));
    EXPECT_THAT(sortedNames(*sorter, {entryOf("b", {.mtime = 5}), entryOf("a", {.mtime = 5})}), ElementsAre("b", "a"));
  }
}

TEST_F(FieldSorters, HandEqualKeysToTheNextSorter) {
  std::shared_ptr<Sorter> (*const makers[])(bool, bool) = {
      chain<DateSorter, NameSorter>,  chain<SizeSorter, NameSorter>, chain<OwnerSorter, NameSorter>,
      chain<GroupSorter, NameSorter>, chain<TypeSorter, NameSorter>, chain<PermissionSorter, NameSorter>};
  for (const auto make : makers) {
    EXPECT_THAT(sortedNames(*make(true, false), listingOf({"c", "a", "b"})), ElementsAre("a", "b", "c"));
    EXPECT_THAT(sortedNames(*make(false, true), listingOf({"c", "a", "b"})), ElementsAre("c", "b", "a"));
  }
}

// Types

TEST_F(FieldSorters, OrderTypesByCollation) {
  EXPECT_THAT(sortedBy<TypeSorter>(false, {"a.zip", "b", "c.JPG", "d.jpg", "e.mp10", "f.mp4", "g."}),
              ElementsAre("b", "g.", "d.jpg", "c.JPG", "f.mp4", "e.mp10", "a.zip"));
  EXPECT_THAT(sortedBy<TypeSorter>(true, {"b", "c.JPG", "d.jpg", "a.zip"}),
              ElementsAre("a.zip", "c.JPG", "d.jpg", "b"));
}

TEST_F(FieldSorters, FindNothingToDecideBetweenEqualTypesEvenDescending) {
  for (const bool descending : {false, true}) {
    auto sorter = std::make_shared<TypeSorter>(descending);
    EXPECT_FALSE(sorter->compare(entryOf("a.txt"), entryOf("b.txt")));
    EXPECT_FALSE(sorter->compare(entryOf("b.txt"), entryOf("a.txt")));
    // The same for extensions that only collate equal: the next sorter decides.
    EXPECT_FALSE(sorter->compare(entryOf("a.\xC3\xA9"), entryOf("b.e\xCC\x81")));
    EXPECT_FALSE(sorter->compare(entryOf("b.e\xCC\x81"), entryOf("a.\xC3\xA9")));
    sorter->append(std::make_shared<NameSorter>(false));
    EXPECT_THAT(sortedNames(*sorter, listingOf({"c.\xC3\xA9", "b.e\xCC\x81", "d.\xC3\xA9", "a.e\xCC\x81"})),
                ElementsAre("a.e\xCC\x81", "b.e\xCC\x81", "c.\xC3\xA9", "d.\xC3\xA9"));
  }
}

// Clusters

TEST_F(ClusterSorterOrder, GroupsByCollatedClusterThenTheField) {
  const std::vector<ResourceEntry> entries{
      entryOf("d", {.size = 1, .cluster = "b"}), entryOf("c", {.size = 2, .cluster = "a"}),
      entryOf("b", {.size = 3, .cluster = "b"}), entryOf("a", {.size = 4, .cluster = ""}),
      entryOf("e", {.size = 5, .cluster = "a"})};
  EXPECT_THAT(sortedNames(*chain<ClusterSorter, NameSorter>(false, false), entries),
              ElementsAre("a", "c", "e", "b", "d"));
  EXPECT_THAT(sortedNames(*chain<ClusterSorter, NameSorter>(false, true), entries),
              ElementsAre("a", "e", "c", "d", "b"));
  EXPECT_THAT(sortedNames(*chain<ClusterSorter, NameSorter>(true, false), entries),
              ElementsAre("b", "d", "c", "e", "a"));
  EXPECT_THAT(sortedNames(*chain<ClusterSorter, SizeSorter>(true, true), entries),
              ElementsAre("b", "d", "e", "c", "a"));
}

TEST_F(ClusterSorterOrder, DecidesClustersThatCollateEqual) {
  const ResourceEntry a = entryOf("a", {.cluster = "\xC3\xA9"});
  const ResourceEntry b = entryOf("b", {.cluster = "e\xCC\x81"});
  auto ascending = chain<ClusterSorter, NameSorter>(false, false);
  EXPECT_FALSE(ascending->compare(a, b));
  EXPECT_FALSE(ascending->compare(b, a));
  auto descending = chain<ClusterSorter, NameSorter>(true, false);
  EXPECT_TRUE(descending->compare(a, b));
  EXPECT_TRUE(descending->compare(b, a));
}

TEST_F(ClusterSorterOrder, KeepsGroupsApartThatCollateEqual) {
  const std::vector<std::string> clusters{"\xC3\xA9", "e\xCC\x81", "a\xC3\xA9", "ae\xCC\x81",
                                          "\x01",     "",          "z",         "\xEF\xBF\xBD"};
  std::mt19937 random(3);
  for (const bool descending : {false, true}) {
    auto sorter = chain<ClusterSorter, NameSorter>(descending, descending);
    std::vector<ResourceEntry> entries;
    entries.reserve(600);
    for (int made = 0; made < 600; ++made) {
      entries.push_back(entryOf(std::to_string(random() % 1000), {.cluster = clusters[random() % clusters.size()]}));
    }
    sorter->sort(entries);
    EXPECT_EQ(test::contradictedPairs(entries, *sorter), 0);
    EXPECT_EQ(groupsOf(entries, [](const ResourceEntry &entry) { return entry.cluster; }), clusters.size());
  }
}

TEST_F(SizeClusterSorterOrder, OrdersBandsByTheSizesOfTheirEntries) {
  const std::vector<ResourceEntry> entries{
      entryOf("1", {.size = 200, .cluster = "s"}),       entryOf("2", {.size = 20, .cluster = "xs"}),
      entryOf("3", {.size = 100, .cluster = "s"}),       entryOf("4", {.size = 2000000, .cluster = "l"}),
      entryOf("5", {.size = 10, .cluster = "xs"}),       entryOf("6", {.size = 20000, .cluster = "m"}),
      entryOf("7", {.size = highest, .cluster = "xxl"}), entryOf("8", {.size = 1073741824, .cluster = "xl"}),
      entryOf("9", {.size = -5, .cluster = "xs"})};
  auto ascending = chain<SizeClusterSorter, NameSorter>(false, false);
  EXPECT_TRUE(ascending->compare(entries[1], entries[0]));
  EXPECT_FALSE(ascending->compare(entries[0], entries[1]));
  EXPECT_TRUE(ascending->compare(entries[0], entries[2]));  // one band: by name
  EXPECT_THAT(sortedNames(*ascending, entries), ElementsAre("2", "5", "9", "1", "3", "6", "4", "8", "7"));
  EXPECT_THAT(sortedNames(*chain<SizeClusterSorter, NameSorter>(true, false), entries),
              ElementsAre("7", "8", "4", "6", "1", "3", "2", "5", "9"));
  EXPECT_THAT(sortedNames(*chain<SizeClusterSorter, NameSorter>(false, true), entries),
              ElementsAre("9", "5", "2", "3", "1", "6", "4", "8", "7"));
}

TEST_F(SizeClusterSorterOrder, ComparesSizesWhereTextsDifferEvenWhenSizesAreEqual) {
  const ResourceEntry a = entryOf("a", {.size = 5, .cluster = "p"});
  const ResourceEntry b = entryOf("b", {.size = 5, .cluster = "q"});
  auto ascending = chain<SizeClusterSorter, NameSorter>(false, false);
  EXPECT_FALSE(ascending->compare(a, b));
  EXPECT_FALSE(ascending->compare(b, a));
  auto descending = chain<SizeClusterSorter, NameSorter>(true, false);
  EXPECT_TRUE(descending->compare(a, b));
  EXPECT_TRUE(descending->compare(b, a));
}

TEST_F(SizeClusterSorterOrder, GroupsByOtherTextsWhereTheirSizesAllowIt) {
  // Groups whose sizes do not overlap, across the bounds of the bands.
  std::vector<ResourceEntry> entries{
      entryOf("z", {.size = 1, .cluster = "small"}),      entryOf("a", {.size = 5000, .cluster = "small"}),
      entryOf("m", {.size = 200000, .cluster = "large"}), entryOf("k", {.size = 20000, .cluster = "large"}),
      entryOf("c", {.size = 90, .cluster = "small"}),     entryOf("x", {.size = 300000000, .cluster = "large"})};
  EXPECT_THAT(sortedNames(*chain<SizeClusterSorter, NameSorter>(false, false), entries),
              ElementsAre("a", "c", "z", "k", "m", "x"));
  EXPECT_THAT(sortedNames(*chain<SizeClusterSorter, NameSorter>(true, false), entries),
              ElementsAre("k", "m", "x", "a", "c", "z"));
}

TEST_F(SizeClusterSorterOrder, LivesWithTextsThatContradictTheSizes) {
  std::mt19937 random(5);
  const char *labels[] = {"xs", "s", "m", "l", "", "other"};
  std::vector<ResourceEntry> entries;
  entries.reserve(3000);
  for (int made = 0; made < 3000; ++made) {
    entries.push_back(entryOf(std::to_string(random() % 50),
                              {.size = static_cast<std::int64_t>(random() % 200000), .cluster = labels[random() % 6]}));
  }
  test::notePlaces(entries);
  for (const bool descending : {false, true}) {
    auto sorter = chain<SizeClusterSorter, NameSorter>(descending, false);
    std::vector<ResourceEntry> sorted = entries;
    sorter->sort(sorted);
    EXPECT_TRUE(test::isPermutation(placesOf(sorted)));
    EXPECT_EQ(test::contradictedNeighbours(sorted, *sorter), 0);
  }
}

// Without ICU

class WithoutCollator : public Sorter {
 public:
  explicit WithoutCollator(bool order) : Sorter(order) { collator.reset(); }
  bool compare(const ResourceEntry &a, const ResourceEntry &b) override {
    return a.name != b.name ? collatedBefore(a.name, b.name) : compareNext(a, b);
  }
  UCollationResult collateTexts(std::string_view x, std::string_view y) { return collate(x, y); }
};

TEST(SorterWithoutCollator, ComparesTextsAsBytes) {
  auto sorter = std::make_shared<WithoutCollator>(false);
  EXPECT_EQ(sorter->collateTexts("a10", "a9"), UCOL_LESS);
  EXPECT_EQ(sorter->collateTexts("a", "B"), UCOL_GREATER);
  EXPECT_EQ(sorter->collateTexts("\xC3\xA9", "z"), UCOL_GREATER);
  EXPECT_EQ(sorter->collateTexts("x", "x"), UCOL_EQUAL);
  EXPECT_TRUE(sorter->compare(entryOf("B"), entryOf("a")));
  EXPECT_TRUE(std::make_shared<WithoutCollator>(true)->compare(entryOf("a"), entryOf("B")));
}

}  // namespace
}  // namespace dirwell

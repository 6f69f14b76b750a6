// Listings for the tests of the order: entries made from few facts, and names that collation finds hard.
#pragma once

#include <unicode/locid.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "entry/resource_entry.h"
#include "ordering/sorters.h"

namespace dirwell::test {

// The ICU default locale for the length of a scope.
class ScopedLocale {
 public:
  explicit ScopedLocale(const char *id) { set(icu::Locale(id)); }
  ~ScopedLocale() { set(before_); }
  ScopedLocale(const ScopedLocale &) = delete;
  ScopedLocale &operator=(const ScopedLocale &) = delete;

 private:
  static void set(const icu::Locale &locale) {
    UErrorCode status = U_ZERO_ERROR;
    icu::Locale::setDefault(locale, status);
  }
  icu::Locale before_ = icu::Locale::getDefault();
};

struct Facts {
  mode_t mode = 0100644;
  std::int64_t size = 0;
  std::int64_t mtime = 0;
  uid_t uid = 0;
  gid_t gid = 0;
  std::string cluster{};  // initialised, so that facts may leave it out
  std::string directory = "/share/a";
};

inline ResourceEntry entryOf(std::string_view name, const Facts &facts = {}) {
  struct ::stat status {};
  status.st_mode = facts.mode;
  status.st_size = facts.size;
  status.st_mtime = facts.mtime;
  status.st_uid = facts.uid;
  status.st_gid = facts.gid;
  ResourceEntry entry = ResourceEntry::fromStatus(facts.directory, name, status);
  entry.cluster = facts.cluster;
  return entry;
}

// An entry for each name, its place noted in st_ino.
inline std::vector<ResourceEntry> listingOf(const std::vector<std::string> &names) {
  std::vector<ResourceEntry> entries;
  entries.reserve(names.size());
  for (const std::string &name : names) {
    entries.push_back(entryOf(name));
    entries.back().stat.st_ino = entries.size() - 1;
  }
  return entries;
}

inline void notePlaces(std::vector<ResourceEntry> &entries) {
  for (std::size_t place = 0; place < entries.size(); ++place) {
    entries[place].stat.st_ino = place;
  }
}

inline std::vector<std::size_t> placesOf(const std::vector<ResourceEntry> &entries) {
  std::vector<std::size_t> places;
  places.reserve(entries.size());
  for (const ResourceEntry &entry : entries) {
    places.push_back(entry.stat.st_ino);
  }
  return places;
}

inline std::vector<std::string> namesOf(const std::vector<ResourceEntry> &entries) {
  std::vector<std::string> names;
  names.reserve(entries.size());
  for (const ResourceEntry &entry : entries) {
    names.push_back(entry.name);
  }
  return names;
}

inline bool strictlyBefore(Sorter &sorter, const ResourceEntry &a, const ResourceEntry &b) {
  return sorter.compare(a, b) && !sorter.compare(b, a);
}

// What the order has to be, by comparisons alone; unordered entries keep their order. For consistent listings.
inline std::vector<std::size_t> placesByComparison(std::vector<ResourceEntry> entries, Sorter &sorter) {
  std::stable_sort(entries.begin(), entries.end(),
                   [&sorter](const ResourceEntry &a, const ResourceEntry &b) { return strictlyBefore(sorter, a, b); });
  return placesOf(entries);
}

// How many neighbours stand in an order that compare() contradicts.
inline int contradictedNeighbours(const std::vector<ResourceEntry> &entries, Sorter &sorter) {
  int count = 0;
  for (std::size_t place = 1; place < entries.size(); ++place) {
    count += strictlyBefore(sorter, entries[place], entries[place - 1]) ? 1 : 0;
  }
  return count;
}

// How many pairs of the whole listing do.
inline int contradictedPairs(const std::vector<ResourceEntry> &entries, Sorter &sorter) {
  int count = 0;
  for (std::size_t right = 1; right < entries.size(); ++right) {
    for (std::size_t left = 0; left < right; ++left) {
      count += strictlyBefore(sorter, entries[right], entries[left]) ? 1 : 0;
    }
  }
  return count;
}

// Whether every place of 0 to n - 1 occurs once: no entry lost, none doubled.
inline bool isPermutation(std::vector<std::size_t> places) {
  std::sort(places.begin(), places.end());
  for (std::size_t place = 0; place < places.size(); ++place) {
    if (places[place] != place) {
      return false;
    }
  }
  return true;
}

// Random names of one difficult kind after the other, the same on every run.
class Names {
 public:
  enum class Kind {
    Ascii,         // letters that tailorings contract, cases, punctuation, leading zeros
    AnyAscii,      // control characters too
    LongNumbers,   // beyond the 254 digits that one weight holds
    SplitNumbers,  // digits with ignorable characters and marks between them
    Marks,         // combining marks in any order, precomposed letters, singletons
    EastAsian,     // Han, kana with its marks, Hangul whole and in pieces
    Thai,          // vowels that swap places with consonants
    Latin,         // beyond ASCII
    Greek,         // and Cyrillic
    IllFormed,     // bytes that are not UTF-8, with valid starts
    Odd,           // noncharacters, private use, unassigned, separators
    OtherDigits,   // numbers of many scripts
  };
  static constexpr Kind consistent_kinds[] = {Kind::Ascii, Kind::AnyAscii,  Kind::LongNumbers, Kind::SplitNumbers,
                                              Kind::Marks, Kind::EastAsian, Kind::Thai,        Kind::Latin,
                                              Kind::Greek, Kind::IllFormed, Kind::Odd};

  explicit Names(unsigned seed) : random_(seed) {}

  std::string one(Kind kind);
  // `each` names of every kind on which comparison is consistent, shuffled, some of them twice.
  std::vector<std::string> consistent(int each);
  std::vector<std::string> of(Kind kind, int count);
  std::size_t below(std::size_t bound) { return random_() % bound; }

 private:
  template <std::size_t N>
  const char *any(const char *const (&words)[N]) {
    return words[below(N)];
  }
  std::string character(char32_t code);
  std::string between(char32_t first, char32_t last) { return character(first + char32_t(below(last - first + 1))); }

  std::mt19937 random_;
};

}  // namespace dirwell::test

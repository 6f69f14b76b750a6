// The order of names: the comparison against its plain rule, the strict order made of it, the keys that sorting goes
// by, and the sorted result.
//
// Input: a line with a language code ("GER"), then a name a line.
#include <unicode/coll.h>
#include <unicode/locid.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "entry/resource_entry.h"
#include "fuzz/support/check.h"
#include "fuzz/support/input.h"
#include "ordering/key_order.h"
#include "ordering/sort_key.h"
#include "ordering/sorters.h"

// Sorters have no virtual destructor, by design.
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

namespace dirwell::fuzz {
namespace {

constexpr std::array<std::pair<std::string_view, const char *>, 23> locales{{
    {"ENG", "en_US"}, {"SCH", "zh_CN"}, {"TCH", "zh_TW"}, {"CZE", "cs_CZ"}, {"DAN", "da_DK"}, {"GER", "de_DE"},
    {"SPA", "es_ES"}, {"FRE", "fr_FR"}, {"ITA", "it_IT"}, {"JPN", "ja_JP"}, {"KOR", "ko_KR"}, {"NOR", "nb_NO"},
    {"POL", "pl_PL"}, {"RUS", "ru_RU"}, {"FIN", "fi_FI"}, {"SWE", "sv_SE"}, {"DUT", "nl_NL"}, {"TUR", "tr_TR"},
    {"THA", "th_TH"}, {"HUN", "hu_HU"}, {"POR", "pt_PT"}, {"GRK", "el_GR"}, {"ROM", "ro_RO"},
}};
constexpr std::size_t most_names = 8;

// --- The plain rules

const icu::Collator &collator_of(const char *locale) {
  static std::map<std::string, std::unique_ptr<icu::Collator>> made;
  std::unique_ptr<icu::Collator> &collator = made[locale];
  if (collator == nullptr) {
    UErrorCode status = U_ZERO_ERROR;
    collator.reset(icu::Collator::createInstance(icu::Locale(locale), status));
    check(collator != nullptr, "ICU knows the language", locale);
    collator->setAttribute(UCOL_NUMERIC_COLLATION, UCOL_ON, status);
    collator->setAttribute(UCOL_NORMALIZATION_MODE, UCOL_ON, status);
    collator->setAttribute(UCOL_STRENGTH, UCOL_TERTIARY, status);
    collator->setAttribute(UCOL_CASE_FIRST, UCOL_LOWER_FIRST, status);
    check(U_SUCCESS(status), "the collator takes its attributes", locale);
  }
  return *collator;
}

std::size_t length_of(unsigned char lead) {
  if (lead < 0x80) {
    return 1;
  }
  if (lead < 0xC2) {
    return 0;
  }
  return lead < 0xE0 ? 2 : (lead < 0xF0 ? 3 : (lead < 0xF8 ? 4 : (lead < 0xFC ? 5 : (lead < 0xFE ? 6 : 0))));
}

// The first two characters; empty where one of them is none.
std::string prefix_of(const std::string &name) {
  std::size_t at = 0;
  for (int count = 0; count < 2 && at < name.size(); ++count) {
    const std::size_t length = length_of(static_cast<unsigned char>(name[at]));
    if (length == 0) {
      return {};
    }
    at = std::min(at + length, name.size());
  }
  return name.substr(0, at);
}

class Rule {
 public:
  Rule(const icu::Collator &collator, bool descending) : collator_(collator), descending_(descending) {}

  [[nodiscard]] UCollationResult collated(const std::string &a, const std::string &b) const {
    UErrorCode status = U_ZERO_ERROR;
    return collator_.compareUTF8(icu::StringPiece(a.data(), static_cast<std::int32_t>(a.size())),
                                 icu::StringPiece(b.data(), static_cast<std::int32_t>(b.size())), status);
  }
  [[nodiscard]] bool by_collation(const std::string &a, const std::string &b) const {
    const bool less = collated(a, b) == UCOL_LESS;
    return descending_ ? !less : less;
  }
  [[nodiscard]] bool by_name(const std::string &a, const std::string &b) const {
    if (a == b) {
      return false;
    }
    const std::string prefix_a = prefix_of(a);
    const std::string prefix_b = prefix_of(b);
    if (prefix_a == prefix_b) {
      return by_collation(a, b);
    }
    if (prefix_a == ".@" || prefix_b == ".@") {
      return prefix_a == ".@";
    }
    if (a.substr(0, 1) == b.substr(0, 1)) {
      return by_collation(a, b);
    }
    if (a.starts_with(".") || b.starts_with(".")) {
      return a.starts_with(".");
    }
    if (a.starts_with("@") || b.starts_with("@")) {
      return a.starts_with("@");
    }
    return by_collation(a, b);
  }
  [[nodiscard]] bool by_extension(const std::string &a, const std::string &b) const {
    const UCollationResult result = collated(a, b);
    return result != UCOL_EQUAL && (result == UCOL_LESS) != descending_;
  }

 private:
  const icu::Collator &collator_;
  bool descending_;
};

// Names of which comparison is known to be consistent. Left out are names that are no UTF-8, since those with an
// ill-formed prefix are collated even across the classes of names, and numbers in digits other than 0-9, of which ICU
// compares keys and texts differently in some languages. Sorting must cope with them, and is checked to.
bool is_consistent(std::string_view name) {
  const icu::UnicodeString text =
      icu::UnicodeString::fromUTF8(icu::StringPiece(name.data(), static_cast<std::int32_t>(name.size())));
  std::string back;
  text.toUTF8String(back);
  bool plain = back == name;
  for (std::int32_t index = 0; index < text.length(); ++index) {
    const char16_t unit = text[index];
    plain = plain && (unit < 0x0660 || (unit >= 0x3000 && unit < 0xA000) || (unit >= 0xAC00 && unit < 0xD7A4));
  }
  return plain;
}

// --- The promises

using Entries = std::vector<ResourceEntry>;

std::string shown(const Entries &entries) {
  std::string text;
  for (const ResourceEntry &entry : entries) {
    text += "[" + entry.name + "] ";
  }
  return text;
}

std::string pair(const ResourceEntry &a, const ResourceEntry &b) {
  return "[" + a.name + "] and [" + b.name + "]";
}

bool before(Sorter &sorter, const ResourceEntry &a, const ResourceEntry &b) {
  return sorter.compare(a, b) && !sorter.compare(b, a);
}

template <typename Concrete>
std::shared_ptr<Sorter> chain_of(bool descending) {
  auto head = std::make_shared<Sorter>(descending);
  head->append(std::make_shared<Concrete>(descending));
  return head;
}

// Sorting, which makes the comparison strict for itself, gives two names the one order that they have, in whatever
// order they come: none where the rule puts each before the other.
void check_pair(const ResourceEntry &a, const ResourceEntry &b, const Rule &rule, Sorter &sorter) {
  if (rule.by_name(a.name, b.name) && !rule.by_name(b.name, a.name)) {
    check(keyOrder({a, b}, sorter) == std::vector<std::uint32_t>{0, 1}, "what stands before another stays", pair(a, b));
    check(keyOrder({b, a}, sorter) == std::vector<std::uint32_t>{1, 0}, "what stands behind one goes", pair(a, b));
  }
}

void check_triples(const Entries &entries, Sorter &sorter) {
  for (const ResourceEntry &a : entries) {
    for (const ResourceEntry &b : entries) {
      if (!is_consistent(a.name) || !is_consistent(b.name) || !before(sorter, a, b)) {
        continue;
      }
      for (const ResourceEntry &c : entries) {
        check(!is_consistent(c.name) || !before(sorter, b, c) || before(sorter, a, c),
              "what stands before another stands before what follows it", pair(a, b) + ", [" + c.name + "]");
      }
    }
  }
}

// Where both keys are trusted their bytes order the pair as comparison does.
void check_keys(const Entries &entries, Sorter &sorter) {
  struct Made {
    std::vector<unsigned char> bytes;
    bool trusted = false;
  };
  std::vector<Made> keys;
  SortKey key(entries.size());
  for (const ResourceEntry &entry : entries) {
    key.start();
    sorter.appendKey(entry, key);
    const auto begin = key.arena().begin() + static_cast<std::ptrdiff_t>(key.offset());
    keys.push_back({{begin, begin + static_cast<std::ptrdiff_t>(key.length())}, key.trusted()});
  }
  for (std::size_t a = 0; a < entries.size(); ++a) {
    for (std::size_t b = 0; b < entries.size(); ++b) {
      if (keys[a].trusted && keys[b].trusted && before(sorter, entries[a], entries[b])) {
        check(keys[a].bytes < keys[b].bytes, "keys stand as their names do", pair(entries[a], entries[b]));
      }
    }
    check(keys[a].trusted || !is_consistent(entries[a].name), "plain names have keys that are trusted",
          entries[a].name);
  }
}

void check_sorted(const Entries &entries, Sorter &sorter) {
  const std::vector<std::uint32_t> order = keyOrder(entries, sorter);
  std::vector<std::uint32_t> places = order;
  std::ranges::sort(places);
  for (std::uint32_t place = 0; place < entries.size(); ++place) {
    check(places.size() == entries.size() && places[place] == place, "each name has its place", shown(entries));
  }
  Entries sorted = entries;
  sorter.sort(sorted);
  bool consistent = true;
  for (std::size_t place = 0; place < sorted.size(); ++place) {
    check_equal(sorted[place].name, entries[order[place]].name, "sorting goes by that order");
    check(place == 0 || !before(sorter, sorted[place], sorted[place - 1]), "no two neighbours stand the wrong way",
          shown(sorted));
    consistent = consistent && is_consistent(sorted[place].name);
  }
  for (std::size_t a = 0; consistent && a < sorted.size(); ++a) {
    for (std::size_t b = a + 1; b < sorted.size(); ++b) {
      check(!before(sorter, sorted[b], sorted[a]), "no two names at all stand the wrong way", shown(sorted));
    }
  }
}

void check_order(const Entries &entries, const icu::Collator &collator, bool descending) {
  const Rule rule(collator, descending);
  const std::shared_ptr<Sorter> names = chain_of<NameSorter>(descending);
  const std::shared_ptr<Sorter> types = chain_of<TypeSorter>(descending);
  const std::shared_ptr<Sorter> clusters = chain_of<ClusterSorter>(descending);
  for (const ResourceEntry &a : entries) {
    for (const ResourceEntry &b : entries) {
      check(names->compare(a, b) == rule.by_name(a.name, b.name), "names compare by the rule", pair(a, b));
      check_pair(a, b, rule, *names);
      check(types->compare(a, b) == rule.by_extension(a.extension, b.extension), "types compare by the rule",
            pair(a, b));
      check(clusters->compare(a, b) == (a.cluster != b.cluster && rule.by_collation(a.cluster, b.cluster)),
            "groups compare by the rule", pair(a, b));
    }
  }
  check_triples(entries, *names);
  check_keys(entries, *names);
  for (const auto &chain : {names, types, clusters}) {
    check_sorted(entries, *chain);
  }
  clusters->append(std::make_shared<NameSorter>(descending));
  check_sorted(entries, *clusters);
}

Entries entries_of(std::string_view lines) {
  Entries entries;
  for (const std::string_view line : split(lines, '\n', most_names)) {
    const std::string name(line.substr(0, line.find('\0')));  // no file name holds one
    struct ::stat status {};
    status.st_mode = S_IFREG;
    entries.push_back(ResourceEntry::fromStatus("/share", name, status));
    entries.back().cluster = name.substr(0, 2);
  }
  return entries;
}

}  // namespace
}  // namespace dirwell::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  using namespace dirwell::fuzz;
  std::string_view input = text_of(data, size);
  const std::string_view language = take_line(input);
  const auto *const row = std::ranges::find(locales, language, [](const auto &each) { return each.first; });
  if (row == locales.end()) {
    return 0;
  }
  UErrorCode status = U_ZERO_ERROR;
  icu::Locale::setDefault(icu::Locale(row->second), status);
  const Entries entries = entries_of(input);
  check_order(entries, collator_of(row->second), false);
  check_order(entries, collator_of(row->second), true);
  return 0;
}

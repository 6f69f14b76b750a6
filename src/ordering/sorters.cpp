#include "ordering/sorters.h"

#include <unicode/locid.h>

#include <unordered_map>
#include <utility>

#include "entry/text.h"
#include "ordering/key_order.h"
#include "ordering/size_bands.h"
#include "ordering/sort_key.h"

namespace dirwell {
namespace {

constexpr mode_t permission_bits = 0x1FF;

icu::StringPiece piece(std::string_view text) {
  return {text.data(), static_cast<std::int32_t>(text.size())};
}

std::uint32_t permissions(const ResourceEntry &entry) {
  return entry.stat.st_mode & permission_bits;
}

// The first two characters; empty where a byte that starts no character is met among them.
std::string_view namePrefix(std::string_view name) {
  return utf8Substring(name, 0, 2);
}

constexpr std::string_view hidden_system_prefix = ".@";

// How far to the front a name stands whatever its text and the direction. Agrees with NameSorter::compare() but for
// names whose prefix is ill-formed: those are collated among themselves even across classes, and their keys are not
// trusted.
unsigned char nameClass(std::string_view name) {
  if (name.starts_with('.')) {
    return namePrefix(name) == hidden_system_prefix ? 0 : 1;
  }
  return name.starts_with('@') ? 2 : 3;
}

std::unique_ptr<icu::Collator> madeCollator(UErrorCode &status) {
  std::unique_ptr<icu::Collator> collator(icu::Collator::createInstance(status));
  if (collator != nullptr) {
    collator->setAttribute(UCOL_NUMERIC_COLLATION, UCOL_ON, status);
    collator->setAttribute(UCOL_NORMALIZATION_MODE, UCOL_ON, status);
    collator->setAttribute(UCOL_STRENGTH, UCOL_TERTIARY, status);
    collator->setAttribute(UCOL_CASE_FIRST, UCOL_LOWER_FIRST, status);
  }
  return collator;
}

// A collator for the default locale. The first of a locale is kept and the others are copies of it: a copy takes a
// hundredth of the time, and the daemon makes the first ones before any request comes.
std::unique_ptr<icu::Collator> newCollator(UErrorCode &status) {
  static std::unordered_map<std::string, std::unique_ptr<icu::Collator>> kept;
  std::unique_ptr<icu::Collator> &first = kept[icu::Locale::getDefault().getName()];
  if (first == nullptr) {
    std::unique_ptr<icu::Collator> made = madeCollator(status);
    if (U_FAILURE(status)) {
      return made;  // one that lacks a setting, for want of memory, is not what later listings are ordered by
    }
    first = std::move(made);
  }
  return std::unique_ptr<icu::Collator>(first != nullptr ? first->clone() : nullptr);
}

}  // namespace

Sorter::Sorter(bool descending_order) : descending(descending_order ? 1 : 0) {
  collator = newCollator(status);
}

std::shared_ptr<Sorter> Sorter::append(std::shared_ptr<Sorter> follower) {
  Sorter *last = this;
  while (last->next) {
    last = last->next.get();
  }
  last->next = std::move(follower);
  return shared_from_this();
}

void Sorter::sort(std::vector<ResourceEntry> &entries) {
  const std::shared_ptr<Sorter> self = shared_from_this();  // the chain lives while it sorts
  arrange(entries, keyOrder(entries, *self));
}

bool Sorter::compareNext(const ResourceEntry &a, const ResourceEntry &b) const {
  return next && next->compare(a, b);
}

void Sorter::appendNextKey(const ResourceEntry &entry, SortKey &key) const {
  if (next) {
    next->appendKey(entry, key);
  }
}

UCollationResult Sorter::collate(std::string_view x, std::string_view y) {
  if (collator == nullptr) {
    const int order = x.compare(y);
    return order < 0 ? UCOL_LESS : (order > 0 ? UCOL_GREATER : UCOL_EQUAL);
  }
  return collator->compareUTF8(piece(x), piece(y), status);
}

bool Sorter::collatedBefore(std::string_view x, std::string_view y) {
  return (descending != 0) != (collate(x, y) == UCOL_LESS);
}

bool Sorter::compare(const ResourceEntry &a, const ResourceEntry &b) {
  return compareNext(a, b);
}

void Sorter::appendKey(const ResourceEntry &entry, SortKey &key) {
  appendNextKey(entry, key);
}

bool DirectorySorter::compare(const ResourceEntry &a, const ResourceEntry &b) {
  if (a.directory != b.directory) {
    return collatedBefore(a.directory, b.directory);
  }
  if (a.isDirectory() != b.isDirectory()) {
    return a.isDirectory();
  }
  return compareNext(a, b);
}

void DirectorySorter::appendKey(const ResourceEntry &entry, SortKey &key) {
  key.sharedCollated(collator.get(), entry.directory, descending != 0);
  key.raw(entry.directory);  // roots that collate equal stay apart
  key.fixed(entry.isDirectory() ? 0 : 1);
  appendNextKey(entry, key);
}

bool NameSorter::compare(const ResourceEntry &a, const ResourceEntry &b) {
  if (a.name == b.name) {
    return compareNext(a, b);
  }
  const std::string_view prefix_a = namePrefix(a.name);
  const std::string_view prefix_b = namePrefix(b.name);
  if (prefix_a != prefix_b) {
    if (prefix_a == hidden_system_prefix || prefix_b == hidden_system_prefix) {
      return prefix_a == hidden_system_prefix;
    }
    if (std::string_view(a.name).substr(0, 1) != std::string_view(b.name).substr(0, 1)) {
      for (const char mark : {'.', '@'}) {
        if (a.name.starts_with(mark) || b.name.starts_with(mark)) {
          return a.name.starts_with(mark);
        }
      }
    }
  }
  return collatedBefore(a.name, b.name);
}

void NameSorter::appendKey(const ResourceEntry &entry, SortKey &key) {
  key.fixed(nameClass(entry.name));
  key.collated(collator.get(), entry.name, descending != 0);
  // Only equal names are handed on. That followers get to place those that merely collate equal, too, contradicts
  // nothing.
  appendNextKey(entry, key);
}

bool DateSorter::compare(const ResourceEntry &a, const ResourceEntry &b) {
  if (a.stat.st_mtime != b.stat.st_mtime) {
    return numberBefore(a.stat.st_mtime, b.stat.st_mtime);
  }
  return compareNext(a, b);
}

void DateSorter::appendKey(const ResourceEntry &entry, SortKey &key) {
  key.number(entry.stat.st_mtime, descending != 0);
  appendNextKey(entry, key);
}

bool SizeSorter::compare(const ResourceEntry &a, const ResourceEntry &b) {
  if (a.stat.st_size != b.stat.st_size) {
    return numberBefore(a.stat.st_size, b.stat.st_size);
  }
  return compareNext(a, b);
}

void SizeSorter::appendKey(const ResourceEntry &entry, SortKey &key) {
  key.number(entry.stat.st_size, descending != 0);
  appendNextKey(entry, key);
}

bool TypeSorter::compare(const ResourceEntry &a, const ResourceEntry &b) {
  const UCollationResult order = collate(a.extension, b.extension);
  if (order != UCOL_EQUAL) {
    return (descending != 0) != (order == UCOL_LESS);
  }
  return compareNext(a, b);
}

void TypeSorter::appendKey(const ResourceEntry &entry, SortKey &key) {
  key.sharedCollated(collator.get(), entry.extension, descending != 0);
  appendNextKey(entry, key);
}

bool OwnerSorter::compare(const ResourceEntry &a, const ResourceEntry &b) {
  if (a.stat.st_uid != b.stat.st_uid) {
    return numberBefore(a.stat.st_uid, b.stat.st_uid);
  }
  return compareNext(a, b);
}

void OwnerSorter::appendKey(const ResourceEntry &entry, SortKey &key) {
  key.number(entry.stat.st_uid, descending != 0);
  appendNextKey(entry, key);
}

bool GroupSorter::compare(const ResourceEntry &a, const ResourceEntry &b) {
  if (a.stat.st_gid != b.stat.st_gid) {
    return numberBefore(a.stat.st_gid, b.stat.st_gid);
  }
  return compareNext(a, b);
}

void GroupSorter::appendKey(const ResourceEntry &entry, SortKey &key) {
  key.number(entry.stat.st_gid, descending != 0);
  appendNextKey(entry, key);
}

bool PermissionSorter::compare(const ResourceEntry &a, const ResourceEntry &b) {
  if (permissions(a) != permissions(b)) {
    return numberBefore(permissions(a), permissions(b));
  }
  return compareNext(a, b);
}

void PermissionSorter::appendKey(const ResourceEntry &entry, SortKey &key) {
  key.number(permissions(entry), descending != 0);
  appendNextKey(entry, key);
}

bool ClusterSorter::compare(const ResourceEntry &a, const ResourceEntry &b) {
  if (a.cluster != b.cluster) {
    return collatedBefore(a.cluster, b.cluster);
  }
  return compareNext(a, b);
}

void ClusterSorter::appendKey(const ResourceEntry &entry, SortKey &key) {
  key.sharedCollated(collator.get(), entry.cluster, descending != 0);
  key.raw(entry.cluster);  // clusters that collate equal stay apart
  appendNextKey(entry, key);
}

bool SizeClusterSorter::compare(const ResourceEntry &a, const ResourceEntry &b) {
  if (a.cluster != b.cluster) {
    return numberBefore(a.stat.st_size, b.stat.st_size);
  }
  return compareNext(a, b);
}

void SizeClusterSorter::appendKey(const ResourceEntry &entry, SortKey &key) {
  // Bands order entries as their sizes do as long as each stands in the band of its size, which the cluster sees to.
  const std::size_t band = sizeBandOf(entry.stat.st_size);
  if (entry.cluster != size_bands[band].label) {
    key.distrust();
  }
  key.number(static_cast<std::int64_t>(band), descending != 0);
  key.raw(entry.cluster);
  appendNextKey(entry, key);
}

}  // namespace dirwell

// The order of a listing: a chain of sorters, each deciding by one key and handing the rest to the next.
//
// compare() is what defines the order. sort() produces it from keys that are made once per entry. A chain is used by one
// thread at a time; the collator follows the ICU default locale at the time a sorter is made.
#pragma once

#include <unicode/coll.h>

#include <memory>
#include <string>
#include <vector>

#include "entry/resource_entry.h"

namespace dirwell {

class SortKey;

// Decides nothing itself: it is the head of every chain and passes each pair on. Always held by a std::shared_ptr to its
// own concrete type.
class Sorter : public std::enable_shared_from_this<Sorter> {
 public:
  explicit Sorter(bool descending);

  // Sorts in place. Entries that compare() leaves unordered keep their relative order. Safe whatever the names are, also
  // where compare() contradicts itself. Throws only std::bad_alloc.
  virtual void sort(std::vector<ResourceEntry> &entries);

  // Whether `a` must stand before `b`.
  [[nodiscard]] virtual bool compare(const ResourceEntry &a, const ResourceEntry &b);

  // Appends this sorter's part, and those of its followers, to the key of `entry`: byte order of the keys is the order of
  // compare() wherever that orders a pair.
  virtual void appendKey(const ResourceEntry &entry, SortKey &key);

  // Puts `next` at the end of the chain; returns this, the head.
  std::shared_ptr<Sorter> append(std::shared_ptr<Sorter> next);

 protected:
  ~Sorter() = default;

  [[nodiscard]] bool compareNext(const ResourceEntry &a, const ResourceEntry &b) const;
  // ICU's result for two texts.
  UCollationResult collate(std::string_view x, std::string_view y);
  // The verdict on two collated texts: descending exclusive-or "x is less". Equal texts are therefore "before" each other
  // in descending order.
  bool collatedBefore(std::string_view x, std::string_view y);

  UErrorCode status = U_ZERO_ERROR;
  std::int32_t descending;
  std::shared_ptr<Sorter> next;
  std::shared_ptr<icu::Collator> collator;
};

// By root, collated, and within a root folders first (in either direction).
class DirectorySorter final : public Sorter {
 public:
  using Sorter::Sorter;
  bool compare(const ResourceEntry &a, const ResourceEntry &b) override;
  void appendKey(const ResourceEntry &entry, SortKey &key) override;
};

// TODO(ordering): the remaining sorters.

}  // namespace dirwell

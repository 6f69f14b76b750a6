// The order of a listing: a chain of sorters, each deciding by one key and handing the rest to the next.
//
// compare() is what defines the order. sort() produces it from keys that are made once per entry. Sorters are made by
// one thread of a process and a chain is used by one thread at a time; the collator follows the ICU default locale at
// the time a sorter is made.
#pragma once

#include <unicode/coll.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "entry/resource_entry.h"

namespace dirwell {

class SortKey;

// Sorters have no virtual destructor on purpose: each is made by std::make_shared of its own concrete type, which is
// also what destroys it, and none is ever deleted through a base pointer.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

// Decides nothing itself: it is the head of every chain and passes each pair on. Always held by a std::shared_ptr to
// its own concrete type.
class Sorter : public std::enable_shared_from_this<Sorter> {
 public:
  // Makes its collator for the ICU default locale. Never fails: without a collator, texts are compared as bytes.
  explicit Sorter(bool descending);
  Sorter(const Sorter &) = delete;
  Sorter &operator=(const Sorter &) = delete;

  // Sorts in place. Entries that no sorter of the chain tells apart keep their relative order. Safe whatever the names
  // are, also where compare() contradicts itself: then no two neighbours of the result contradict it. Throws only
  // std::bad_alloc, with the entries as they were.
  virtual void sort(std::vector<ResourceEntry> &entries);

  // Whether `a` must stand before `b`. May be true both ways (descending, equal collation): that leaves them unordered.
  [[nodiscard]] virtual bool compare(const ResourceEntry &a, const ResourceEntry &b);

  // Appends this sorter's part, and those of its followers, to the key of `entry`: byte order of the keys is the order
  // of compare() wherever that orders a pair. A sorter that overrides compare() overrides this too, and distrusts the
  // key of an entry for which the two might disagree.
  virtual void appendKey(const ResourceEntry &entry, SortKey &key);

  // Puts `follower` at the end of the chain; returns this, the head.
  std::shared_ptr<Sorter> append(std::shared_ptr<Sorter> follower);

 protected:
  [[nodiscard]] bool compareNext(const ResourceEntry &a, const ResourceEntry &b) const;
  void appendNextKey(const ResourceEntry &entry, SortKey &key) const;
  // ICU's result for two texts.
  [[nodiscard]] UCollationResult collate(std::string_view x, std::string_view y);
  // The verdict on two collated texts: descending exclusive-or "x is less". Equal texts are therefore "before" each
  // other in descending order.
  [[nodiscard]] bool collatedBefore(std::string_view x, std::string_view y);
  // The verdict on two numbers; also true both ways for equal numbers in descending order, so callers test that first.
  [[nodiscard]] bool numberBefore(std::int64_t p, std::int64_t q) const { return (descending != 0) != (p < q); }

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

// By name, collated; names that begin with ".@", ".", "@" come first, in this order and in either direction.
class NameSorter final : public Sorter {
 public:
  using Sorter::Sorter;
  bool compare(const ResourceEntry &a, const ResourceEntry &b) override;
  void appendKey(const ResourceEntry &entry, SortKey &key) override;
};

// By modification time, in seconds.
class DateSorter final : public Sorter {
 public:
  using Sorter::Sorter;
  bool compare(const ResourceEntry &a, const ResourceEntry &b) override;
  void appendKey(const ResourceEntry &entry, SortKey &key) override;
};

// By size in bytes.
class SizeSorter final : public Sorter {
 public:
  using Sorter::Sorter;
  bool compare(const ResourceEntry &a, const ResourceEntry &b) override;
  void appendKey(const ResourceEntry &entry, SortKey &key) override;
};

// By extension, collated; extensions that collate equal are the same type.
class TypeSorter final : public Sorter {
 public:
  using Sorter::Sorter;
  bool compare(const ResourceEntry &a, const ResourceEntry &b) override;
  void appendKey(const ResourceEntry &entry, SortKey &key) override;
};

// By user id, the number.
class OwnerSorter final : public Sorter {
 public:
  using Sorter::Sorter;
  bool compare(const ResourceEntry &a, const ResourceEntry &b) override;
  void appendKey(const ResourceEntry &entry, SortKey &key) override;
};

// By group id, the number.
class GroupSorter final : public Sorter {
 public:
  using Sorter::Sorter;
  bool compare(const ResourceEntry &a, const ResourceEntry &b) override;
  void appendKey(const ResourceEntry &entry, SortKey &key) override;
};

// By the nine permission bits as a number.
class PermissionSorter final : public Sorter {
 public:
  using Sorter::Sorter;
  bool compare(const ResourceEntry &a, const ResourceEntry &b) override;
  void appendKey(const ResourceEntry &entry, SortKey &key) override;
};

// By cluster key, collated.
class ClusterSorter final : public Sorter {
 public:
  using Sorter::Sorter;
  bool compare(const ResourceEntry &a, const ResourceEntry &b) override;
  void appendKey(const ResourceEntry &entry, SortKey &key) override;

 private:
  std::string text_;  // part of the record's layout; the order does not depend on it
};

// By cluster key where the keys are size bands: the sizes of the entries order the bands.
class SizeClusterSorter final : public Sorter {
 public:
  using Sorter::Sorter;
  bool compare(const ResourceEntry &a, const ResourceEntry &b) override;
  void appendKey(const ResourceEntry &entry, SortKey &key) override;
};

#pragma GCC diagnostic pop

}  // namespace dirwell

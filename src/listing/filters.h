// Filters: whether an entry belongs in a listing. One class per criterion of a request, and the vetoed names.
//
// Filters are made with std::make_shared of their own class, held as std::shared_ptr<Filter> and never changed, so any
// number of threads may ask one that several share. They never fail: what cannot be decided is a plain "no".
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "entry/resource_entry.h"

namespace dirwell {

class Filter {
 public:
  using Operation = bool (Filter::*)(const ResourceEntry &) const;

  // Runs the operation that the filter was made for; false for a filter made for none. All that the walk calls.
  virtual bool match(const ResourceEntry &entry) const final;

  // The six comparisons; false in every class that does not say otherwise.
  virtual bool greater(const ResourceEntry &entry) const;
  virtual bool greaterEqual(const ResourceEntry &entry) const;
  virtual bool equal(const ResourceEntry &entry) const;
  virtual bool notEqual(const ResourceEntry &entry) const;
  virtual bool lessEqual(const ResourceEntry &entry) const;
  virtual bool less(const ResourceEntry &entry) const;

 protected:
  explicit Filter(Operation operation) : matcher(operation) {}
  Filter(const Filter &) = delete;
  Filter &operator=(const Filter &) = delete;
  ~Filter() = default;  // its owner knows the concrete class

  // The operation of ">", ">=", "==", "!=", "<=" or "<"; none for any other text.
  static Operation operationOf(std::string_view text);

 private:
  Operation matcher;  // may be null
};

// The administrator's vetoed names, beside "." and "..", which are always vetoed. Reads the configuration when it is
// made; an unreadable one vetoes nothing more. As a filter of a query it would pass no entry at all.
class VetoFilter final : public Filter {
 public:
  VetoFilter();
  bool equal(const ResourceEntry &entry) const override;
  // Whether a pattern matches the name (shell wildcards, letter case matters). Any thread.
  [[nodiscard]] bool isVetoedName(const char *name) const;

 private:
  std::vector<std::string> patterns;
};

// The name is `text`, byte for byte.
class StringFilter : public Filter {
 public:
  explicit StringFilter(std::string_view wanted);
  virtual ~StringFilter() = default;  // the one class that is made by itself as well as derived from
  bool equal(const ResourceEntry &entry) const override;

 protected:
  std::string text;
};

// `text` occurs in the name, byte for byte.
class SubStringFilter final : public StringFilter {
 public:
  using StringFilter::StringFilter;
  bool equal(const ResourceEntry &entry) const override;
};

// The name matches a shell pattern whatever the letter case; a backslash, "/" and a leading dot are ordinary
// characters. A pattern that holds a zero byte matches nothing, since no name holds one.
class WildCardFilter final : public StringFilter {
 public:
  using StringFilter::StringFilter;
  bool equal(const ResourceEntry &entry) const override;
};

// With `hide`, everything but dot names, the empty name and the names that other systems leave behind; without, all.
class HiddenFilter final : public Filter {
 public:
  explicit HiddenFilter(bool hide_them);
  bool notEqual(const ResourceEntry &entry) const override;

 private:
  bool hide;
  std::vector<std::string> hiddenNames;
};

// Size in bytes compared with a value.
class SizeFilter final : public Filter {
 public:
  SizeFilter(std::string_view operation, std::int64_t value);
  bool greater(const ResourceEntry &entry) const override;
  bool greaterEqual(const ResourceEntry &entry) const override;
  bool equal(const ResourceEntry &entry) const override;
  bool notEqual(const ResourceEntry &entry) const override;
  bool lessEqual(const ResourceEntry &entry) const override;
  bool less(const ResourceEntry &entry) const override;

 private:
  std::int64_t size;
};

// Day of modification, in local standard time, compared with the day that holds `value` (seconds since the epoch, taken
// as they are): a client that means a local day sends any second of that day as if it were UTC. Days are cut by
// division toward zero, so the days on both sides of the epoch are one.
class ModifyDateFilter final : public Filter {
 public:
  ModifyDateFilter(std::string_view operation, std::int64_t value);
  bool greater(const ResourceEntry &entry) const override;
  bool greaterEqual(const ResourceEntry &entry) const override;
  bool equal(const ResourceEntry &entry) const override;
  bool notEqual(const ResourceEntry &entry) const override;
  bool lessEqual(const ResourceEntry &entry) const override;
  bool less(const ResourceEntry &entry) const override;

 private:
  std::int64_t day;  // its first second
};

// The entry belongs to the user.
class OwnerFilter final : public Filter {
 public:
  explicit OwnerFilter(uid_t owner);
  bool equal(const ResourceEntry &entry) const override;

 private:
  uid_t uid;
};

// The entry belongs to the group.
class GroupFilter final : public Filter {
 public:
  explicit GroupFilter(gid_t group);
  bool equal(const ResourceEntry &entry) const override;

 private:
  gid_t gid;
};

// Mask of a MIMEFilter that asks for an extension itself instead of a media class.
inline constexpr std::uint32_t extension_mask = 256;

// The media class of the entry's extension is `mask`; or, with extension_mask, the extension is `extension` in just
// this letter case (the empty one: the entry has none).
class MIMEFilter final : public Filter {
 public:
  explicit MIMEFilter(std::uint32_t class_mask, std::string_view wanted = {});
  bool equal(const ResourceEntry &entry) const override;

 private:
  std::uint32_t mask;
  std::string extension;
};

// The entry's mode has a bit of `mask`. The bit of regular files also stands in the modes of links and sockets, that of
// folders also in those of block devices and sockets; listings show them so.
class StatModeFilter final : public Filter {
 public:
  explicit StatModeFilter(std::uint32_t mode_mask);
  bool equal(const ResourceEntry &entry) const override;

 private:
  std::uint32_t mask;
};

}  // namespace dirwell

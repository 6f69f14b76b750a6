// Grouping: the cluster key of an entry, one class per kind. Keys never fail; an ICU error leaves the text as it is.
// One thread at a time.
#pragma once

#include <unicode/translit.h>

#include <memory>
#include <string>
#include <unordered_map>

#include "entry/resource_entry.h"

namespace dirwell {

class Cluster {
 public:
  virtual ~Cluster() = default;
  // The key as UTF-8 text (bytes of names that are not UTF-8 come back as U+FFFD where ICU converts them).
  virtual std::string key(const ResourceEntry &entry) = 0;
};

// The first character of the name, of a dot name the first two, without accents and in lower case. Empty where a byte
// that starts no UTF-8 character stands among them.
class NameCluster : public Cluster {
 public:
  NameCluster();
  std::string key(const ResourceEntry &entry) override;

 protected:
  UErrorCode status = U_ZERO_ERROR;
  std::shared_ptr<icu::Transliterator> transliterator;

 private:
  std::unordered_map<std::string, std::string> folded_;  // initials met before: a transliteration costs microseconds
};

// Year and month of the modification, local time: "2024/03". Empty for a time that the C library cannot break down.
class DateCluster final : public Cluster {
 public:
  std::string key(const ResourceEntry &entry) override;
};

// The label of the size band: "xs" to "xxl".
class SizeCluster final : public Cluster {
 public:
  std::string key(const ResourceEntry &entry) override;
};

// "folder", or the extension in lower case as the ICU default locale has it; empty without an extension.
class TypeCluster final : public Cluster {
 public:
  std::string key(const ResourceEntry &entry) override;
};

// The owner's account name, "---" where the id has none.
class OwnerCluster final : public Cluster {
 public:
  std::string key(const ResourceEntry &entry) override;
};

// The group's name, "---" where the id has none.
class GroupCluster final : public Cluster {
 public:
  std::string key(const ResourceEntry &entry) override;
};

// The nine permission bits, at least three octal digits: "755".
class PermissionCluster final : public Cluster {
 public:
  std::string key(const ResourceEntry &entry) override;
};

}  // namespace dirwell

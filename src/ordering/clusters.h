// Grouping: the cluster key of an entry, one class per kind. Keys never fail; an ICU error leaves the text as it is.
// One thread at a time.
#pragma once

#include <unicode/translit.h>

#include <memory>
#include <string>

#include "entry/resource_entry.h"

namespace dirwell {

class Cluster {
 public:
  virtual ~Cluster() = default;
  // The key as UTF-8 text (bytes of names that are not UTF-8 come back as U+FFFD where ICU converts them).
  virtual std::string key(const ResourceEntry &entry) = 0;
};

// TODO(ordering): NameCluster, DateCluster, SizeCluster, TypeCluster, OwnerCluster, GroupCluster, PermissionCluster.

}  // namespace dirwell

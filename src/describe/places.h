// What kind of place an entry lies in. Runs in the request's own process, one thread.
#pragma once

#include <cstdint>
#include <string>

#include "entry/resource_entry.h"

namespace dirwell {

inline constexpr std::int32_t share_none = -1;
inline constexpr std::int32_t share_cloud_cache = 1;
inline constexpr std::int32_t share_remote = 2;

// The values 9 and 10 are not used.
enum class PathClass : std::int32_t {
  ordinary = 0,
  mtp = 1,
  remote_share = 2,
  optical_disc = 3,
  remote = 4,
  ubuntu = 5,
  survo = 6,
  snapshot = 7,
  snapshot_vault = 8,
  mounted_snapshot = 11,
  cloud_cache = 12,
};

// The type of the first share, in list order, whose path is a plain text prefix of the entry's full path; -1 for none.
std::int32_t shareTypeOf(const ResourceEntry &entry);
// The same for a full path that the caller already has.
std::int32_t shareTypeOf(const std::string &fullPath);

// The first class that applies: share type, then the virtual directory's prefix, then phone and disc shares.
PathClass classifyPath(const ResourceEntry &entry);
PathClass classifyPath(std::int32_t shareType, const std::string &virtualDirectory);

}  // namespace dirwell

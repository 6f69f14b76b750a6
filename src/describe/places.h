// What kind of place an entry lies in. Runs in the request's own process, one thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "entry/resource_entry.h"
#include "platform/include/strata_nas.h"

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

// The shares as they stand when the object is made, so that all entries of one request are held against the same list
// and the platform is asked for it once.
class ShareList {
 public:
  ShareList();

  // The type of the first share, in list order, whose path is a plain text prefix of `fullPath` ("/share/Pub" matches
  // "/share/Public/a" too); share_none when no share matches, for an empty path and without a list.
  [[nodiscard]] std::int32_t typeOf(std::string_view fullPath) const;

 private:
  struct Release {
    void operator()(const SMB_Share_Info *info) const { SMB_Free_Share_Info(info); }
  };
  std::unique_ptr<const SMB_Share_Info, Release> info_;
};

// The same for the shares as they stand at the call.
std::int32_t shareTypeOf(const ResourceEntry &entry);
std::int32_t shareTypeOf(const std::string &fullPath);

// The first class that applies: share type, then the virtual directory's prefix, then phone and disc shares.
PathClass classifyPath(const ResourceEntry &entry);
PathClass classifyPath(std::int32_t shareType, const std::string &virtualDirectory);

// The class as far as share type and prefix tell it, without a question to the platform; none where they do not.
std::optional<PathClass> classifyByText(std::int32_t shareType, std::string_view virtualDirectory);

}  // namespace dirwell

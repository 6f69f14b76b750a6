#include "describe/places.h"

#include <algorithm>
#include <array>
#include <span>

#include "entry/paths.h"

namespace dirwell {

namespace {

struct PrefixRow {
  std::string_view prefix;
  PathClass place;
};

constexpr std::array<PrefixRow, 6> virtual_places{{
    {"/remote:", PathClass::remote},
    {"/ubuntu:", PathClass::ubuntu},
    {"/survo:", PathClass::survo},
    {"/snapshot:", PathClass::snapshot},
    {"/snapshot_vault:", PathClass::snapshot_vault},
    {"/mnt/snapshot/", PathClass::mounted_snapshot},
}};

// No row may shadow another: the order of the rows must not matter.
constexpr bool prefixesAreDisjoint() {
  return std::ranges::all_of(virtual_places, [](const PrefixRow &row) {
    return std::ranges::count_if(virtual_places,
                                 [&row](const PrefixRow &other) { return other.prefix.starts_with(row.prefix); }) == 1;
  });
}
static_assert(prefixesAreDisjoint());

}  // namespace

ShareList::ShareList() : info_(SMB_Get_Share_Info()) {}

std::int32_t ShareList::typeOf(std::string_view fullPath) const {
  if (fullPath.empty() || info_ == nullptr) {
    return share_none;
  }
  const std::span<const SMB_Share> shares(info_->shares, info_->count);
  const auto found =
      std::ranges::find_if(shares, [fullPath](const SMB_Share &share) { return fullPath.starts_with(share.path); });
  return found == shares.end() ? share_none : found->type;
}

std::int32_t shareTypeOf(const ResourceEntry &entry) {
  return shareTypeOf(fullPath(entry));
}

std::int32_t shareTypeOf(const std::string &fullPath) {
  return ShareList().typeOf(fullPath);
}

PathClass classifyPath(const ResourceEntry &entry) {
  return classifyPath(shareTypeOf(entry), virtualDirectory(entry));
}

PathClass classifyPath(std::int32_t shareType, const std::string &virtualDirectory) {
  if (const auto place = classifyByText(shareType, virtualDirectory)) {
    return *place;
  }
  if (Is_MTP_Share(virtualDirectory.c_str()) != 0) {
    return PathClass::mtp;
  }
  return Is_ODD_Share(virtualDirectory.c_str()) != 0 ? PathClass::optical_disc : PathClass::ordinary;
}

std::optional<PathClass> classifyByText(std::int32_t shareType, std::string_view virtualDirectory) {
  if (shareType == share_remote) {
    return PathClass::remote_share;
  }
  if (shareType == share_cloud_cache) {
    return PathClass::cloud_cache;
  }
  const auto *const row = std::ranges::find_if(virtual_places, [virtualDirectory](const PrefixRow &candidate) {
    return virtualDirectory.starts_with(candidate.prefix);
  });
  return row == virtual_places.end() ? std::nullopt : std::optional(row->place);
}

}  // namespace dirwell
